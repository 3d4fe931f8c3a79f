// torvasin_config: checks a configuration of the agent, names its items, and drafts one.

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <new>
#include <optional>
#include <regex>

#include "config/config.h"
#include "host/meters.h"
#include "host/table.h"

namespace torvasin_config {
namespace {

enum exit_status { exit_good = 0, exit_fault = 1, exit_unusable = 2 };

struct options {
  std::vector<std::string> files;     // one, except for check
  std::optional<std::string> meters;  // a file that lists them; none for those of torvasin_host
  bool no_meters = false;
  bool strict = false;
  bool quiet = false;
  std::string mib = "TORVASIN-MIB";
  std::string module = "torvasin";
  std::string exporter = "0.28";
  snmp_oid oid;
};

struct unusable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

exit_status fail(exit_status status, const std::string& message) {
  std::cerr << "torvasin_config: " << message << '\n';
  return status;
}

std::string errors_in(const std::string& path, const findings& found) {
  return printable(path) + " has " + found.counted(severity::error);
}

// The meters that the options ask for. Findings about a file of meters go to `out`.
meter_list meters_for(const options& given, std::ostream& out) {
  if (!given.meters) return given.no_meters ? meter_list{} : own_meters();
  meter_list meters;
  findings found;
  const std::string fault = read_meters(*given.meters, found, meters);
  if (!fault.empty()) throw unusable(fault);
  found.print(out);
  if (found.count(severity::error) > 0) throw unusable(errors_in(*given.meters, found));
  return meters;
}

// ---- Subcommands -------------------------------------------------------------------------------

torvasin_host::table_row row_of(const item& item) {
  const snmp_meter_binding& binding = *item.binding;
  torvasin_host::table_row row = {binding.name,
                                  dotted(item.oid()),
                                  item.typed() ? words_of(binding.type).name : "",
                                  binding.meter,
                                  torvasin_host::speed_name(binding.fast),
                                  item.formula,
                                  serve(item)};
  for (std::string& cell : row) cell = cell.empty() ? "-" : printable(cell);
  return row;
}

void print_items(configuration& config) {
  std::vector<torvasin_host::table_row> rows = {
      {"ITEM", "OID", "TYPE", "METER", "METERTYPE", "FORMULA", "SERVES NOW"}};
  for (const item& each : config.items) rows.push_back(row_of(each));
  if (rows.size() > 1) torvasin_host::print_table(rows);
  print_notes(config);
  std::cout << fmt::format("{}: {}, {}; listens on {}:{}\n", config.found.text({0, 0}),
                           config.found.counted(severity::error),
                           config.found.counted(severity::warning),
                           inet_ntoa({inet_addr(config.module.ip)}), config.module.port);
}

exit_status check(const options& given) {
  const meter_list meters = meters_for(given, std::cout);
  exit_status worst = exit_good;
  for (const std::string& path : given.files) {
    configuration config(path, meters);
    const findings& found = config.found;
    found.print(std::cout);
    if (config.fault.empty() && !given.quiet) print_items(config);
    const std::size_t warnings = given.strict ? found.count(severity::warning) : 0;
    if (found.count(severity::error) + warnings > 0) worst = std::max(worst, exit_fault);
    if (!config.fault.empty()) worst = fail(exit_unusable, config.fault);
  }
  return worst;
}

exit_status print_names(const options& given, const std::function<void(configuration&)>& print) {
  const meter_list meters = meters_for(given, std::cerr);
  configuration config(given.files[0], meters);
  if (!config.fault.empty()) throw unusable(config.fault);
  if (config.found.count(severity::error) > 0) {
    config.found.print(std::cerr);
    return fail(exit_fault, errors_in(given.files[0], config.found));
  }
  print(config);
  return exit_good;
}

// ---- Command line ------------------------------------------------------------------------------

// A validator for CLI11, which returns what is wrong with a value.
auto matches(const char* pattern, const char* example) {
  return [=](const std::string& value) {
    if (std::regex_match(value, std::regex(pattern))) return std::string();
    return in_quotes(value) + " is not a valid name; an example is " + example;
  };
}

std::string take_oid(const std::string& text, snmp_oid& oid) {
  constexpr std::size_t added = 3;
  parse_oid(text.c_str(), &oid);
  if (can_be_named(oid) && oid.count + added <= OID_TEXT_SUBIDS) return "";
  return in_quotes(text) + " cannot have items below it; an OID that can is 1.3.6.1.4.1.99999";
}

// Adds a subcommand with the options that all share. It takes up to `files` files.
CLI::App* add_command(CLI::App& app, const char* name, const char* words, options& given,
                      int files) {
  CLI::App* command = app.add_subcommand(name, words);
  CLI::Option* meters = command->add_option(
      "--meters", given.meters, "Use the meters listed in FILE (default: those of torvasin_host)");
  meters->option_text("FILE");
  if (files == 0) return command;
  CLI::Option* file = command->add_option("FILE", given.files, "Configuration of the agent");
  file->required()->expected(1, files)->option_text(" ");
  CLI::Option* none =
      command->add_flag("--no-meters", given.no_meters, "Skip the checks that need the meters");
  none->excludes(meters)->option_text(" ");
  return command;
}

exit_status run(int argc, char** argv) {
  options given;
  exit_status status = exit_good;
  CLI::App app(
      "Checks a configuration of the SNMP agent, prints names for its items, or drafts one.",
      "torvasin_config");
  app.require_subcommand(1);
  app.set_version_flag("--version", "torvasin_config " TORVASIN_VERSION, "Print the version");
  const auto add = [&](const char* name, const char* words, int files) {
    return add_command(app, name, words, given, files);
  };

  CLI::App* command = add("check", "Report mistakes in FILE and list what it serves", INT_MAX);
  command->add_flag("--strict", given.strict, "Exit with 1 for warnings too");
  command->add_flag("--quiet", given.quiet, "Print only the mistakes");
  command->callback([&] { status = check(given); });

  command = add("mib", "Print a MIB that names the items", 1);
  command->add_option("--name", given.mib, "Name of the MIB (default: TORVASIN-MIB)")
      ->check(matches("(?=.{1,32}$)[A-Z][A-Za-z0-9]*(-[A-Za-z0-9]+)*", "SITE-MIB"))
      ->option_text("NAME");
  command->callback([&] {
    status = print_names(given, [&](configuration& config) { print_mib(config, given.mib); });
  });

  command = add("prometheus", "Print an snmp.yml for prometheus-snmp-exporter", 1);
  command
      ->add_option("--name", given.module, "Name of the module in the snmp.yml (default: torvasin)")
      ->check(matches("[A-Za-z_][A-Za-z0-9_]*", "site"))
      ->option_text("NAME");
  command
      ->add_option("--exporter", given.exporter,
                   "Version of the exporter: 0.21, 0.24 or 0.28 (default)")
      ->check(matches("0\\.(21|24|28)", "0.28"))
      ->option_text("VERSION");
  command->callback([&] {
    status = print_names(given, [&](configuration& config) {
      print_prometheus(config, given.module, std::stoi(given.exporter.substr(2)));
    });
  });

  command = add("draft", "Print a configuration with an item for each meter", 0);
  command->add_option("--oid", "Put the items below this OID of your organisation")
      ->check([&](const std::string& text) { return take_oid(text, given.oid); })
      ->required()
      ->option_text("OID");
  command->callback([&] { print_draft(meters_for(given, std::cerr), given.oid); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {
    app.exit(done);
  }
  return status;
}

}  // namespace
}  // namespace torvasin_config

int main(int argc, char** argv) {
  using namespace torvasin_config;
  std::set_new_handler([] { std::_Exit(fail(exit_unusable, "out of memory")); });
  try {
    const exit_status status = run(argc, argv);
    return std::cout.flush() ? status : fail(exit_fault, "cannot write the output");
  } catch (const CLI::ParseError& failure) {
    return fail(exit_unusable, printable(failure.what()));
  } catch (const unusable& failure) {
    return fail(exit_unusable, failure.what());
  } catch (const std::exception& failure) {
    return fail(exit_fault, failure.what());
  }
}
