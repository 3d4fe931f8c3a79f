#include <algorithm>

#include "config/config.h"

namespace torvasin_config {

std::string in_quotes(std::string_view text) {
  return "'" + printable(text) + "'";
}

served_value serve(const snmp_item& item) {
  served_value value;
  std::size_t size = 0;
  item.writer(nullptr, 0, &size, item.writer_ctx);
  std::vector<std::uint8_t> octets(size);
  if (item.writer(octets.data(), size, nullptr, item.writer_ctx) != 0) return value;

  std::size_t at = 0;
  std::size_t length = 0;
  decode_len(octets.data(), size, &at, &value.tag, &length);
  if (value.tag == BER_INTEGER) {
    std::int32_t number = 0;
    decode_int(octets.data(), size, &at, length, &number);
    value = {value.tag, static_cast<double>(number), std::to_string(number)};
  } else if (value.tag == BER_COUNTER32) {
    std::uint32_t number = 0;
    decode_uint(octets.data(), size, &at, length, &number);
    value = {value.tag, static_cast<double>(number), std::to_string(number)};
  } else if (value.tag == BER_NULL) {
    value.text = "NULL";
  } else {
    value.text.assign(octets.begin() + static_cast<std::ptrdiff_t>(at), octets.end());
  }
  return value;
}

std::string dotted(const snmp_oid& oid) {
  return fmt::format("{}", fmt::join(oid.subid, oid.subid + oid.count, "."));
}

bool is_below(const snmp_oid& oid, const snmp_oid& arc) {
  return oid.count >= arc.count && std::equal(arc.subid, arc.subid + arc.count, oid.subid);
}

bool can_be_named(const snmp_oid& oid) {
  std::vector<std::uint8_t> octets(get_oidlen(oid.subid, oid.count));
  encode_snmp_oid(octets.data(), oid.subid, oid.count);
  std::size_t at = 0;
  std::size_t length = 0;
  std::uint32_t tag = 0;
  snmp_oid read{};
  decode_len(octets.data(), octets.size(), &at, &tag, &length);
  decode_oid(octets.data(), octets.size(), &at, length, &read);
  return compare_oid(&oid, &read) == 0;
}

const torvasin_host::meter* find_meter(std::string_view name) {
  const auto all = torvasin_host::all_meters();
  const auto at = std::ranges::find(all, name, &torvasin_host::meter::name);
  return at != all.end() ? &*at : nullptr;
}

}  // namespace torvasin_config
