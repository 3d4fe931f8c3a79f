#include "support.h"

#include <algorithm>
#include <sstream>

octets from_hex(const std::string& hex) {
  octets result;
  std::istringstream text(hex);
  for (unsigned octet; text >> std::hex >> octet;) result.push_back(static_cast<uint8_t>(octet));
  return result;
}

std::string to_hex(const octets& data) {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string hex;
  for (const uint8_t octet : data) hex += {' ', digits[octet >> 4], digits[octet & 0x0F]};
  return hex.substr(hex.empty() ? 0 : 1);
}

octets operator+(octets left, const octets& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

std::string repeated(size_t times, const std::string& text) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

octets tlv(uint8_t tag, const octets& content) {
  const auto low = static_cast<uint8_t>(content.size());
  const auto high = static_cast<uint8_t>(content.size() >> 8);
  if (content.size() >= 0x100) return octets{tag, 0x82, high, low} + content;
  if (content.size() >= 0x80) return octets{tag, 0x81, low} + content;
  return octets{tag, low} + content;
}

octets build(const request_parts& parts) {
  const octets pdu = from_hex(parts.id) + from_hex(parts.second) + from_hex(parts.third) +
                     tlv(parts.list_tag, from_hex(parts.varbinds));
  return tlv(parts.message_tag, from_hex(parts.version) + from_hex(parts.community) + tlv(parts.pdu_tag, pdu));
}

snmp_oid oid_of(std::initializer_list<uint32_t> subids) {
  snmp_oid oid = {{}, subids.size()};
  std::copy(subids.begin(), subids.end(), oid.subid);
  return oid;
}

octets encoded(const snmp_oid& oid) {
  octets name(get_oidlen(oid.subid, oid.count));
  encode_snmp_oid(name.data(), oid.subid, oid.count);
  return name;
}

std::string null_varbind(const snmp_oid& oid) { return to_hex(tlv(0x30, encoded(oid) + octets{5, 0})) + " "; }

captured_log::captured_log() {
  torvasin_host::set_log_level(1);
  const auto keep = [](const torvasin_host::log_record& record, void* self) {
    auto* log = static_cast<captured_log*>(self);
    const std::lock_guard guard(log->mutex_);
    log->lines_.emplace_back(record.level, record.text);
  };
  torvasin_host::set_log_sink(keep, this);
}

std::string captured_log::take(int least_level) {
  const std::lock_guard guard(mutex_);
  std::string taken;
  for (const auto& [level, text] : lines_) {
    if (level >= least_level) taken += std::to_string(level) + " " + text + "\n";
  }
  lines_.clear();
  return taken;
}

bool captured_log::has(int level, const std::string& text) {
  const std::lock_guard guard(mutex_);
  return std::ranges::count(lines_, std::pair(level, text)) > 0;
}
