// What the agents of a process share: its log, and what they do when it forks.

#ifndef TORVASIN_AGENT_PROCESS_H
#define TORVASIN_AGENT_PROCESS_H

#include <mutex>

#include "agent/torvasin_agent.h"

namespace torvasin_agent_library {

using program_log = void (*)(int level, const char* source, int line, const char* text, void* user);

// Gives the log to a function of the program, or with null to standard error.
void set_program_log(program_log log, void* user, int lowest_level);

// Makes an agent known to fork, and to the log of the process. Throws std::bad_alloc.
void enter_process(torvasin_agent* agent);
void leave_process(torvasin_agent* agent);

// Held while a socket comes or goes, so that a forked child finds it and closes it. A fork waits.
using fork_guard = std::unique_lock<std::recursive_mutex>;
fork_guard hold_forks();

}  // namespace torvasin_agent_library

#endif  // TORVASIN_AGENT_PROCESS_H
