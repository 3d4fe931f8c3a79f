// Keeps a module at work: its start, what signals do to it, and its end.

#ifndef TORVASIN_HOST_SUPERVISOR_H
#define TORVASIN_HOST_SUPERVISOR_H

#include "engine/meter_engine.h"
#include "engine/stderr_log.h"
#include "host/options.h"
#include "host/plugin.h"

namespace torvasin_host {

// Runs a loaded module, with the meters of this machine, until a signal ends it; SIGHUP reloads
// the configuration. A configuration that cannot be read changes nothing; when the module does not
// start with it, it starts with the one that ran before. Returns with the module and the engine
// stopped: exit_usage when the configuration file cannot be read at the first start, exit_failure
// when a start fails otherwise; the log then has the reason. The signals must be blocked.
exit_status run_module(const options& given, plugin& module, meter_engine& engine,
                       torvasin_engine::stderr_log& log);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_SUPERVISOR_H
