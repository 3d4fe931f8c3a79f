// torvasin_config: checks a configuration of the agent, and gives names to what it serves.

#include <CLI/CLI.hpp>
#include <iostream>
#include <regex>

#include "config/config.h"

namespace torvasin_config {
namespace {

enum exit_status { exit_good = 0, exit_fault = 1, exit_unusable = 2 };

constexpr const char* severity_names[] = {"error", "warning", "note"};

std::string counted(const configuration& config, severity kind) {
  const std::size_t count = config.count(kind);
  return fmt::format("{} {}{}", count, severity_names[kind], count == 1 ? "" : "s");
}

exit_status fail(exit_status status, const std::string& message) {
  std::cerr << "torvasin_config: " << message << '\n';
  return status;
}

torvasin_host::table_row row_of(const configuration& config, std::size_t i) {
  const snmp_meter_binding& binding = config.module.bindings[i];
  const snmp_item& item = config.module.items[i];
  const std::string formula = binding.formula != nullptr ? config.items[i].formula : "";
  const char* type = item.writer == encode_null ? ""
                     : binding.type == ITEM_STRING
                         ? "string"
                         : torvasin_host::type_name(static_cast<torvasin_value_type>(binding.type));
  torvasin_host::table_row row = {
      binding.name, dotted(item.oid), type, binding.meter, torvasin_host::speed_name(binding.fast),
      formula,      serve(item)};
  for (std::string& cell : row) cell = cell.empty() ? "-" : printable(cell);
  return row;
}

std::string name_fault(const std::string& name) {
  static const std::regex legal("[A-Z][A-Za-z0-9]*(-[A-Za-z0-9]+)*");
  constexpr std::size_t longest = 32;
  if (name.size() <= longest && std::regex_match(name, legal)) return "";
  return in_quotes(name) + " is no name for a MIB, such as SITE-MIB";
}

void print_check(const configuration& config) {
  for (const auto& [at, kind, text] : config.findings) {
    std::cout << fmt::format("{}: {}: {}\n", config.place_text(at), severity_names[kind], text);
  }
  std::vector<torvasin_host::table_row> rows = {
      {"ITEM", "OID", "TYPE", "METER", "METERTYPE", "FORMULA", "SERVES NOW"}};
  for (std::size_t i = 0; i < config.items.size(); ++i) rows.push_back(row_of(config, i));
  if (rows.size() > 1) torvasin_host::print_table(rows);
  std::cout << fmt::format("{}, {}, {}\n", counted(config, error), counted(config, warning),
                           counted(config, note));
}

exit_status run(const std::string& command, const std::string& path, const std::string& name) {
  const configuration config(path);
  if (command == "check") {
    print_check(config);
    return config.count(error) + config.count(warning) == 0 ? exit_good : exit_fault;
  }
  if (config.count(error) > 0) {
    return fail(exit_fault, fmt::format("{} has {}, which torvasin_config check shows",
                                        printable(path), counted(config, error)));
  }
  command == "mib" ? print_mib(config, name) : print_prometheus(config);
  return exit_good;
}

exit_status run(int argc, char** argv) {
  std::string path;
  std::string name = "TORVASIN-MIB";
  CLI::App app("Checks a configuration of the SNMP agent, and names what it serves.",
               "torvasin_config");
  app.require_subcommand(1);
  const auto add = [&](const char* command, const char* words) {
    CLI::App* added = app.add_subcommand(command, words);
    added->add_option("FILE", path, "Configuration of the agent")->required();
    return added;
  };
  add("check", "Say what is wrong in FILE, and what it serves");
  CLI::Option* name_option = add("mib", "Print a MIB")->add_option("--name", name, "Its name");
  name_option->check(name_fault)->capture_default_str();
  add("prometheus", "Print an snmp.yml for prometheus-snmp-exporter");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return exit_good;
  }
  return run(app.get_subcommands()[0]->get_name(), path, name);
}

}  // namespace
}  // namespace torvasin_config

int main(int argc, char** argv) {
  using namespace torvasin_config;
  try {
    const exit_status status = run(argc, argv);
    return std::cout.flush() ? status : fail(exit_fault, "cannot write the output");
  } catch (const CLI::ParseError& failure) {
    return fail(exit_unusable, printable(failure.what()));
  } catch (const unreadable_file& failure) {
    return fail(exit_unusable, failure.what());
  } catch (const std::exception& failure) {
    return fail(exit_fault, failure.what());
  }
}
