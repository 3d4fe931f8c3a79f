#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <regex>
#include <span>
#include <type_traits>

#include "config/config.h"
#include "host/key_value_list.h"

namespace torvasin_config {
namespace {

using std::string_view;
using torvasin_host::meter;

constexpr std::size_t neighbours = 10;  // what clients ask for at once unless they are told

// ---- Words that are nearly right ---------------------------------------------------------------

// Whether one letter added, left out, changed, or swapped with its neighbour makes the other word.
bool one_letter_off(string_view a, string_view b) {
  if (a == b) return false;
  while (!a.empty() && !b.empty() && a.front() == b.front()) a.remove_prefix(1), b.remove_prefix(1);
  while (!a.empty() && !b.empty() && a.back() == b.back()) a.remove_suffix(1), b.remove_suffix(1);
  return (a.size() <= 1 && b.size() <= 1) ||
         (a.size() == 2 && b.size() == 2 && a[0] == b[1] && a[1] == b[0]);
}

// The question behind a word that is one letter off a name, else nothing.
template <typename range, typename projection = std::identity>
std::string did_you_mean(string_view word, const range& all, projection name = {}) {
  const auto off = [word](string_view each) { return one_letter_off(word, each); };
  const auto at = std::ranges::find_if(all, off, name);
  return at == std::end(all) ? "" : "; did you mean " + in_quotes(std::invoke(name, *at)) + "?";
}

constexpr string_view speeds[] = {"fast", "slow"};
constexpr string_view types[] = {"int", "uint", "string"};

// ---- Values of keys, when the module has taken them --------------------------------------------

// What the module has made of a value; the value itself where it keeps the text.
std::string taken_from(const configuration& config, const key_line& line) {
  if (line.key == "ip") return config.module.ip;
  if (line.key == "port") return std::to_string(config.module.port);
  if (line.key == "meter") return config.module.bindings[*line.item].meter;
  if (line.key != "type") return std::string(line.value);
  const auto& [type, payload] = config.module.bindings[*line.item].value;
  return type == TORVASIN_INT32    ? std::to_string(payload.int32)
         : type == TORVASIN_UINT32 ? std::to_string(payload.uint32)
                                   : "";
}

// A value with all that its checks look at.
struct value_view {
  const configuration& config;
  string_view value;
  std::string taken;

  bool is_cut() const { return value != taken; }
  bool is_zero() const { return taken == "0"; }
  bool is_no_speed() const { return std::ranges::count(speeds, value) == 0; }
  bool is_no_address() const { return inet_addr(taken.c_str()) == INADDR_NONE; }
  bool is_any_address() const { return inet_addr(taken.c_str()) == INADDR_ANY; }
  bool is_other_address() const {
    in_addr address{};
    return inet_pton(AF_INET, taken.c_str(), &address) != 1;
  }

  // Sign, digits and rest of a number. No match when the value is none.
  std::cmatch number() const {
    static const std::regex pattern("(?:u?int:)?\\s*\\+?(-?)0*([0-9]+)(.*)");
    std::cmatch part;
    std::regex_match(value.begin(), value.end(), part, pattern);
    return part;
  }
  bool has_text_behind() const { return number().length(3) > 0; }
  bool is_out_of_range() const {
    const std::cmatch part = number();
    return !part.empty() && part.str(1) + part.str(2) != taken;
  }

