#include <span>
#include <utility>

#include "support.h"

namespace {

using view = std::span<const uint8_t>;

void require(bool holds, const char* otherwise) {
  if (!holds) throw otherwise;
}

// Takes an element of this tag off the front; returns its content.
view element(view& in, uint8_t tag) {
  require(in.size() >= 2 && in[0] == tag, "no header, or unexpected tag");
  const size_t length_octets = in[1] < 0x80 ? 0 : in[1] - 0x80u;
  require(in[1] != 0x80 && length_octets <= 2 && in.size() >= 2 + length_octets, "length form");
  size_t length = length_octets == 0 ? in[1] : 0;
  for (uint8_t octet : in.subspan(2, length_octets)) length = length << 8 | octet;
  require(length_octets == 0 || length >= (length_octets == 1 ? 0x80 : 0x100), "length not in its shortest form");
  const view behind = in.subspan(2 + length_octets);
  require(behind.size() >= length, "content cut off");
  in = behind.subspan(length);
  return behind.first(length);
}

view last_element(view in, uint8_t tag) {
  const view content = element(in, tag);
  require(in.empty(), "octets left over");
  return content;
}

int64_t number(view content) {
  require(!content.empty() && content.size() <= 5, "integer length");
  int64_t value = content[0] >= 0x80 ? -1 : 0;
  for (uint8_t octet : content) value = value * 0x100 + octet;
  require(content.size() == 1 || content[0] != (content[1] >= 0x80 ? 0xFF : 0x00), "integer not in its shortest form");
  return value;
}

std::vector<uint32_t> oid(view content) {
  require(!content.empty() && content[0] < 0x80 && content.back() < 0x80, "first or last octet of an OID");
  std::vector<uint32_t> subids = {content[0] / 40u, content[0] % 40u};
  uint64_t subid = 0;
  for (uint8_t octet : content.subspan(1)) {
    require(subid != 0 || octet != 0x80, "sub-identifier not in its fewest groups");
    subid = subid << 7 | (octet & 0x7F);
    require(subid <= UINT32_MAX, "sub-identifier above 32 bits");
    if (octet >= 0x80) continue;
    subids.push_back(static_cast<uint32_t>(subid));
    subid = 0;
  }
  require(subids.size() <= 20, "OID above 20 sub-identifiers");
  return subids;
}

void check_value(view value) {
  require(!value.empty(), "no value");
  const uint8_t tag = value[0];
  const view content = last_element(value, tag);
  const bool empty = tag == 0x05 || tag == 0x80 || tag == 0x82;
  if (tag == 0x02) require(std::in_range<int32_t>(number(content)), "INTEGER out of range");
  if (tag == 0x41) require(std::in_range<uint32_t>(number(content)), "Counter32 out of range");
  if (empty) require(content.empty(), "content of an empty value");
  require(empty || tag == 0x02 || tag == 0x41 || tag == 0x04, "value of an unknown type");
}

}  // namespace

const char* read_strictly(const uint8_t* message, size_t length, read_response* response) try {
  view in = last_element({message, length}, 0x30);
  response->version = number(element(in, 0x02));
  const view community = element(in, 0x04);
  response->community.assign(community.begin(), community.end());
  view pdu = last_element(in, 0xA2);
  response->id = number(element(pdu, 0x02));
  response->error_status = number(element(pdu, 0x02));
  response->error_index = number(element(pdu, 0x02));
  for (view list = last_element(pdu, 0x30); !list.empty();) {
    view varbind = element(list, 0x30);
    std::vector<uint32_t> name = oid(element(varbind, 0x06));
    check_value(varbind);
    response->varbinds.push_back({std::move(name), {varbind.begin(), varbind.end()}});
  }
  return response->varbinds.size() > 20 ? "more than 20 varbinds" : nullptr;
} catch (const char* fault) { return fault; }

std::string describe(const uint8_t* message, size_t length) {
  read_response response;
  if (const char* fault = read_strictly(message, length, &response)) return fault;
  std::string text = std::to_string(response.error_status) + " " + std::to_string(response.error_index) + ":";
  for (const auto& [name, value] : response.varbinds) {
    for (const uint32_t& subid : name) text += (&subid == name.data() ? " " : ".") + std::to_string(subid);
    std::string hex = to_hex(value);
    std::erase(hex, ' ');
    text += "=" + hex;
  }
  return text;
}
