// The library's log as long as the program sets none: lines on standard error, without waiting for
// the reader.

#ifndef TORVASIN_AGENT_DEFAULT_LOG_H
#define TORVASIN_AGENT_DEFAULT_LOG_H

namespace torvasin_agent_library {

// Hands what is logged from now on to a torvasin_engine::stderr_log.
void log_to_standard_error();

// In a forked child: forgets the lock and the counts, which a thread of the parent may have been
// changing.
void reset_default_log_in_child();

}  // namespace torvasin_agent_library

#endif  // TORVASIN_AGENT_DEFAULT_LOG_H
