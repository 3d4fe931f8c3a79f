// torvasin_host --check: what a configuration comes to, before an agent runs with it.

#ifndef TORVASIN_HOST_CHECK_H
#define TORVASIN_HOST_CHECK_H

#include <string>

#include "host/plugin.h"

namespace torvasin_host {

// Reports on a configuration file on standard output: what the module warns of and reports, a table
// of the items, and problems that the module accepts in silence: an item that no request can reach
// or that no meter of this host will ever refresh, a line that is not read as it stands, an address
// where nobody can ask. Changes nothing, and leaves a running agent alone.
//
// Returns whether all is well: false after a message of error level or above, a failed start or any
// problem. Throws std::system_error when the file cannot be read. Needs the module as
// trace_configuration does. Files that are open one inside another count as in a run.
bool check_configuration(plugin& module, const std::string& path);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_CHECK_H
