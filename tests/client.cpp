#include "client.h"

#include <sstream>

octets from_hex(const std::string& hex) {
  octets result;
  std::istringstream text(hex);
  for (unsigned octet; text >> std::hex >> octet;) result.push_back(static_cast<uint8_t>(octet));
  return result;
}

std::string to_hex(view data) {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string hex;
  for (const uint8_t octet : data) hex += {' ', digits[octet >> 4], digits[octet & 0x0F]};
  return hex.substr(hex.empty() ? 0 : 1);
}

std::string dotted(std::span<const uint32_t> subids) {
  std::string text;
  for (const uint32_t subid : subids) text += "." + std::to_string(subid);
  return text.substr(text.empty() ? 0 : 1);
}

octets operator+(octets left, const octets& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

octets tlv(uint8_t tag, const octets& content) {
  const auto low = static_cast<uint8_t>(content.size()), high = static_cast<uint8_t>(content.size() >> 8);
  if (content.size() >= 0x100) return octets{tag, 0x82, high, low} + content;
  return (content.size() >= 0x80 ? octets{tag, 0x81, low} : octets{tag, low}) + content;
}

std::string null_varbind(const object_id& oid) {
  octets name = {static_cast<uint8_t>(oid.at(0) * 40 + oid.at(1))};
  for (const uint32_t subid : std::span(oid).subspan(2)) {
    for (const unsigned shift : {28u, 21u, 14u, 7u}) {
      if (subid >> shift != 0) name.push_back(static_cast<uint8_t>(subid >> shift | 0x80));
    }
    name.push_back(subid & 0x7F);
  }
  return to_hex(tlv(0x30, tlv(0x06, name) + octets{5, 0})) + " ";
}

octets build(const request_parts& parts) {
  const octets pdu = from_hex(parts.id) + from_hex(parts.second) + from_hex(parts.third) +
                     tlv(parts.list_tag, from_hex(parts.varbinds));
  return tlv(parts.message_tag, from_hex(parts.version) + from_hex(parts.community) + tlv(parts.pdu_tag, pdu));
}

static void require(bool holds, const char* otherwise) {
  if (!holds) throw otherwise;
}

// Removes an element with this tag from the front, and returns its content.
static view element(view& in, uint8_t tag) {
  require(in.size() >= 2 && in[0] == tag, "no header, or unexpected tag");
  const size_t more = in[1] < 0x80 ? 0 : in[1] - 0x80u;  // octets of the length
  require(in[1] != 0x80 && more <= 2 && in.size() >= 2 + more, "length form");
  const size_t length = more == 0 ? in[1] : more == 1 ? in[2] : in[2] * 0x100u + in[3];
  require(more == 0 || length >= (more == 1 ? 0x80 : 0x100), "length not in its shortest form");
  const view behind = in.subspan(2 + more);
  require(behind.size() >= length, "content cut off");
  in = behind.subspan(length);
  return behind.first(length);
}

static view last_element(view in, uint8_t tag) {
  const view content = element(in, tag);
  require(in.empty(), "octets left over");
  return content;
}

static int64_t number(view content) {
  require(!content.empty() && content.size() <= 5, "integer length");
  int64_t value = content[0] >= 0x80 ? -1 : 0;
  for (uint8_t octet : content) value = value * 0x100 + octet;
  require(content.size() == 1 || content[0] != (content[1] >= 0x80 ? 0xFF : 0x00), "integer not in its shortest form");
  return value;
}

// Accepts the types that this agent serves, and those of agents that it is compared with.
static void check_value(view value) {
  require(!value.empty(), "no value");
  const uint8_t tag = value[0];
  const view content = last_element(value, tag);
  const bool empty = tag == 0x05 || tag == 0x80 || tag == 0x82, counter = tag >= 0x41 && tag <= 0x43;
  if (tag == 0x02) require(std::in_range<int32_t>(number(content)), "INTEGER out of range");
  if (counter) require(std::in_range<uint32_t>(number(content)), "number out of 32 bits");
  if (tag == 0x06) subids_of(content);
  if (empty) require(content.empty(), "content of an empty value");
  require(empty || counter || tag == 0x02 || tag == 0x04 || tag == 0x06, "value of an unknown type");
}

// Returns the number of sub-identifiers. The last octet of each stores it.
static size_t read_oid(view name, std::span<uint32_t, 20> subids) {
  require(!name.empty() && name[0] < 0x80 && name.back() < 0x80, "first or last octet of an OID");
  subids[0] = name[0] / 40u;
  subids[1] = name[0] % 40u;
  size_t count = 2;
  uint64_t subid = 0;
  for (uint8_t octet : name.subspan(1)) {
    require(subid != 0 || octet != 0x80, "sub-identifier not in its fewest groups");
    subid = subid << 7 | (octet & 0x7F);
    require(subid <= UINT32_MAX, "sub-identifier above 32 bits");
    if (octet >= 0x80) continue;
    require(count < subids.size(), "OID above 20 sub-identifiers");
    subids[count++] = static_cast<uint32_t>(subid);
    subid = 0;
  }
  return count;
}

object_id subids_of(view name) {
  uint32_t subids[20];
  return {subids, subids + read_oid(name, subids)};
}

const char* read_strictly(view message, read_response* response, uint8_t pdu_tag) try {
  view in = last_element(message, 0x30);
  response->version = number(element(in, 0x02));
  const view community = element(in, 0x04);
  response->community = {reinterpret_cast<const char*>(community.data()), community.size()};
  view pdu = last_element(in, pdu_tag);
  response->id = number(element(pdu, 0x02));
  response->error_status = number(element(pdu, 0x02));
  response->error_index = number(element(pdu, 0x02));
  uint32_t subids[20];
  response->varbinds.clear();
  for (view list = last_element(pdu, 0x30); !list.empty();) {
    view value = element(list, 0x30);
    const view name = element(value, 0x06);
    read_oid(name, subids);
    check_value(value);
    response->varbinds.push_back({name, value});
  }
  return response->varbinds.size() > 20 ? "more than 20 varbinds" : nullptr;
} catch (const char* fault) { return fault; }

std::string describe(view message) {
  read_response response;
  if (const char* fault = read_strictly(message, &response)) return fault;
  std::string text = std::to_string(response.error_status) + " " + std::to_string(response.error_index) + ":";
  for (const auto& [name, value] : response.varbinds) {
    text += " " + dotted(subids_of(name)) + "=";
    for (const char digit : to_hex(value)) text.append(digit != ' ', digit);
  }
  return text;
}
