#include "host/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <iostream>

#include "engine/log.h"
#include "module/torvasin.h"

namespace torvasin_host {

using namespace torvasin_engine;

namespace {

constexpr unsigned longest_period_ms = 3'600'000;
constexpr std::size_t longest_name = sizeof torvasin_plugin_context::name - 1;
constexpr int most_niceness = 39;  // from the least to the greatest

// Turns the name of a level into its number, which may be given as well.
std::string take_level(std::string& level) {
  for (int number = 1; number <= log_off; ++number) {
    const std::string digit = std::to_string(number);
    if (level == log_level_names.at(static_cast<std::size_t>(number))) level = digit;
    if (level == digit) return "";
  }
  return level + " is none of trace, warning, error, failure and off, nor 1 to 5";
}

std::string name_fault(const std::string& name) {
  if (name.size() <= longest_name) return "";
  return "longer than " + std::to_string(longest_name) + " characters";
}

void add_run_options(CLI::App& app, options& parsed) {
  const CLI::Range period(1U, longest_period_ms);
  const auto add = [&app](const char* name, auto& value, const char* type, const char* words) {
    return app.add_option(name, value, words)->type_name(type);
  };
  add("--module", parsed.module, "PATH", "Module to load (default: the one of this program)");
  add("--conf-file", parsed.conf_file, "PATH", "Configuration file of the module")
      ->capture_default_str();
  add("--name", parsed.name, "NAME", "Name of the module instance")
      ->check(name_fault)
      ->capture_default_str();
  add("--affinity", parsed.affinity, "MASK", "Processors of the module's thread, decimal or 0x")
      ->check(CLI::Range(1U, unsigned{INT32_MAX}));
  add("--renice", parsed.renice, "N", "Change of the nice value of the module's thread")
      ->check(CLI::Range(-most_niceness, most_niceness));
  add("--fast-ms", parsed.fast_ms, "N", "Period of the fast meters, milliseconds")
      ->check(period)
      ->capture_default_str();
  add("--slow-ms", parsed.slow_ms, "N", "Period of the slow meters, milliseconds")
      ->check(period)
      ->capture_default_str();
  add("--log-level", parsed.log_level, "LEVEL",
      "Lowest level to log: trace, warning, error, failure or off, or 1 to 5")
      ->transform(CLI::Validator(take_level, ""))
      ->default_str("warning");
}

// What the program does instead of running the module.
void add_modes(CLI::App& app, options& parsed) {
  CLI::Option* version = app.add_flag("--version", parsed.version,
                                      "Print the versions of this program and of the module");
  app.add_flag("--list-meters{table}", parsed.list_meters,
               "Print the meters of this machine with their values, or with =ini as a file that "
               "torvasin_config reads")
      ->check(CLI::IsMember({"table", "ini"}))
      ->excludes(version);
}

// An empty argument, such as a variable of a shell that is not set, names nothing.
bool has_empty(int argc, const char* const* argv) {
  return std::any_of(argv, argv + argc, [](const char* argument) { return *argument == '\0'; });
}

}  // namespace

bool parse_options(int argc, const char* const* argv, options& parsed) {
  CLI::App app("Loads a module and feeds it meters of this machine, until SIGINT or SIGTERM.",
               "torvasin_host");
  app.set_help_flag("-h,--help", "Print this text");
  add_run_options(app, parsed);
  add_modes(app, parsed);
  try {
    if (has_empty(argc, argv)) throw CLI::ValidationError("an argument is empty");
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return false;
  } catch (const CLI::ParseError& error) {
    throw usage_error(error.what());
  }
  return true;
}

}  // namespace torvasin_host
