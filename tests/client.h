// SNMP messages as a client sees them, for the tests, fuzz targets and load tools: requests built, responses read
// strictly. Shares no code with the agent's codec, so that neither can hide a fault of the other.

#ifndef TORVASIN_TESTS_CLIENT_H
#define TORVASIN_TESTS_CLIENT_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using octets = std::vector<uint8_t>;
using view = std::span<const uint8_t>;
using object_id = std::vector<uint32_t>;  // two sub-identifiers or more

octets from_hex(const std::string& hex);  // "30 0A ..."
std::string to_hex(view data);
std::string dotted(std::span<const uint32_t> subids);  // "1.3.6"

octets operator+(octets left, const octets& right);
octets tlv(uint8_t tag, const octets& content);  // of less than 65536 octets
std::string null_varbind(const object_id& oid);  // with its value NULL, in hex

// An SNMPv2c GET of 1.3.6.1.2.1.1.3.0, of which a caller changes what it is about; hex, but for the tags.
struct request_parts {
  uint8_t message_tag = 0x30;
  std::string version = "02 01 01", community = "04 06 70 75 62 6C 69 63";
  uint8_t pdu_tag = 0xA0;
  std::string id = "02 01 01", second = "02 01 00", third = "02 01 00";
  uint8_t list_tag = 0x30;
  std::string varbinds = "30 0C 06 08 2B 06 01 02 01 01 03 00 05 00";
};
octets build(const request_parts& parts);

// What a message carries, with views into it. Read into again, it allocates nothing.
struct read_response {
  int64_t version, id, error_status, error_index;
  std::string_view community;
  std::vector<std::pair<view, view>> varbinds;  // content of the name; tag, length and content of the value
};

// Null when the message is a well-formed one of this PDU, else what is wrong with it: every length must be exact and
// in its shortest form, every integer in its shortest form, with nothing missing and nothing left over.
const char* read_strictly(view message, read_response* response, uint8_t pdu_tag = 0xA2);

object_id subids_of(view name);  // of a varbind that was read

// "status index: name=value, ..." with names dotted and values in hex; a fault as itself.
std::string describe(view message);

#endif  // TORVASIN_TESTS_CLIENT_H
