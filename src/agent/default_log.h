// What the library does with its log as long as the program does not take it: writes it to standard
// error, one line each, and never waits for the reader.

#ifndef TORVASIN_AGENT_DEFAULT_LOG_H
#define TORVASIN_AGENT_DEFAULT_LOG_H

#include "engine/log.h"

namespace torvasin_agent_library {

// A torvasin_engine::log_sink. user is not used.
void write_to_standard_error(const torvasin_engine::log_record& record, void* user);

// In a forked child: forgets the counts, which a thread of the parent may have been changing.
void reset_default_log_in_child();

}  // namespace torvasin_agent_library

#endif  // TORVASIN_AGENT_DEFAULT_LOG_H
