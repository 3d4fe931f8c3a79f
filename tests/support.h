// What the tests share: octets from hex text, requests from their parts, and the captured log.

#ifndef TORVASIN_TESTS_SUPPORT_H
#define TORVASIN_TESTS_SUPPORT_H

#include <mutex>
#include <string>
#include <vector>

#include "host/log.h"
#include "module/snmp/snmp/snmp_msg_protocol.h"

using octets = std::vector<uint8_t>;

octets from_hex(const std::string& hex);  // "30 0A ..."
std::string to_hex(const octets& data);
octets tlv(uint8_t tag, const octets& content);
octets operator+(octets left, const octets& right);
std::string repeated(size_t times, const std::string& text);

// An SNMPv2c GET of 1.3.6.1.2.1.1.3.0, of which a test changes what it is about; hex, but for the tags.
struct request_parts {
  uint8_t message_tag = 0x30;
  std::string version = "02 01 01";
  std::string community = "04 06 70 75 62 6C 69 63";
  uint8_t pdu_tag = 0xA0;
  std::string id = "02 01 01";
  std::string second = "02 01 00";
  std::string third = "02 01 00";
  uint8_t list_tag = 0x30;
  std::string varbinds = "30 0C 06 08 2B 06 01 02 01 01 03 00 05 00";
};
octets build(const request_parts& parts);

snmp_oid oid_of(std::initializer_list<uint32_t> subids);

// A strict reader of the agent's responses, written apart from its codec: every length exact and in
// its shortest form, every integer in its shortest form, nothing missing and nothing left over.
struct read_response {
  int64_t version;
  std::string community;
  int64_t id, error_status, error_index;
  std::vector<std::pair<std::vector<uint32_t>, octets>> varbinds;  // name; tag, length and content
};

// Null when the message is a well-formed GetResponse, else what is wrong with it.
const char* read_strictly(const uint8_t* message, size_t length, read_response* response);

// "status index: name=value, ..." with names dotted and values in hex; a fault as itself.
std::string describe(const uint8_t* message, size_t length);

octets encoded(const snmp_oid& oid);
std::string null_varbind(const snmp_oid& oid);  // with its value NULL, in hex

// Captures the log, all levels of it, from its construction to its destruction.
class captured_log {
 public:
  captured_log();
  ~captured_log() { torvasin_host::set_log_sink(nullptr, nullptr); }

  // The lines since the last call of this level and above, each as "level text\n".
  std::string take(int least_level = 2);
  bool has(int level, const std::string& text);  // among the lines not yet taken

 private:
  std::mutex mutex_;
  std::vector<std::pair<int, std::string>> lines_;  // not yet taken
};

#endif  // TORVASIN_TESTS_SUPPORT_H
