// torvasin_host: runs a module in this process until SIGINT or SIGTERM, or tells about it, its
// configuration or the meters.

#include <pthread.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>

#include "host/check.h"
#include "host/key_value_list.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/meter_engine.h"
#include "host/meters.h"
#include "host/options.h"
#include "host/plugin.h"
#include "host/report.h"
#include "module/torvasin.h"

namespace torvasin_host {
namespace {

exit_status fail(const std::string& message) {
  std::cerr << "torvasin_host: " << message << '\n';
  return exit_failure;
}

// The module that goes with this program: beside it in a build, in the library directory when
// installed. The place beside it when there is neither.
std::filesystem::path default_module() {
  constexpr auto file_name = "libtorvasin_snmp.so";
  const auto directory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const auto installed = directory / TORVASIN_HOST_MODULE_DIR / file_name;
  const auto beside = directory / file_name;
  return !exists(beside) && exists(installed) ? installed.lexically_normal() : beside;
}

void set_host_keys(const options& given, torvasin_key_value_list& list) {
  if (given.conf_file) list.set("conf_file", *given.conf_file);
  if (given.affinity) list.set("affinity", *given.affinity);
  if (given.renice) list.set("renice", *given.renice);
}

// The signals that end the program. Blocked before there is any thread, so that all inherit it and
// only wait_for_end takes them.
sigset_t block_end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

void wait_for_end(const sigset_t& signals) {
  int signal = 0;
  sigwait(&signals, &signal);
}

void report_leaks(std::size_t registrations) {
  const std::size_t blocks = get_memory_stats().live_blocks;
  if (blocks == 0 && registrations == 0) return;
  torvasin_log(TORVASIN_LOG_WARNING, "src/host/main", __LINE__, 1,
               "the module left %zu memory blocks and %zu meter callbacks", blocks, registrations);
}

exit_status run(const options& given, plugin& module, meter_engine& engine) {
  const sigset_t end_signals = block_end_signals();
  torvasin_key_value_list list;
  set_host_keys(given, list);
  const std::int32_t status = module.start(list);
  if (status != 0) return fail("the module did not start, status " + std::to_string(status));

  engine.start(given.fast_ms, given.slow_ms,
               [sampler = meter_sampler()](int speed, torvasin_key_value_list& values) mutable {
                 sampler.sample(speed, values);
               });
  wait_for_end(end_signals);
  // The module first: as long as it runs it may count on its meters. The engine's threads must
  // be gone before the library is, with any callback that it left behind.
  module.stop();
  engine.stop();
  return exit_good;
}

exit_status check(const options& given, plugin& module) {
  const std::string fallback = given.conf_file.value_or("snmpmanager.ini");
  return check_configuration(module, given.check_file.empty() ? fallback : given.check_file)
             ? exit_good
             : exit_failure;
}

exit_status host(const options& given) {
  set_log_level(given.log_level);

  meter_engine engine;
  plugin module(given.name, engine);
  const auto path = given.module ? std::filesystem::path(*given.module) : default_module();
  std::string error;
  if (!module.load(path, error)) return fail(error);
  if (given.version) {
    std::cout << "torvasin_host " TORVASIN_HOST_VERSION "\nmodule " << module.version() << '\n';
    return exit_good;
  }
  const exit_status status = given.check ? check(given, module) : run(given, module, engine);
  module.unload();
  release_all_texts();
  report_leaks(engine.registrations());
  return status;
}

}  // namespace
}  // namespace torvasin_host

int main(int argc, char** argv) {
  using namespace torvasin_host;
  try {
    options given;
    const auto early = parse_options(argc, argv, given);
    if (early) return *early;
    if (!given.list_meters) return host(given);
    list_meters();
    return exit_good;
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}
