// What is odd about items, each by itself and among the others, and what they serve.

#include <algorithm>
#include <span>

#include "config/config.h"

namespace torvasin_config {
namespace {

using std::string_view;

constexpr std::size_t neighbours = 10;  // what clients ask for at once unless they are told

template <typename... types>
void say(findings& found, const item& item, place at, severity kind,
         fmt::format_string<types...> format, types&&... values) {
  found.add(at, kind, "item {}: {}", in_quotes(item.binding->name),
            fmt::format(format, std::forward<types>(values)...));
}

void check_item(findings& found, item& item) {
  if (item.binding->type == ITEM_STRING && !item.formula.empty()) {
    item.formula.clear();
    say(found, item, item.at(item_key::computeformula), warning,
        "a string has no formula: leave it out");
  }
  if (item.oid().count == 0) {
    say(found, item, item.section, error, "it has no OID, and the agent does not start: add one");
  } else if (!can_be_named(item.oid())) {
    say(found, item, item.at(item_key::oid), warning,
        "no request can name this OID: write two numbers or more, the second below 40");
  }
  if (!item.typed()) {
    say(found, item, item.section, warning, "it has no type and answers NULL: add one");
  }
}

// The question behind a name that is one letter off a meter's: added, left out, changed, or swapped
// with its neighbour. Else nothing.
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
    return say(found, item, item.at(item_key::meter), warning, "this host has no meter {}{}",
               in_quotes(binding.meter), did_you_mean(binding.meter, meters));
  }
  const std::string name = printable(item.meter->name);
  const std::uint32_t type = item.meter->type;
  if (binding.fast != item.meter->speed) {
    say(found, item, item.at(item_key::metertype), warning,
        "meter {0} is {1}: write metertype = {1}", name,
        torvasin_host::speed_name(item.meter->speed));
  }
  if (item.typed() && !item_takes(static_cast<snmp_item_type>(binding.type), type)) {
    say(found, item, item.at(item_key::type), warning,
        "its type takes no {}, which meter {} is: write type = {}",
        torvasin_host::type_name(static_cast<torvasin_value_type>(type)), name,
        words_of(type == TORVASIN_FLOAT ? ITEM_INT : type).name);
  }
}

void check_duplicates(findings& found, const std::vector<item*>& order) {
  for (std::size_t i = 0, first = 0; i < order.size(); ++i) {
    item& item = *order[i];
    if (compare_oid(&item.oid(), &order[first]->oid()) != 0) first = i;
    if (first == i) continue;
    say(found, item, item.at(item_key::oid), warning,
        "OID {} is that of item {} at {}, which a GET answers: write another", dotted(item.oid()),
        in_quotes(order[first]->binding->name), found.text(order[first]->at(item_key::oid)));
  }
}

// Whether the answer to a GETBULK of neighbours can be encoded.
bool fit_one_response(std::span<item* const> asked) {
  const snmp_request request = {"public", PDU_GETBULK, SNMP_V2C, INT32_MAX, 0, neighbours, {}, 1};
  snmp_response response{};
  for (const item* each : asked) response.varbind[response.varbind_count++] = *each->served;
  std::uint8_t room[SNMP_MAX_DATAGRAM];
  std::uint8_t* message = nullptr;
  std::size_t length = 0;
  return encode_snmp_response(&request, &response, room, sizeof room, &message, &length) == 0;
}

void check_neighbours(findings& found, const std::vector<item*>& order) {
  for (std::size_t i = 0; i < order.size(); ++i) {
    const auto asked = std::span(order).subspan(i, std::min(neighbours, order.size() - i));
    if (fit_one_response(asked)) continue;
    return say(found, *order[i], order[i]->section, note,
               "no response has room for it and its next {} neighbours: shorten the texts, or ask "
               "for fewer at once",
               asked.size() - 1);
  }
}

}  // namespace

void check_items(configuration& config) {
  if (config.items.empty() && config.found.count(error) == 0) {
    config.found.add({0, 0}, warning, "no items");
  }
  for (item& each : config.items) {
    check_item(config.found, each);
    check_meter(config.found, each, config.meters);
  }
  const std::vector<item*> order = config.in_oid_order();
  check_duplicates(config.found, order);
  check_neighbours(config.found, order);
}

std::string serve(const snmp_item& item) {
  std::size_t size = 0;
  item.writer(nullptr, 0, &size, item.writer_ctx);
  std::vector<std::uint8_t> octets(size);
  if (item.writer(octets.data(), size, nullptr, item.writer_ctx) != 0) return "";
  std::size_t at = 0;
  std::size_t length = 0;
  std::uint32_t tag = 0;
  decode_len(octets.data(), size, &at, &tag, &length);
  if (tag == BER_NULL) return "NULL";
  if (tag == BER_OCTET_STRING)
    return {octets.begin() + static_cast<std::ptrdiff_t>(at), octets.end()};
  std::int64_t number = tag == BER_INTEGER && octets[at] > INT8_MAX ? -1 : 0;
  for (; at < size; ++at) number = number * 256 + octets[at];
  return std::to_string(number);
}

std::string dotted(const snmp_oid& oid) {
  return fmt::format("{}", fmt::join(oid.subid, oid.subid + oid.count, "."));
}

}  // namespace torvasin_config
