#include "strict_reader.h"

#include <span>

namespace {

struct reader {
  std::span<const uint8_t> left;
  const char* fault = nullptr;

  // The content of the next element, which must have this tag (0: any); empty after a fault.
  std::span<const uint8_t> element(uint8_t tag, uint8_t* found = nullptr) {
    if (fault != nullptr) return {};
    if (left.size() < 2) return fail("header cut off");
    if (tag != 0 && left[0] != tag) return fail("unexpected tag");
    if (found != nullptr) *found = left[0];
    const size_t octets = left[1] < 0x80 ? 0 : left[1] - 0x80u;
    if (octets > 2 || left.size() < 2 + octets) return fail("length form");
    size_t length = octets == 0 ? left[1] : left[2];
    if (octets == 2) length = length << 8 | left[3];
    if ((octets == 1 && length < 0x80) || (octets == 2 && length < 0x100)) {
      return fail("length not in its shortest form");
    }
    if (left.size() - 2 - octets < length) return fail("content cut off");
    const auto content = left.subspan(2 + octets, length);
    left = left.subspan(2 + octets + length);
    return content;
  }

  int64_t integer() { return number(element(0x02)); }

  int64_t number(std::span<const uint8_t> content) {
    if (fault != nullptr) return 0;
    if (content.empty() || content.size() > 5) return fail("integer length"), 0;
    if (content.size() > 1 && (content[0] == 0 || content[0] == 0xFF) &&
        content[0] >> 7 == content[1] >> 7) {
      return fail("integer not in its shortest form"), 0;
    }
    int64_t value = content[0] >= 0x80 ? -1 : 0;
    for (uint8_t octet : content)
      value = static_cast<int64_t>(static_cast<uint64_t>(value) << 8 | octet);
    return value;
  }

  std::vector<uint32_t> oid() {
    const auto content = element(0x06);
    if (content.empty()) return fail("no OID"), std::vector<uint32_t>();
    if (content[0] >= 0x80) return fail("first octet of an OID"), std::vector<uint32_t>();
    std::vector<uint32_t> subids = {content[0] / 40u, content[0] % 40u};
    uint64_t subid = 0;
    for (size_t i = 1; i < content.size(); i++) {
      if (subid == 0 && content[i] == 0x80) fail("sub-identifier not in its fewest groups");
      subid = subid << 7 | (content[i] & 0x7F);
      if (subid > UINT32_MAX) fail("sub-identifier above 32 bits");
      if (content[i] >= 0x80) continue;
      subids.push_back(static_cast<uint32_t>(subid));
      subid = 0;
    }
    if (content.size() > 1 && content.back() >= 0x80) fail("sub-identifier cut off");
    if (subids.size() > 20) fail("OID above 20 sub-identifiers");
    return subids;
  }

  std::vector<uint8_t> value() {
    const auto before = left;
    uint8_t tag = 0;
    const auto content = element(0, &tag);
    if (tag == 0x02 || tag == 0x41) {
      number(content);
    } else if (tag == 0x05 || tag == 0x80 || tag == 0x82) {
      if (!content.empty()) fail("content of an empty value");
    } else if (tag != 0x04) {
      fail("value of an unknown type");
    }
    return {before.begin(), before.begin() + static_cast<ptrdiff_t>(before.size() - left.size())};
  }

  std::span<const uint8_t> fail(const char* what) {
    if (fault == nullptr) fault = what;
    return {};
  }

  void end() {
    if (!left.empty()) fail("octets left over");
  }
};

}  // namespace

const char* read_strictly(const uint8_t* message, size_t length, read_response* response) {
  reader whole = {{message, length}};
  reader in = {whole.element(0x30)};
  whole.end();
  response->version = in.integer();
  const auto community = in.element(0x04);
  response->community.assign(community.begin(), community.end());
  reader pdu = {in.element(0xA2)};
  in.end();
  response->id = pdu.integer();
  response->error_status = pdu.integer();
  response->error_index = pdu.integer();
  reader list = {pdu.element(0x30)};
  pdu.end();
  while (list.fault == nullptr && !list.left.empty()) {
    reader varbind = {list.element(0x30)};
    response->varbinds.push_back({varbind.oid(), varbind.value()});
    varbind.end();
    if (varbind.fault != nullptr) list.fail(varbind.fault);
  }
  for (const reader* one : {&whole, &in, &pdu, &list}) {
    if (one->fault != nullptr) return one->fault;
  }
  return response->varbinds.size() > 20 ? "more than 20 varbinds" : nullptr;
}

std::string describe(const uint8_t* message, size_t length) {
  read_response response;
  if (const char* fault = read_strictly(message, length, &response)) return fault;
  std::string text =
      std::to_string(response.error_status) + " " + std::to_string(response.error_index) + ":";
  for (const read_varbind& varbind : response.varbinds) {
    for (size_t i = 0; i < varbind.name.size(); i++) {
      text += (i == 0 ? " " : ".") + std::to_string(varbind.name[i]);
    }
    char digits[3];
    text += "=";
    for (uint8_t octet : varbind.value) {
      snprintf(digits, sizeof digits, "%02X", unsigned{octet});
      text += digits;
    }
  }
  return text;
}
