#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <regex>
#include <span>

#include "config/config.h"

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

// What is odd about a value, to stand behind it; no text when nothing is.
struct remark {
  severity kind;
  std::string text;
};

remark remark_on_cut(string_view value, string_view taken) {
  if (value == taken) return {};
  return {warning, " is cut to '" + printable(taken) + "'"};
}

remark remark_on_address(string_view value, const char* taken) {
  const in_addr address = {inet_addr(taken)};
  in_addr plain{};
  if (value != taken) return remark_on_cut(value, taken);
  if (address.s_addr == INADDR_NONE) {
    return {warning, ": nobody can ask there: write four numbers"};
  }
  if (inet_pton(AF_INET, taken, &plain) != 1) {
    return {warning, fmt::format(" is read as {}: write four plain numbers", inet_ntoa(address))};
  }
  if (address.s_addr != INADDR_ANY) return {};
  return {note, ": clients that check where an answer comes from may drop it: name one address"};
}

// `otherwise` is what is odd about a number that is read as it stands.
remark remark_on_number(string_view value, const std::string& taken, remark otherwise = {}) {
  static const std::regex pattern("(?:u?int:)?\\s*\\+?(-?)0*([0-9]+)(.*)");
  std::cmatch part;  // sign, digits and rest
  if (!std::regex_match(value.begin(), value.end(), part, pattern)) return otherwise;
  if (part.length(3) > 0) return {warning, " is read as " + taken + ": leave out what follows"};
  if (part.str(1) + part.str(2) == taken) return otherwise;
  return {warning, " is out of range and read as " + taken};
}

remark remark_on_port(string_view value, unsigned taken) {
  remark any_port = {note, ": the system picks another port at each start"};
  return remark_on_number(value, std::to_string(taken), taken == 0 ? any_port : remark{});
}

// A first value behind a type.
remark remark_on_default(string_view value, const torvasin_value& taken) {
  if (taken.type == TORVASIN_TEXT) return {};
  const bool is_signed = taken.type == TORVASIN_INT32;
  return remark_on_number(value, is_signed ? std::to_string(taken.payload.int32)
                                           : std::to_string(taken.payload.uint32));
}

remark remark_on_speed(string_view value) {
  if (std::ranges::count(speeds, value) > 0) return {};
  return {warning, " counts as slow: write fast or slow" + did_you_mean(value, speeds)};
}

// A comma stands between arguments when no operator can stand in its place.
remark remark_on_commas(std::string formula, const te_variable* variable) {
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

remark remark_on(const configuration& config, const key_line& line) {
  const snmp_module& module = config.module;
  if (line.key == "ip") return remark_on_address(line.value, module.ip);
  if (line.key == "port") return remark_on_port(line.value, module.port);
  if (line.key == "metertype") return remark_on_speed(line.value);
  if (line.key == "meter") return remark_on_cut(line.value, module.bindings[*line.item].meter);
  if (line.key == "type") return remark_on_default(line.value, module.bindings[*line.item].value);
  if (line.key != "computeformula") return {};
  return remark_on_commas(std::string(line.value), &module.formula_vars);
}

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
    const auto [kind, text] = remark_on(config, line);
    if (!text.empty()) config.report(line.at, kind, "{}{}", label, text);
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

// Reports about one item.
struct item_report {
  configuration& config;
  const std::size_t i;
  const item_source& source = config.items[i];
  const snmp_item& item = config.module.items[i];
  const snmp_meter_binding& binding = config.module.bindings[i];
  const torvasin_host::meter* published = find_meter(binding.meter);  // of its name, or null
  const bool typed = item.writer != encode_null;

  void say(place at, severity kind, const std::string& text) const {
    config.report(at, kind, "item {}: {}", in_quotes(binding.name), text);
  }

  // With the message of the link pass, which looks for the same in the same order.
  void say_linked(place at, severity kind, std::string text) const {
    if (!config.link_messages.empty()) {
      text += config.link_messages.front();
      config.link_messages.pop_front();
    }
    say(at, kind, text);
  }

  void check_link() const;
  void check_meter() const;
  void check_formula() const;
};

void item_report::check_link() const {
  if (binding.meter[0] == '\0') {
    say_linked(source.keys[key_meter], note, "without a meter it serves its first value for good");
  }
  if (!source.formula.empty() && binding.formula == nullptr) {
    say_linked(source.keys[key_formula], warning, "a string has no formula: leave it out");
  }
  if (item.oid.count == 0) {
    say_linked(source.section, error, "it has no OID, and the agent does not start: add one");
  } else if (!can_be_named(item.oid)) {
    say(source.keys[key_oid], warning,
        "no request can name this OID: write two numbers or more, the second below 40");
  }
  if (!typed) say(source.section, warning, "it has no type and answers NULL: add one");
}

void item_report::check_meter() const {
  if (binding.meter[0] == '\0') return;
  if (published == nullptr) {
    const auto meant = did_you_mean(binding.meter, torvasin_host::all_meters(), &meter::name);
    return say(source.keys[key_meter], warning,
               "this host has no meter " + in_quotes(binding.meter) + meant);
  }
  if (binding.fast != published->speed) {
    say(source.keys[key_metertype], warning,
        fmt::format("meter {0} is {1}: write metertype = {1}", binding.meter,
                    torvasin_host::speed_name(published->speed)));
  }
  if (typed && source.refuses) {
    say(source.keys[key_type], warning,
        fmt::format("its type takes no {}, which meter {} is",
                    torvasin_host::type_name(published->type()), binding.meter));
  }
}

void item_report::check_formula() const {
  if (binding.formula == nullptr) return;
  const std::string served = serve(item);  // leaves the value that the formula is of
  const double result = te_eval(binding.formula);
  const double whole = std::trunc(result) + 0.0;  // that of -0.5 is 0, not -0
  if (typed && fmt::format("{:.0f}", whole) != served) {
    say(source.keys[key_formula], note,
        fmt::format("the formula gives {} now, served as {}", result, served));
  }
  if (published != nullptr && published->counts) {
    say(source.keys[key_formula], note,
        fmt::format("meter {} counts: behind a formula it stays at the greatest number and does "
                    "not go round",
                    binding.meter));
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
  for (std::size_t i = 0; i < config.items.size(); ++i) {
    const item_report item = {config, i};
    item.check_link();
    item.check_meter();
    item.check_formula();
  }
  const auto order = config.in_oid_order();
  check_duplicates(config, order);
  check_neighbours(config, order);
}

}  // namespace torvasin_config
