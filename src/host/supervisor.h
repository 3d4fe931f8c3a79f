// Runs a module: starts it, reloads and stops it on signals.

#ifndef TORVASIN_HOST_SUPERVISOR_H
#define TORVASIN_HOST_SUPERVISOR_H

#include "engine/meter_engine.h"
#include "engine/stderr_log.h"
#include "host/options.h"
#include "host/plugin.h"

namespace torvasin_host {

// Runs a loaded module, with the meters of this machine, until SIGTERM or SIGINT. SIGHUP reloads
// the configuration: one that cannot be read changes nothing, and if the module does not start with
// it, it starts again with the previous one. Returns with the module and the engine stopped:
// exit_usage if the configuration file cannot be read at the first start, exit_failure if a start
// fails for another reason. Logs the reason. The signals must be blocked.
exit_status run_module(const options& given, plugin& module, meter_engine& engine,
                       torvasin_engine::stderr_log& log);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_SUPERVISOR_H