  // A comma stands between arguments when no operator can stand in its place.
  bool has_decimal_comma() const {
    std::string text(value);
    for (char& letter : text) {
      if (letter != ',') continue;
      letter = '+';
      te_expr* sum = te_compile(text.c_str(), &config.module.formula_vars, 1, nullptr);
      letter = ',';
      te_free(sum);
      if (sum != nullptr) return true;
    }
    return false;
  }
};

struct value_check {
  string_view key;
  severity kind;
  bool (value_view::*holds)() const;
  string_view text;  // {0} the line, {1} what it is taken for, {2} the address that this is
};

// Of the rows of a key the first that holds is reported.
constexpr value_check value_checks[] = {
    {"ip", warning, &value_view::is_cut, "{0} is cut to '{1}'"},
    {"ip", warning, &value_view::is_no_address, "{0}: nobody can ask there: write four numbers"},
    {"ip", warning, &value_view::is_other_address, "{0} is read as {2}: write four plain numbers"},
    {"ip", note, &value_view::is_any_address,
     "{0}: clients that check where an answer comes from may drop it: name one address"},
    {"port", warning, &value_view::has_text_behind, "{0} is read as {1}: leave out what follows"},
    {"port", warning, &value_view::is_out_of_range, "{0} is out of range and read as {1}"},
    {"port", note, &value_view::is_zero, "{0}: the system picks another port at each start"},
    {"meter", warning, &value_view::is_cut, "{0} is cut to '{1}'"},
    {"metertype", warning, &value_view::is_no_speed, "{0} counts as slow: write fast or slow"},
    {"type", warning, &value_view::has_text_behind, "{0} is read as {1}: leave out what follows"},
    {"type", warning, &value_view::is_out_of_range, "{0} is out of range and read as {1}"},
    {"computeformula", warning, &value_view::has_decimal_comma,
     "{0}: what stands before the comma is lost; write a fraction with a point"},
};

// ---- Keys --------------------------------------------------------------------------------------

struct known_key {
  string_view name;
  string_view wanted;  // instead of a value that is refused
};

constexpr known_key general_keys[] = {
    {"ip", ""},
    {"port", "write a number from 0 to 65535"},
    {"include", "name a file, from the host's working directory"},
};
constexpr known_key keys_of_items[item_keys] = {
    // in the order of enum item_key
    {"oid", "write up to 19 numbers with dots between them, the first two as in 1.3"},
    {"meter", ""},
    {"metertype", ""},
    {"type", "write int, uint or string, or one with a first value, as in int:-5"},
    {"computeformula", "write it over 'value', as in value*100"},
};

void check_value(configuration& config, const key_line& line, const std::string& label) {
  const value_view view = {config, line.value, taken_from(config, line)};
  for (const auto& [key, kind, holds, text] : value_checks) {
    if (key != line.key || !(view.*holds)()) continue;
    const char* address = inet_ntoa({inet_addr(view.taken.c_str())});
    const std::string meant = key == "metertype" ? did_you_mean(line.value, speeds) : "";
    return config.report(line.at, kind, std::string(text) + meant, label, printable(view.taken),
                         address);
  }
}

}  // namespace

void check_unknown_section(configuration& config, place section_at, const key_line& line) {
  constexpr string_view item_prefix = "ITEM_";
  constexpr string_view names[] = {"General", item_prefix};
  std::string suggestion = did_you_mean(line.section, names);
  for (const std::size_t size : {item_prefix.size(), item_prefix.size() - 1}) {
    if (suggestion.empty()) suggestion = did_you_mean(line.section.substr(0, size), names);
  }
  config.report(section_at, error,
                "the keys of [{}] are refused: write [General], or [ITEM_] with a name{}{}",
                printable(line.section), suggestion, line.refusal);
}

void check_key(configuration& config, const key_line& line) {
  const bool general = line.section == "General";
  const auto keys = general ? std::span<const known_key>(general_keys) : keys_of_items;
  const auto known = std::ranges::find(keys, line.key, &known_key::name);
  const std::string label = fmt::format("[{}] {} = {}", printable(line.section),
                                        printable(line.key), printable(line.value));
  if (known == keys.end()) {
    return config.report(line.at, error, "{}: there is no such key{}{}", label,
                         did_you_mean(line.key, keys, &known_key::name), line.refusal);
  }
  if (!general) {
    item_source& item = config.items[*line.item];
    item.keys[static_cast<std::size_t>(known - keys.begin())] = line.at;
    if (line.key == "computeformula") item.formula = line.refusal.empty() ? line.value : "";
  }
  if (line.refusal.empty()) {
    check_value(config, line, label);
  } else {
    const string_view type = line.value.substr(0, line.value.find(':'));
    config.report(line.at, error, "{} is refused: {}{}{}", label, known->wanted,
                  line.key == "type" ? did_you_mean(type, types) : "", line.refusal);
  }
  if (line.value.starts_with('#') || line.value.find(" #") != string_view::npos) {
    config.report(line.at, warning, "{}: the # is part of the value; a comment begins with ;",
                  label);
  }
}

// ---- Items -------------------------------------------------------------------------------------

namespace {

// An item with all that its checks look at.
struct item_view {
  const item_source& source;
  const snmp_item& item;
  const snmp_meter_binding& binding;
  const meter* published;  // the host's meter of its name, or null
  served_value served;
  double result;  // of its formula now

