// Reads a configuration into the module, and says what is odd about its lines.

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "config/config.h"
#include "engine/key_value_list.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "host/meters.h"

namespace torvasin_config {
namespace {

using std::string_view;

// ---- Values ------------------------------------------------------------------------------------

// What is odd or wrong about a key line, to stand behind it; no text when nothing is.
struct remark {
  severity kind;
  std::string text;
};

remark refused(string_view wanted) {
  return {error, fmt::format(" is refused: {}", wanted)};
}

template <std::size_t count>
remark no_such_key(const string_view (&names)[count]) {
  return {error, fmt::format(": there is no such key: write one of {}", fmt::join(names, ", "))};
}

remark about_cut(string_view value, string_view taken) {
  if (value == taken) return {};
  return {warning, " is cut to " + in_quotes(taken)};
}

remark about_address(string_view value, const char* taken) {
  const in_addr address = {inet_addr(taken)};
  in_addr plain{};
  if (value != taken) return about_cut(value, taken);
  if (address.s_addr == INADDR_NONE) return {warning, ": nobody can ask there: write four numbers"};
  if (inet_pton(AF_INET, taken, &plain) == 1) return {};
  return {warning, fmt::format(" is read as {}: write four plain numbers", inet_ntoa(address))};
}

// The module reads the number that the value begins with, and keeps as much as it has bits for.
remark about_number(const char* value, std::int64_t taken) {
  char* end = nullptr;
  const std::int64_t number = std::strtoll(value, &end, 10);
  if (*end != '\0') return {warning, fmt::format(" is read as {}: leave out what follows", taken)};
  if (number != taken) return {warning, fmt::format(" is out of range and read as {}", taken)};
  return {};
}

remark about_first_value(const char* value, const torvasin_value& taken) {
  const char* colon = std::strchr(value, ':');
  if (colon == nullptr || taken.type == TORVASIN_TEXT) return {};
  const bool is_signed = taken.type == TORVASIN_INT32;
  return about_number(colon + 1,
                      is_signed ? taken.payload.int32 : std::int64_t{taken.payload.uint32});
}

// A comma stands between arguments when no operator can stand in its place.
remark about_commas(std::string formula, const te_variable* variable) {
  for (char& letter : formula) {
    if (letter != ',') continue;
    letter = '+';
    te_expr* sum = te_compile(formula.c_str(), variable, 1, nullptr);
    letter = ',';
    te_free(sum);
    if (sum == nullptr) continue;
    return {warning, ": what stands before the comma is lost; write a fraction with a point"};
  }
  return {};
}

// ---- Keys --------------------------------------------------------------------------------------

std::string read_file(configuration& config, const std::string& path);

void apply(configuration& config, const ini_line& line) {
  config.refused = false;
  ini_handler_cb(&config.context, line.section, line.key, line.value);
}

remark take_general_key(configuration& config, const ini_line& line) {
  const auto key = find_key<general_key>(general_key_names, line.key);
  if (key == general_key::include) {
    const std::string fault = read_file(config, line.value);
    if (fault.empty()) return {};
    const bool is_elsewhere = line.value[0] != '/' && access(line.value, F_OK) != 0;
    return refused(fault + (is_elsewhere ? ", seen from the working directory" : ""));
  }
  apply(config, line);
  switch (key) {
    case general_key::ip:
      return about_address(line.value, config.module.ip);
    case general_key::port:
      if (config.refused) return refused("write a number from 0 to 65535");
      return about_number(line.value, config.module.port);
    case general_key::include:
    case general_key::unknown:
      break;
  }
  return no_such_key(general_key_names);
}

remark take_item_key(configuration& config, const ini_line& line) {
  snmp_module& module = config.module;
  apply(config, line);
  const std::int32_t i = get_or_create_item(&module, line.section + item_prefix.size());
  if (i < 0) return refused("there is no memory for it");
  if (config.items.size() < module.item_count) {
    config.items.emplace_back().section = config.sections.at(line.section);
    config.items.back().places.fill(config.items.back().section);
  }
  item& item = config.items[static_cast<std::size_t>(i)];
  const auto key = find_key<item_key>(item_key_names, line.key);
  if (key != item_key::unknown) item.at(key) = line.at;
  switch (key) {
    case item_key::meter:
      return about_cut(line.value, module.bindings[i].meter);
    case item_key::metertype:
      if (line.value == string_view("fast") || line.value == string_view("slow")) return {};
      return {warning, " counts as slow: write fast or slow"};
    case item_key::type:
      if (!config.refused) return about_first_value(line.value, module.bindings[i].value);
      return refused("write int, uint or string, or one with a first value, as in int:-5");
    case item_key::computeformula:
      item.formula = config.refused ? "" : line.value;
      if (!config.refused) return about_commas(line.value, &module.formula_vars);
      return refused("write it over 'value', as in value*100");
    case item_key::oid:
      if (!config.refused) return {};
      return refused("write up to 19 numbers with dots between them, the first two as in 1.3");
    case item_key::unknown:
      break;
  }
  return no_such_key(item_key_names);
}

// ---- Sections and files ------------------------------------------------------------------------

void take_key(configuration& config, const ini_line& line) {
  findings& found = config.found;
  const string_view name = line.section;
  const std::string section = printable(name);
  const bool general = name == general_section;
  const bool known = general || (name.starts_with(item_prefix) && name != item_prefix);
  if (line.is_first) {
    if (name != line.written)
      found.add(line.section_at, warning, "the name is cut to '{}'", section);
    if (!known) {
      found.add(line.section_at, error,
                "the keys of [{}] are refused: write [General], or [ITEM_] with a name", section);
    }
    const auto [before, fresh] = config.sections.try_emplace(line.section, line.section_at);
    // [General] may well be spread over files.
    if (!fresh && !(general && before->second.file != line.at.file)) {
      found.add(line.section_at, warning, "[{}] is at {} already: the keys below add to that one",
                section, found.text(before->second));
    }
  }
  if (!known) return;
  const auto label =
      fmt::format("[{}] {} = {}", section, printable(line.key), printable(line.value));
  const auto [kind, text] = general ? take_general_key(config, line) : take_item_key(config, line);
  if (!text.empty()) found.add(line.at, kind, "{}{}", label, text);
  if (line.value[0] == '#' || std::strstr(line.value, " #") != nullptr) {
    found.add(line.at, warning, "{}: the # is part of the value; a comment begins with ;", label);
  }
}

// Returns as read_ini does.
std::string read_file(configuration& config, const std::string& path) {
  snmp_module& module = config.module;
  if (module.open_files == MAX_OPEN_FILES || module.files_read == MAX_FILES) {
    return fmt::format("more than {} files inside one another or {} in all", MAX_OPEN_FILES,
                       MAX_FILES);
  }
  module.files_read++;
  module.open_files++;
  std::string fault = read_ini(path, config.found, [&](const ini_line& line) {
    if (line.key != nullptr) take_key(config, line);
  });
  module.open_files--;
  if (!fault.empty()) module.files_read--;  // which counts those that were opened
  return fault;
}

}  // namespace

configuration::configuration(const std::string& path, const meter_list& known) : meters(known) {
  torvasin_engine::set_log_level(TORVASIN_LOG_ERROR);
  torvasin_engine::set_log_sink(
      [](const torvasin_engine::log_record&, void* flag) { *static_cast<bool*>(flag) = true; },
      &refused);
  module.formula_vars = {"value", &module.formula_value, TE_VARIABLE, nullptr};
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
