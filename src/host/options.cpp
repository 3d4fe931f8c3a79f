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
constexpr int most_niceness = 39;  // from the lowest nice value to the highest

// Turns the name of a level into its number. Accepts the number too.
std::string take_level(std::string& level) {
  for (int number = 1; number <= log_off; ++number) {
    const std::string digit = std::to_string(number);
    if (level == log_level_names.at(static_cast<std::size_t>(number))) level = digit;
    if (level == digit) return "";
  }
  return level + " is not trace, warning, error, failure, off or 1 to 5";
}

// A flag without a value is "true".
std::string take_list_form(std::string& form) {
  if (form == "true") form = "table";
  return form == "table" || form == "ini" ? "" : form + " is neither table nor ini";
}

std::string name_fault(const std::string& name) {
  if (name.size() <= longest_name) return "";
  return "longer than " + std::to_string(longest_name) + " characters";
}

void add_run_options(CLI::App& app, options& parsed) {
  const CLI::Range period(1U, longest_period_ms);
  const auto add = [&app](const char* name, auto& value, const char* form,
                          const std::string& words) {
    return app.add_option(name, value, words)->option_text(form);
  };
  const auto with = [](const char* words, const std::string& otherwise) {
    return std::string(words) + " (default: " + otherwise + ")";
  };
  add("--module", parsed.module, "PATH",
      with("Module to load", "the one that came with this program"));
  add("--conf-file", parsed.conf_file, "PATH", with("Configuration file", parsed.conf_file));
  add("--name", parsed.name, "NAME", with("Name of the agent in the log", parsed.name))
      ->check(name_fault);
  add("--affinity", parsed.affinity, "MASK",
      "Processors for the agent's thread: a bit mask, decimal or 0x")
      ->check(CLI::Range(1U, unsigned{INT32_MAX}));
  add("--renice", parsed.renice, "N",
      "Add N, from -39 to 39, to the nice value of the agent's thread")
      ->check(CLI::Range(-most_niceness, most_niceness));
  add("--fast-ms", parsed.fast_ms, "N",
      with("Read the fast meters every N milliseconds", std::to_string(parsed.fast_ms)))
      ->check(period);
  add("--slow-ms", parsed.slow_ms, "N",
      with("Read the slow meters every N milliseconds", std::to_string(parsed.slow_ms)))
      ->check(period);
  add("--log-level", parsed.log_level, "LEVEL",
      "Log this level and higher: trace, warning (default), error, failure or off, or 1 to 5")
      ->transform(CLI::Validator(take_level, ""));
}

// What the program does instead of running the module.
void add_modes(CLI::App& app, options& parsed) {
  CLI::Option* version = app.add_flag("--version", parsed.version,
                                      "Print the versions of this program and of the module");
  version->option_text(" ");
  app.add_flag("--list-meters", parsed.list_meters,
               "Print the meters of this machine and their values, or with =ini a file for "
               "torvasin_config")
      ->transform(CLI::Validator(take_list_form, ""))
      ->excludes(version)
      ->option_text("[=ini]");
}

// Refuses empty arguments: they come from unset variables of a shell.
bool has_empty(int argc, const char* const* argv) {
  return std::any_of(argv, argv + argc, [](const char* argument) { return *argument == '\0'; });
}

}  // namespace

bool parse_options(int argc, const char* const* argv, options& parsed) {
  CLI::App app("Runs an SNMP agent that serves meters of this machine, until SIGINT or SIGTERM.",
               "torvasin_host");
  app.set_help_flag("-h,--help", "Print this help message and exit");
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
