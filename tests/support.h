// What the tests share: octets from hex text, requests from their parts, and the captured log.

#ifndef TORVASIN_TESTS_SUPPORT_H
#define TORVASIN_TESTS_SUPPORT_H

#include <mutex>
#include <string>
#include <vector>

#include "host/log.h"
#include "module/snmp/snmp/snmp_msg_protocol.h"

using octets = std::vector<uint8_t>;

octets from_hex(const std::string& hex);                 // blanks are ignored
std::string to_hex(const uint8_t* data, size_t length);  // "30 0A ..."
std::string to_hex(const octets& data);
octets tlv(uint8_t tag, const octets& content);
octets operator+(octets left, const octets& right);

// An SNMPv2c GET of 1.3.6.1.2.1.1.3.0, of which a test changes what it is about. All but the tags
// are hex; the lengths of the constructed elements follow.
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

// The varbind of an OID with the value NULL, in hex. Inline, for programs without the codec.
inline std::string null_varbind(const snmp_oid& oid) {
  octets name(get_oidlen(oid.subid, oid.count));
  encode_snmp_oid(name.data(), oid.subid, oid.count);
  return to_hex(tlv(0x30, name + octets{0x05, 0x00})) + " ";
}

snmp_oid oid_of(std::initializer_list<uint32_t> subids);

// Captures the log from its construction to its destruction.
class captured_log {
 public:
  captured_log();
  ~captured_log();
  captured_log(const captured_log&) = delete;
  captured_log& operator=(const captured_log&) = delete;

  // The lines of at least this level, each as "level text\n", since the last call.
  std::string take(int least_level = 2);
  bool has(int level, const std::string& text);  // among the lines not yet taken

 private:
  static void sink(const torvasin_host::log_record& record, void* self);

  struct line {
    int level;
    std::string text;
  };
  std::mutex mutex_;
  std::vector<line> lines_;
};

#endif  // TORVASIN_TESTS_SUPPORT_H
