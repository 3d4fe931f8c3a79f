// The module at work: its start, what signals do to it, and its end.

#ifndef TORVASIN_HOST_SERVICE_H
#define TORVASIN_HOST_SERVICE_H

#include "engine/meter_engine.h"
#include "host/log_writer.h"
#include "host/options.h"
#include "host/plugin.h"

namespace torvasin_host {

// Keeps SIGTERM, SIGINT and SIGHUP for run_module, here and in every thread that is made later.
void keep_signals();

// Runs a loaded module until SIGTERM or SIGINT; SIGHUP stops and starts it. Returns with the module
// and the engine stopped: exit_usage when the configuration file cannot be read at the first start,
// exit_failure when a start fails later or otherwise; the log then has the reason.
exit_status run_module(const options& given, plugin& module, meter_engine& engine,
                       log_writer& writer);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_SERVICE_H
