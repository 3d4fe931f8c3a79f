#include <algorithm>

#include "config/config.h"

namespace torvasin_config {

std::string in_quotes(std::string_view text) {
  return "'" + printable(text) + "'";
}

std::string serve(const snmp_item& item) {
  std::size_t size = 0;
  item.writer(nullptr, 0, &size, item.writer_ctx);
  std::vector<std::uint8_t> octets(size);
  if (item.writer(octets.data(), size, nullptr, item.writer_ctx) != 0) return "";

  std::size_t at = 0;
  std::size_t length = 0;
  std::uint32_t tag = 0;
  std::int32_t number = 0;
  std::uint32_t count = 0;
  decode_len(octets.data(), size, &at, &tag, &length);
  switch (tag) {
    case BER_INTEGER:
      decode_int(octets.data(), size, &at, length, &number);
      return std::to_string(number);
    case BER_COUNTER32:
      decode_uint(octets.data(), size, &at, length, &count);
      return std::to_string(count);
    case BER_NULL:
      return "NULL";
    default:
      return {octets.begin() + static_cast<std::ptrdiff_t>(at), octets.end()};
  }
}

std::string dotted(const snmp_oid& oid) {
  return fmt::format("{}", fmt::join(oid.subid, oid.subid + oid.count, "."));
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
