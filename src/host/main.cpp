// torvasin_host: runs a module until SIGINT or SIGTERM, or prints its version or the meters.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/meter_engine.h"
#include "engine/stderr_log.h"
#include "host/listing.h"
#include "host/log_line.h"
#include "host/options.h"
#include "host/plugin.h"
#include "host/signals.h"
#include "host/supervisor.h"
#include "module/torvasin.h"

namespace torvasin_host {

using namespace torvasin_engine;

namespace {

constexpr unsigned patience = 1;  // seconds

// Opens standard input, output and error on /dev/null if they are closed. Otherwise a socket would
// get the descriptor, and receive what is written there.
void open_standard_files() {
  while (true) {
    const int fd = open("/dev/null", O_RDWR);  // the lowest that is free
    if (fd > STDERR_FILENO) close(fd);
    if (fd < 0 || fd > STDERR_FILENO) return;
  }
}

// Reports why the program ends. It ends even if nobody reads the report.
exit_status fail(exit_status status, const char* reason) {
  std::signal(SIGALRM, [](int) { _exit(exit_failure); });
  alarm(patience);
  std::cerr << "torvasin_host: " << reason << '\n';
  return status;
}

// The module that belongs to this program: beside it in a build, in the library directory in an
// installation. If neither exists, returns the path beside the program.
std::filesystem::path default_module() {
  constexpr auto file_name = "libtorvasin_snmp.so";
  const auto directory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const auto installed = directory / TORVASIN_HOST_MODULE_DIR / file_name;
  const auto beside = directory / file_name;
  return !exists(beside) && exists(installed) ? installed.lexically_normal() : beside;
}

void report_leaks(std::size_t registrations) {
  const std::size_t blocks = get_memory_stats().live_blocks;
  if (blocks == 0 && registrations == 0) return;
  torvasin_log(TORVASIN_LOG_WARNING, "src/host/main", __LINE__, 1,
               "the module left %zu memory blocks and %zu meter callbacks", blocks, registrations);
}

exit_status run(const options& given) {
  if (!given.list_meters.empty()) {
    given.list_meters == "ini" ? print_meters_as_ini() : print_meters();
    return exit_good;
  }
  meter_engine engine;
  const auto path = given.module.empty() ? default_module() : std::filesystem::path(given.module);
  plugin module(given.name, engine, path);
  if (given.version) {
    std::cout << "torvasin_host " TORVASIN_VERSION "\nmodule " << module.version() << '\n';
    return exit_good;
  }

  block_signals();
  stderr_log log(log_line);
  log.become_sink();
  set_log_level(given.log_level);
  const exit_status status = run_module(given, module, engine, log);
  release_all_texts();
  report_leaks(engine.registrations());
  return status;
}

}  // namespace
}  // namespace torvasin_host

int main(int argc, char** argv) {
  using namespace torvasin_host;
  open_standard_files();
  std::signal(SIGPIPE, SIG_IGN);  // a write tells if its reader is gone
  try {
    options given;
    const exit_status status = parse_options(argc, argv, given) ? run(given) : exit_good;
    if (!std::cout.flush()) return fail(exit_failure, "cannot write to standard output");
    return status;
  } catch (const usage_error& error) {
    return fail(exit_usage, error.what());
  } catch (const std::exception& error) {
    return fail(exit_failure, error.what());
  }
}
