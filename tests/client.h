// SNMP messages as a client sees them, for the tests, fuzz targets and load tools: builds requests and reads responses
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
octets tlv(uint8_t tag, const octets& content);  // content of less than 65536 octets
std::string null_varbind(const object_id& oid);  // a varbind with the value NULL, in hex

// An SNMPv2c GET of 1.3.6.1.2.1.1.3.0. A test changes the parts that it is about. The texts are hex.
struct request_parts {
  uint8_t message_tag = 0x30;
  std::string version = "02 01 01", community = "04 06 70 75 62 6C 69 63";
  uint8_t pdu_tag = 0xA0;
  std::string id = "02 01 01", second = "02 01 00", third = "02 01 00";
  uint8_t list_tag = 0x30;
  std::string varbinds = "30 0C 06 08 2B 06 01 02 01 01 03 00 05 00";
};
octets build(const request_parts& parts);

// What a message contains, with views into it. Reading into the same record again allocates nothing.
struct read_response {
  int64_t version, id, error_status, error_index;
  std::string_view community;
  std::vector<std::pair<view, view>> varbinds;  // content of the name; tag, length and content of the value
};

// Null when the message is well-formed and contains this PDU, else what is wrong with it: every length must be exact,
// every length and integer in its shortest form, with nothing missing and nothing left over.
const char* read_strictly(view message, read_response* response, uint8_t pdu_tag = 0xA2);

object_id subids_of(view name);  // of a varbind that was read

// "status index: name=value name=value..." with names dotted and values in hex; for a malformed message, its fault.
std::string describe(view message);

#endif  // TORVASIN_TESTS_CLIENT_H
