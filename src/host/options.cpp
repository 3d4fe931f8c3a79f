#include "host/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace torvasin_host {
namespace {

constexpr unsigned longest_period_ms = 3'600'000;

void add_options(CLI::App& app, options& parsed) {
  const CLI::Range period(1U, longest_period_ms);
  app.add_option("--module", parsed.module, "Module to load (default: the one of this program)")
      ->type_name("PATH");
  app.add_option("--conf-file", parsed.conf_file, "Configuration file of the module")
      ->type_name("PATH");
  app.add_option("--name", parsed.name, "Name of the module instance")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_option("--affinity", parsed.affinity, "Processors of the module's thread, decimal or 0x")
      ->type_name("MASK");
  app.add_option("--renice", parsed.renice, "Change of the nice value of the module's thread")
      ->type_name("N");
  app.add_option("--fast-ms", parsed.fast_ms, "Period of the fast meters, milliseconds")
      ->type_name("N")
      ->check(period)
      ->capture_default_str();
  app.add_option("--slow-ms", parsed.slow_ms, "Period of the slow meters, milliseconds")
      ->type_name("N")
      ->check(period)
      ->capture_default_str();
  app.add_option("--log-level", parsed.log_level,
                 "Lowest level to log: 1 trace, 2 warning, 3 error, 4 failure, 5 nothing")
      ->type_name("N")
      ->check(CLI::Range(1, 5))
      ->capture_default_str();
  app.add_flag("--version", parsed.version, "Print the versions of this program and of the module");
}

}  // namespace

std::optional<exit_status> parse_options(int argc, const char* const* argv, options& parsed) {
  CLI::App app("Loads a module, feeds it meters of this machine, and runs until SIGINT or SIGTERM.",
               "torvasin_host");
  app.set_help_flag("--help", "Print this text");
  add_options(app, parsed);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return exit_good;
  } catch (const CLI::ParseError& error) {
    std::cerr << "torvasin_host: " << error.what() << '\n';
    return exit_usage;
  }
  return std::nullopt;
}

}  // namespace torvasin_host
