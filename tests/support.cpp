#include "support.h"

#include <algorithm>
#include <sstream>

octets from_hex(const std::string& hex) {
  octets result;
  std::istringstream text(hex);
  for (unsigned octet; text >> std::hex >> octet;) result.push_back(static_cast<uint8_t>(octet));
  return result;
}

std::string to_hex(const uint8_t* data, size_t length) {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string hex;
  for (size_t i = 0; i < length; i++) {
    if (i > 0) hex += ' ';
    hex += {digits[data[i] >> 4], digits[data[i] & 0x0F]};
  }
  return hex;
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
  snmp_oid oid = {};
  std::copy(subids.begin(), subids.end(), oid.subid);
  oid.count = subids.size();
  return oid;
}

captured_log::captured_log() {
  torvasin_host::set_log_level(1);
  torvasin_host::set_log_sink(sink, this);
}

captured_log::~captured_log() {
  torvasin_host::set_log_sink(nullptr, nullptr);
  torvasin_host::set_log_level(2);
}

void captured_log::sink(const torvasin_host::log_record& record, void* self) {
  auto* log = static_cast<captured_log*>(self);
  const std::string line = std::to_string(record.level) + " " + std::string(record.text) + "\n";
  const std::lock_guard guard(log->mutex_);
  log->all_ += line;
  if (record.level >= 2) log->important_ += line;
}

std::string captured_log::take(int least_level) {
  const std::lock_guard guard(mutex_);
  std::string taken = least_level < 2 ? all_ : important_;
  all_.clear();
  important_.clear();
  return taken;
}

bool captured_log::has(int level, const std::string& text) {
  const std::lock_guard guard(mutex_);
  return ("\n" + all_).find("\n" + std::to_string(level) + " " + text + "\n") != std::string::npos;
}
