// What all agents of a process share: the log, and the handling of fork.

#ifndef TORVASIN_AGENT_PROCESS_H
#define TORVASIN_AGENT_PROCESS_H

#include <mutex>

#include "agent/torvasin_agent.h"

namespace torvasin_agent_library {

using program_log = void (*)(int level, const char* source, int line, const char* text, void* user);

// Sends the log to a function of the program or, if it is null, to standard error.
void set_program_log(program_log log, void* user, int lowest_level);

// Registers an agent with the handlers of fork, and prepares the log. Throws std::bad_alloc.
void enter_process(torvasin_agent* agent);
void leave_process(torvasin_agent* agent);

// Held while a socket is opened or closed, so that a forked child finds and closes it. fork waits
// for the guard. The program's log function may wait for a thread that forks, so it must not be
// called under the guard.
using fork_guard = std::unique_lock<std::mutex>;
fork_guard hold_forks();

}  // namespace torvasin_agent_library

#endif  // TORVASIN_AGENT_PROCESS_H
