#include "support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

octets from_hex(const std::string& hex) {
  octets result;
  const char* at = hex.c_str();
  for (char* end; *at != '\0'; at = end) {
    const unsigned long octet = strtoul(at, &end, 16);
    if (end == at) break;
    result.push_back(static_cast<uint8_t>(octet));
  }
  return result;
}

std::string to_hex(const uint8_t* data, size_t length) {
  std::string hex;
  char digits[4];
  for (size_t i = 0; i < length; i++) {
    snprintf(digits, sizeof digits, i == 0 ? "%02X" : " %02X", unsigned{data[i]});
    hex += digits;
  }
  return hex;
}

std::string to_hex(const octets& data) {
  return to_hex(data.data(), data.size());
}

octets operator+(octets left, const octets& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

octets tlv(uint8_t tag, const octets& content) {
  const auto low = static_cast<uint8_t>(content.size());
  const auto high = static_cast<uint8_t>(content.size() >> 8);
  octets element = {tag};
  if (content.size() >= 0x100) {
    element.insert(element.end(), {0x82, high});
  } else if (content.size() >= 0x80) {
    element.push_back(0x81);
  }
  element.push_back(low);
  return element + content;
}

octets build(const request_parts& parts) {
  const octets pdu = from_hex(parts.id) + from_hex(parts.second) + from_hex(parts.third) +
                     tlv(parts.list_tag, from_hex(parts.varbinds));
  return tlv(parts.message_tag,
             from_hex(parts.version) + from_hex(parts.community) + tlv(parts.pdu_tag, pdu));
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
  const std::lock_guard guard(log->mutex_);
  log->lines_.push_back({record.level, std::string(record.text)});
}

std::string captured_log::take(int least_level) {
  const std::lock_guard guard(mutex_);
  std::string text;
  for (const line& one : lines_) {
    if (one.level >= least_level) text += std::to_string(one.level) + " " + one.text + "\n";
  }
  lines_.clear();
  return text;
}

bool captured_log::has(int level, const std::string& text) {
  const std::lock_guard guard(mutex_);
  return std::any_of(lines_.begin(), lines_.end(),
                     [&](const line& one) { return one.level == level && one.text == text; });
}
