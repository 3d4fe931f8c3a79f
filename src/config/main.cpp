// torvasin_config: checks a configuration of the agent, and gives names to what it serves.

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <new>
#include <optional>

#include "config/config.h"

namespace torvasin_config {
namespace {

enum exit_status { exit_good = 0, exit_fault = 1, exit_unusable = 2 };

struct options {
  std::string command;
  std::string path;
  std::optional<std::string> meters;  // a file; else those of torvasin_host
  bool no_meters = false;
  bool strict = false;
  bool quiet = false;
  std::string mib = "TORVASIN-MIB";
  std::string module = "torvasin";
  std::string exporter = "0.28";
};

std::string cannot_read(const std::string& path, const std::string& fault) {
  return "cannot read " + in_quotes(path) + ": " + fault;
}

exit_status fail(exit_status status, const std::string& message) {
  std::cerr << "torvasin_config: " << message << '\n';
  return status;
}

torvasin_host::table_row row_of(const item& item) {
  const snmp_meter_binding& binding = *item.binding;
  torvasin_host::table_row row = {binding.name,
                                  dotted(item.oid()),
                                  item.typed() ? words_of(binding.type).name : "",
                                  binding.meter,
                                  torvasin_host::speed_name(binding.fast),
                                  item.formula,
                                  serve(*item.served)};
  for (std::string& cell : row) cell = cell.empty() ? "-" : printable(cell);
  return row;
}

exit_status check(const configuration& config, const options& given) {
  const findings& found = config.found;
  found.print(std::cout);
  if (!given.quiet) {
    std::vector<torvasin_host::table_row> rows = {
        {"ITEM", "OID", "TYPE", "METER", "METERTYPE", "FORMULA", "SERVES NOW"}};
    for (const item& each : config.items) rows.push_back(row_of(each));
    if (rows.size() > 1) torvasin_host::print_table(rows);
    std::cout << fmt::format("{}, {}, {}\n", found.counted(error), found.counted(warning),
                             found.counted(note));
  }
  const std::size_t faults = found.count(error) + (given.strict ? found.count(warning) : 0);
  return faults == 0 ? exit_good : exit_fault;
}

exit_status run(const options& given) {
  const bool checks = given.command == "check";
  meter_list meters = given.no_meters ? meter_list{} : own_meters();
  if (given.meters) {
    findings found;
    const std::string fault = read_meters(*given.meters, found, meters);
    if (!fault.empty()) return fail(exit_unusable, cannot_read(*given.meters, fault));
    found.print(checks ? std::cout : std::cerr);
    if (found.count(error) > 0) return exit_unusable;
  }
  configuration config(given.path, meters);
  if (!config.fault.empty()) return fail(exit_unusable, cannot_read(given.path, config.fault));
  if (checks) return check(config, given);
  if (config.found.count(error) > 0) {
    return fail(exit_fault, fmt::format("{} has {}, which torvasin_config check shows",
                                        printable(given.path), config.found.counted(error)));
  }
  given.command == "mib" ? print_mib(config, given.mib)
                         : print_prometheus(config, given.module, given.exporter == "0.21");
  return exit_good;
}

std::string mib_name_fault(const std::string& name) {
  constexpr std::size_t longest = 32;
  const auto odd = [](unsigned char letter) { return std::isalnum(letter) == 0 && letter != '-'; };
  const bool legal = name.size() <= longest && name[0] >= 'A' && name[0] <= 'Z' &&
                     std::ranges::none_of(name, odd) && !name.ends_with('-') &&
                     name.find("--") == std::string::npos;
  return legal ? "" : in_quotes(name) + " is no name for a MIB, such as SITE-MIB";
}

std::string module_name_fault(const std::string& name) {
  const auto odd = [](unsigned char letter) { return std::isalnum(letter) == 0 && letter != '_'; };
  const bool legal =
      !name.empty() && (name[0] < '0' || name[0] > '9') && std::ranges::none_of(name, odd);
  return legal ? "" : in_quotes(name) + " is no name for a module, such as site";
}

exit_status run(int argc, char** argv) {
  options given;
  CLI::App app("Checks a configuration of the SNMP agent, and names what it serves.",
               "torvasin_config");
  app.require_subcommand(1);
  const auto add = [&](const char* command, const char* words) {
    CLI::App* added = app.add_subcommand(command, words);
    added->add_option("FILE", given.path, "Configuration of the agent")->required();
    CLI::Option* meters =
        added->add_option("--meters", given.meters, "File that lists the meters of the host")
            ->type_name("FILE");
    added->add_flag("--no-meters", given.no_meters, "Leave out what depends on meters")
        ->excludes(meters);
    return added;
  };
  CLI::App* check = add("check", "Say what is wrong in FILE, and what it serves");
  check->add_flag("--strict", given.strict, "Exit with 1 for warnings too");
  check->add_flag("--quiet", given.quiet, "Print nothing but what is wrong");
  add("mib", "Print a MIB")
      ->add_option("--name", given.mib, "Its name")
      ->check(mib_name_fault)
      ->capture_default_str();
  CLI::App* prometheus = add("prometheus", "Print an snmp.yml for prometheus-snmp-exporter");
  prometheus->add_option("--name", given.module, "Name of the module in it")
      ->check(module_name_fault)
      ->capture_default_str();
  prometheus->add_option("--exporter", given.exporter, "Its version: 0.21 for all before 0.23")
      ->check(CLI::IsMember({"0.21", "0.28"}))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return exit_good;
  }
  given.command = app.get_subcommands()[0]->get_name();
  return run(given);
}

}  // namespace
}  // namespace torvasin_config

int main(int argc, char** argv) {
  using namespace torvasin_config;
  std::set_new_handler([] { std::_Exit(fail(exit_unusable, "there is no memory left")); });
  try {
    const exit_status status = run(argc, argv);
    return std::cout.flush() ? status : fail(exit_fault, "cannot write the output");
  } catch (const CLI::ParseError& failure) {
    return fail(exit_unusable, printable(failure.what()));
  } catch (const std::exception& failure) {
    return fail(exit_fault, failure.what());
  }
}