  bool has_no_meter() const { return binding.meter[0] == '\0'; }
  bool has_lost_formula() const { return !source.formula.empty() && binding.formula == nullptr; }
  bool has_no_oid() const { return item.oid.count == 0; }
  bool has_no_type() const { return item.writer == encode_null; }
  bool has_unknown_meter() const { return !has_no_meter() && published == nullptr; }
  bool has_other_speed() const { return published != nullptr && binding.fast != published->speed; }
  bool has_other_type() const;
  bool has_result_outside() const {
    return binding.formula != nullptr && !has_no_type() && std::trunc(result) != served.number;
  }
  bool has_formula_on_counter() const {
    return binding.formula != nullptr && published != nullptr && published->counts;
  }
  bool cannot_be_named() const { return !has_no_oid() && !can_be_named(item.oid); }
};

// Whether the module takes no value of the meter for an item, tried at the meter's speed.
bool item_view::has_other_type() const {
  if (published == nullptr || has_no_type()) return false;
  torvasin_key_value_list list;
  const auto set = [&list, name = published->name](auto read) {
    using reading = std::invoke_result_t<decltype(read), torvasin_host::meter_state&>;
    list.set(name, typename reading::value_type{});
  };
  std::visit(set, published->read);
  snmp_meter_binding tried = binding;
  tried.fast = published->speed;
  snmp_module module{};
  module.bindings = &tried;
  module.item_count = 1;
  refresh_items(&module, &list, tried.fast);
  return tried.refreshed == 0;
}

item_view view_of(const configuration& config, std::size_t i) {
  const snmp_meter_binding& binding = config.module.bindings[i];
  const snmp_item& item = config.module.items[i];
  const served_value served = serve(item);  // leaves the value that the formula is of
  const double result = te_eval(binding.formula);
  return {config.items[i], item, binding, find_meter(binding.meter), served, result};
}

struct item_check {
  item_key key;  // whose line is at fault; item_keys for the section's
  severity kind;
  bool (item_view::*holds)() const;
  bool logged;       // by the link pass, in the order of the rows
  string_view text;  // {0} the meter, {1} its speed, {2} its type, {3} the formula's result, {4}
                     // what is served, {5} the meter that may be meant
};

constexpr item_check item_checks[] = {
    {key_meter, note, &item_view::has_no_meter, true,
     "without a meter it serves its first value for good"},
    {key_formula, warning, &item_view::has_lost_formula, true,
     "a string has no formula: leave it out"},
    {item_keys, error, &item_view::has_no_oid, true,
     "it has no OID, and the agent does not start: add one"},
    {item_keys, warning, &item_view::has_no_type, false,
     "it has no type and answers NULL: add one"},
    {key_meter, warning, &item_view::has_unknown_meter, false, "this host has no meter '{0}'{5}"},
    {key_metertype, warning, &item_view::has_other_speed, false,
     "meter {0} is {1}: write metertype = {1}"},
    {key_type, warning, &item_view::has_other_type, false,
     "its type takes no {2}, which meter {0} is"},
    {key_formula, note, &item_view::has_result_outside, false,
     "the formula gives {3} now, served as {4}"},
    {key_formula, note, &item_view::has_formula_on_counter, false,
     "meter {0} counts: behind a formula it stays at the greatest number and does not go round"},
    {key_oid, warning, &item_view::cannot_be_named, false,
     "no request can name this OID: write two numbers or more, the second below 40"},
};

void check_item(configuration& config, const item_view& view) {
  for (const auto& [key, kind, holds, logged, text] : item_checks) {
    if (!(view.*holds)()) continue;
    const auto& [source, item, binding, published, served, result] = view;
    std::string said = fmt::format(
        fmt::runtime(text), printable(binding.meter),
        published != nullptr ? torvasin_host::speed_name(published->speed) : "",
        published != nullptr ? torvasin_host::type_name(published->type()) : "", result,
        served.text, did_you_mean(binding.meter, torvasin_host::all_meters(), &meter::name));
    if (logged && !config.link_messages.empty()) {
      said += config.link_messages.front();
      config.link_messages.pop_front();
    }
    config.report(key == item_keys ? source.section : source.keys[key], kind, "item {}: {}",
                  in_quotes(binding.name), said);
  }
}

void check_duplicates(configuration& config, const std::vector<std::size_t>& order) {
  const snmp_module& module = config.module;
  for (std::size_t at = 0, first = 0; at < order.size(); ++at) {
    const auto& [oid, writer, context] = module.items[order[at]];
    if (compare_oid(&oid, &module.items[order[first]].oid) != 0) first = at;
    if (first == at) continue;
    config.report(config.items[order[at]].keys[key_oid], warning,
                  "item {}: OID {} is that of item {} at {}, which a GET answers: write another",
                  in_quotes(module.bindings[order[at]].name), dotted(oid),
                  in_quotes(module.bindings[order[first]].name),
                  config.place_text(config.items[order[first]].keys[key_oid]));
  }
}

// Whether the answer to a GETBULK of neighbours can be encoded.
bool fit_one_response(const snmp_item* items, std::span<const std::size_t> asked) {
  const snmp_request request = {"public", PDU_GETBULK, SNMP_V2C, INT32_MAX, 0, neighbours, {}, 1};
  snmp_response response{};
  for (const std::size_t i : asked) response.varbind[response.varbind_count++] = items[i];
  std::uint8_t room[SNMP_MAX_DATAGRAM];
  std::uint8_t* message = nullptr;
  std::size_t length = 0;
  return encode_snmp_response(&request, &response, room, sizeof room, &message, &length) == 0;
}

void check_neighbours(configuration& config, std::span<const std::size_t> left) {
  while (!left.empty()) {
    const auto asked = left.first(std::min(left.size(), neighbours));
    const bool fit = fit_one_response(config.module.items, asked);
    if (!fit) {
      config.report(config.items[asked[0]].section, note,
                    "item {}: no response has room for it and its next {} neighbours: shorten the "
                    "texts, or ask for fewer at once",
                    in_quotes(config.module.bindings[asked[0]].name), asked.size() - 1);
    }
    if (asked.size() == left.size()) return;
    left = left.subspan(fit ? 1 : asked.size());
  }
}

}  // namespace

void check_items(configuration& config) {
  if (config.items.empty() && config.count(error) == 0) config.report(0, warning, "no items");
  for (std::size_t i = 0; i < config.items.size(); ++i) check_item(config, view_of(config, i));
  const auto order = config.in_oid_order();
  check_duplicates(config, order);
  check_neighbours(config, order);
}

}  // namespace torvasin_config
