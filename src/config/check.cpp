// Checks items, each alone and against the others, and finds out what they serve.

#include <algorithm>
#include <iostream>
#include <span>

#include "config/config.h"
#include "host/meters.h"

namespace torvasin_config {
namespace {

using std::string_view;

constexpr std::size_t neighbours = 10;  // what clients request at once by default

reporter about(findings& found, item& item, item_key key = item_key::unknown) {
  const bool is_named = key != item_key::unknown;
  const string_view name = is_named ? item_key_names[static_cast<std::size_t>(key)] : "";
  return {found, item.at(key), label_of(item.section, name)};
}

void check_item(findings& found, item& item) {
  if (item.binding->type == ITEM_STRING && !item.formula.empty()) {
    item.formula.clear();
    about(found, item, item_key::computeformula)
        .warning("ignored: a string item cannot have a formula");
  }
  if (item.oid().count == 0) {
    about(found, item).error("no valid oid: the agent will not start");
  } else if (!can_be_named(item.oid())) {
    about(found, item, item_key::oid)
        .warning("no GET can reach {}: start the OID with 1.3", dotted(item.oid()));
  }
  if (!item.typed())
    about(found, item).warning("no type: clients get NULL; write type = int, uint or string");
}

// A suggestion if the word is one edit away from the name of a meter: a letter added, removed or
// changed, or two neighbours swapped. Otherwise an empty text.
std::string did_you_mean(string_view word, const meter_list& meters) {
  for (const listed_meter& meter : meters.all) {
    string_view a = word;
    string_view b = meter.name;
    for (; !a.empty() && !b.empty() && a[0] == b[0]; a.remove_prefix(1)) b.remove_prefix(1);
    for (; !a.empty() && !b.empty() && a.back() == b.back(); a.remove_suffix(1)) b.remove_suffix(1);
    const bool swapped = a.size() == 2 && b.size() == 2 && a[0] == b[1] && a[1] == b[0];
    if (swapped || std::max(a.size(), b.size()) <= 1) {
      return "; did you mean " + in_quotes(meter.name) + "?";
    }
  }
  return "";
}

void check_meter(findings& found, item& item, const meter_list& meters) {
  const snmp_meter_binding& binding = *item.binding;
  if (binding.meter[0] == '\0' || !meters.known) return;
  if (item.meter == nullptr) {
    return about(found, item, item_key::meter)
        .warning("this host has no {}{}", in_quotes(binding.meter),
                 did_you_mean(binding.meter, meters));
  }
  const auto& [name, place, speed, type, counts, description] = *item.meter;
  if (speed != any_speed && binding.fast != speed) {
    about(found, item, item_key::metertype)
        .warning("{0} is a {1} meter: write {1}", in_quotes(name),
                 torvasin_host::speed_name(speed));
  }
  if (item.typed() && !item_takes(static_cast<snmp_item_type>(binding.type), type)) {
    about(found, item, item_key::type)
        .warning("{} does not accept meter {} of type {}: write {}", words_of(binding.type).name,
                 in_quotes(name), torvasin_host::type_name(static_cast<torvasin_value_type>(type)),
                 words_of(type == TORVASIN_FLOAT ? ITEM_INT : type).name);
  }
}

void check_duplicates(findings& found, const std::vector<item*>& order) {
  for (std::size_t i = 0, first = 0; i < order.size(); ++i) {
    item& item = *order[i];
    if (compare_oid(&item.oid(), &order[first]->oid()) != 0) first = i;
    if (first == i) continue;
    about(found, item, item_key::oid)
        .warning("{0} is also the OID of {1} at {2}: a GET returns only {1}", dotted(item.oid()),
                 label_of(order[first]->section), found.text(order[first]->at(item_key::oid)));
  }
}

// Whether these items fit into the response to one GETBULK.
bool fit_one_response(std::span<item* const> asked) {
  const snmp_request request = {"public", PDU_GETBULK, SNMP_V2C, INT32_MAX, 0, neighbours, {}, 1};
  snmp_response response{};
  for (const item* each : asked) response.varbind[response.varbind_count++] = *each->served;
  std::uint8_t room[SNMP_MAX_DATAGRAM];
  std::uint8_t* message = nullptr;
  std::size_t length = 0;
  return encode_snmp_response(&request, &response, room, sizeof room, &message, &length) == 0;
}

}  // namespace

void check_items(configuration& config) {
  if (config.items.empty() && config.found.count(severity::error) == 0) {
    reporter{config.found, {0, 0}, ""}.warning("no items: the agent has nothing to serve");
  }
  for (item& each : config.items) {
    check_item(config.found, each);
    check_meter(config.found, each, config.meters);
  }
  check_duplicates(config.found, config.in_oid_order());
}

void print_notes(configuration& config) {
  const std::vector<item*> order = config.in_oid_order();
  const auto bare = [](const item* each) { return each->oid().subid[each->oid().count - 1] != 0; };
  if (const auto first = std::ranges::find_if(order, bare); first != order.end()) {
    std::cout << fmt::format(
        "note: {} of {} OIDs do not end in .0 and get no type in a MIB; the first is {}\n",
        std::ranges::count_if(order, bare), order.size(), label_of((*first)->section));
  }
  for (const item* each : order) {
    const listed_meter* meter = each->meter;
    if (!each->typed() || each->binding->type != ITEM_UINT || meter == nullptr) continue;
    if (meter->counts == 1) continue;
    if (!item_takes(ITEM_UINT, meter->type) || !item_takes(ITEM_INT, meter->type)) continue;
    std::cout << fmt::format("note: {}: meter {} is no counter, so int suits it better than uint\n",
                             label_of(each->section), in_quotes(meter->name));
  }
  for (std::size_t i = 0; i < order.size(); ++i) {
    const auto asked = std::span(order).subspan(i, std::min(neighbours, order.size() - i));
    if (fit_one_response(asked)) continue;
    std::cout << fmt::format("note: the {} items from {} on do not fit into one response\n",
                             asked.size(), label_of(order[i]->section));
    break;
  }
}

std::string serve(const item& item) {
  const auto [oid, writer, context] = *item.served;
  std::size_t size = 0;
  writer(nullptr, 0, &size, context);
  std::vector<std::uint8_t> octets(size);
  if (writer(octets.data(), size, nullptr, context) != 0) return "";
  if (octets[0] == BER_NULL) return "NULL";
  if (octets[0] == BER_OCTET_STRING) return item.binding->value.payload.text;
  std::int64_t number = octets[2] < 0x80 ? 0 : -1;
  for (std::size_t at = 2; at < size; ++at) number = number * 256 + octets[at];
  return std::to_string(number);
}

const type_words& words_of(std::uint32_t type) {
  static constexpr type_words table[] = {{ITEM_UINT, "uint", "Counter32", "gauge"},
                                         {ITEM_INT, "int", "Integer32", "gauge"},
                                         {ITEM_STRING, "string", "OCTET STRING", "DisplayString"}};
  return *std::ranges::find(table, type, &type_words::type);
}

std::string dotted(const snmp_oid& oid) {
  return fmt::format("{}", fmt::join(oid.subid, oid.subid + oid.count, "."));
}

}  // namespace torvasin_config
