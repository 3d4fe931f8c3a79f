// Reads a configuration into the module and reports what looks wrong in its lines.

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <regex>

#include "config/config.h"
#include "engine/key_value_list.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "host/meters.h"

namespace torvasin_config {
namespace {

using std::string_view;

// ---- Values ------------------------------------------------------------------------------------

// Whether the module took the whole text; it keeps as much as fits.
bool check_length(const reporter& report, string_view text, string_view taken) {
  if (text == taken) return true;
  report.warning("{} octets long: only the first {} are read", text.size(), taken.size());
  return false;
}

void check_address(const reporter& report, const char* value, const char* taken) {
  const in_addr address = {inet_addr(taken)};
  in_addr plain{};
  if (!check_length(report, value, taken)) return;
  if (address.s_addr == INADDR_NONE)
    return report.warning("{} is not an IPv4 address: no request will reach the agent",
                          in_quotes(taken));
  if (inet_pton(AF_INET, taken, &plain) == 1) return;
  report.warning("{} is read as {}", in_quotes(taken), inet_ntoa(address));
}

// The module reads the number at the start of the text and keeps the low bits that fit its type.
void check_number(const reporter& report, const char* text, std::int64_t taken) {
  char* end = nullptr;
  const std::int64_t number = std::strtoll(text, &end, 10);
  if (*end != '\0') return report.warning("text after the number, read as {}", taken);
  if (number != taken) report.warning("number out of range, read as {}", taken);
}

void check_first_value(const reporter& report, const char* value, const torvasin_value& taken) {
  const char* colon = std::strchr(value, ':');
  if (colon == nullptr || taken.type == TORVASIN_TEXT) return;
  const bool is_int = taken.type == TORVASIN_INT32;
  check_number(report, colon + 1, is_int ? taken.payload.int32 : int64_t{taken.payload.uint32});
}

// A comma separates arguments if putting an operator in its place breaks the formula.
void check_commas(const reporter& report, std::string formula, const te_variable* variable) {
  for (char& letter : formula) {
    if (letter != ',') continue;
    letter = '+';
    te_expr* sum = te_compile(formula.c_str(), variable, 1, nullptr);
    letter = ',';
    te_free(sum);
    if (sum == nullptr) continue;
    return report.warning("the part before the comma is ignored: write a decimal point");
  }
}

// A string may well contain a #, but hardly one between blanks.
bool seems_to_have_comment(const std::string& value) {
  static const std::regex mark(R"((^|\s)#)");
  static const std::regex mark_between_blanks(R"((^|\s)#(\s|$))");
  return std::regex_search(value, value.starts_with("string:") ? mark_between_blanks : mark);
}

// ---- Keys --------------------------------------------------------------------------------------

std::string read_file(configuration& config, const std::string& path);

void apply(configuration& config, const ini_line& line) {
  config.refused = false;
  ini_handler_cb(&config.context, line.section, line.key, line.value);
}

void take_general_key(configuration& config, const ini_line& line, const reporter& report) {
  const auto key = find_key<general_key>(general_key_names, line.key);
  if (key == general_key::include) {
    const std::string fault = read_file(config, line.value);
    const bool is_elsewhere = line.value[0] != '/' && access(line.value, F_OK) != 0;
    if (fault.empty()) return;
    return report.error("{}{}", fault,
                        is_elsewhere ? " (a relative path starts at the working directory)" : "");
  }
  if (!line.continues && key != general_key::unknown) report.warn_if_repeated();
  apply(config, line);
  switch (key) {
    case general_key::ip:
      return check_address(report, line.value, config.module.ip);
    case general_key::port:
      if (!config.refused) return check_number(report, line.value, config.module.port);
      return report.error("{} is not a number from 0 to 65535", in_quotes(line.value));
    case general_key::include:
    case general_key::unknown:
      break;
  }
  report.error("unknown key; the keys here are {}", fmt::join(general_key_names, ", "));
}

void take_item_key(configuration& config, const ini_line& line, const reporter& report) {
  apply(config, line);
  const std::int32_t i = get_or_create_item(&config.module, line.section + item_prefix.size());
  if (i < 0) return report.error("out of memory");
  if (config.items.size() < config.module.item_count) {
    config.items.emplace_back().section = line.section;
    config.items.back().places.fill(config.found.first.at(label_of(line.section)));
  }
  item& item = config.items[static_cast<std::size_t>(i)];
  const snmp_meter_binding& binding = config.module.bindings[i];
  const auto key = find_key<item_key>(item_key_names, line.key);
  if (key != item_key::unknown) item.at(key) = line.at;
  if (!line.continues && key != item_key::unknown) report.warn_if_repeated();
  switch (key) {
    case item_key::meter:
      check_length(report, line.value, binding.meter);
      return;
    case item_key::metertype:
      if (line.value == string_view("fast") || line.value == string_view("slow")) return;
      return report.warning("{} is neither fast nor slow, read as slow", in_quotes(line.value));
    case item_key::type:
      if (!config.refused) return check_first_value(report, line.value, binding.value);
      return report.error(
          "{} is not a type: write int, uint or string, or with a first value int:-5",
          in_quotes(line.value));
    case item_key::computeformula:
      item.formula = config.refused ? "" : line.value;
      if (!config.refused) return check_commas(report, line.value, &config.module.formula_vars);
      return report.error("{} is not a valid formula; value*100 is one", in_quotes(line.value));
    case item_key::oid:
      if (!config.refused) return;
      return report.error("{} is not an OID of 1 to 19 numbers, such as 1.3.6.1.4.1.99999.1.0",
                          in_quotes(line.value));
    case item_key::unknown:
      break;
  }
  report.error("unknown key; the keys here are {}", fmt::join(item_key_names, ", "));
}

// ---- Sections and files ------------------------------------------------------------------------

// Reports an unknown section. Returns whether the keys in the line's section have a meaning.
bool take_section(configuration& config, const ini_line& line) {
  const string_view name = line.section;
  if (line.section_at.line == 0) {
    const reporter here = {config.found, line.at, ""};
    here.error("{} comes before the first [section]", in_quotes(line.key));
    return false;
  }
  const reporter report = {config.found, line.section_at, label_of(name)};
  config.found.first.try_emplace(report.label, line.section_at);
  check_length(report, line.written, name);
  if (name == general_section) return true;
  if (name.starts_with(item_prefix) && name != item_prefix) return true;
  report.error("unknown section: write [General] or [ITEM_name]");
  return false;
}

void take_line(configuration& config, const ini_line& line) {
  if (line.key == nullptr || !take_section(config, line)) return;
  const reporter report = {config.found, line.at, label_of(line.section, line.key)};
  (line.section == general_section ? take_general_key : take_item_key)(config, line, report);
  if (seems_to_have_comment(line.value) && config.meters.find(line.value) == nullptr) {
    report.warning("the # is part of the value; a comment starts with ;");
  }
}

// Returns as read_ini does.
std::string read_file(configuration& config, const std::string& path) {
  snmp_module& module = config.module;
  if (module.open_files == MAX_OPEN_FILES) {
    return fmt::format("more than {} files inside one another", MAX_OPEN_FILES);
  }
  if (module.files_read == MAX_FILES) return fmt::format("more than {} files", MAX_FILES);
  module.files_read++;
  module.open_files++;
  std::string fault =
      read_ini(path, config.found, [&](const ini_line& line) { take_line(config, line); });
  module.open_files--;
  if (!fault.empty()) module.files_read--;  // which counts files that could be opened
  return fault;
}

}  // namespace

configuration::configuration(const std::string& path, const meter_list& known) : meters(known) {
  torvasin_engine::set_log_level(TORVASIN_LOG_ERROR);
  torvasin_engine::set_log_sink(
      [](const torvasin_engine::log_record&, void* flag) { *static_cast<bool*>(flag) = true; },
      &refused);
  init_snmp_module(&module);
  fault = read_file(*this, path);
  for (std::size_t i = 0; i < items.size(); ++i) {
    module.items[i].writer_ctx = &module.bindings[i];
    items[i].served = &module.items[i];
    items[i].binding = &module.bindings[i];
    items[i].meter = meters.find(module.bindings[i].meter);
  }
  torvasin_host::meter_state state;
  for (const torvasin_speed speed : {TORVASIN_SLOW, TORVASIN_FAST}) {
    torvasin_key_value_list list;
    if (meters.live) sample_meters(speed, state, list);
    refresh_items(&module, &list, speed);
  }
  if (fault.empty()) check_items(*this);
}

configuration::~configuration() {
  torvasin_engine::set_log_sink(nullptr, nullptr);
  release_items(&module);
  torvasin_engine::release_all_texts();
}

std::vector<item*> configuration::in_oid_order() {
  std::vector<item*> order;
  for (item& each : items) {
    if (each.oid().count > 0) order.push_back(&each);
  }
  std::ranges::sort(order, [](const item* a, const item* b) {
    const int relation = compare_oid(&a->oid(), &b->oid());
    return relation < 0 || (relation == 0 && a < b);
  });
  return order;
}

}  // namespace torvasin_config
