// The request decoder: what it accepts, and the one message with which it refuses all else.

#include <gtest/gtest.h>

#include <memory>

#include "support.h"

namespace {

const std::string prefix = "3 decode_snmp_request: ";

struct refused {
  const char* title;
  octets datagram;
  std::string message;
};

octets resized(octets datagram, size_t size) {
  datagram.resize(size);
  return datagram;
}

octets changed(octets datagram, size_t at, uint8_t octet) {
  datagram[at] = octet;
  return datagram;
}

std::string repeated(size_t n, const std::string& text) {
  std::string all;
  while (n-- > 0) all += text;
  return all;
}

const std::string short_varbind = "30 06 06 02 2B 06 05 00 ";

const refused refusals[] = {
    {"nothing", {}, "3 pos (0) out of buffer (0) (0)"},
    {"a tag alone", {0x30}, "3 decode_len: pos (1) out of buffer (1) (1)"},
    {"a length cut off", {0x30, 0x82, 0x01}, "3 decode_len: pos (3) out of buffer (3) (2)"},
    {"three length octets", {0x30, 0x83, 0, 0, 0}, "3 decode_len: overflow for length (3)"},
    {"message tag", build({.message_tag = 0x04}), prefix + "type 04 not supported"},
    {"an octet after it", build({}) + octets{0},
     prefix + "package size does not match len:38 size:41 pos:2"},
    {"one octet short", resized(build({}), 39),
     prefix + "package size does not match len:38 size:39 pos:2"},
    {"version tag", build({.version = "04 01 01"}), prefix + "type 04 not supported for version"},
    {"version length", build({.version = "02 02 00 01"}),
     prefix + "size 2 not supported for version"},
    {"version 2", build({.version = "02 01 02"}), prefix + "version 2 not supported yet"},
    {"version -1", build({.version = "02 01 FF"}), prefix + "version -1 not supported yet"},
    {"community tag", build({.community = "02 01 00"}),
     prefix + "type 02 not supported for community"},
    {"community of 64", build({.community = "04 40 " + repeated(64, "61 ")}),
     prefix + "size 64 not supported for community"},
    {"community empty", build({.community = "04 00"}), prefix + "unsupported empty community"},
    {"community of zero", build({.community = "04 02 00 61"}),
     prefix + "unsupported empty community"},
    {"community past the end", changed(resized(build({}), 9), 1, 7),
     "3 decode_str: pos (7) out of buffer (9) (len: 6)"},
    {"PDU length before its tag", changed(changed(build({}), 13, 0xA3), 14, 0x18),
     prefix + "package size does not match len:24 size:40 pos:15 (reading type)"},
    {"SetRequest", build({.pdu_tag = 0xA3}), prefix + "type 0xa3 not yet supported"},
    {"SNMPv1 Trap", build({.pdu_tag = 0xA4}), "3 decode_len: unsupported type A4"},
    {"request-id tag", build({.id = "41 01 01"}), prefix + "type 41 not supported for id"},
    {"request-id empty", build({.id = "02 00"}), prefix + "size 0 not supported for id"},
    {"request-id past the end", changed(build({}), 16, 0x70),
     "3 decode_int: pos (17) out of buffer (40) (len: 112)"},
    {"second tag", build({.second = "05 00"}), prefix + "type 05 not supported for non repeaters"},
    {"second empty", build({.second = "02 00"}), prefix + "size 0 not supported for non repeaters"},
    {"third tag", build({.third = "05 00"}), prefix + "type 05 not supported for max repeaters"},
    {"third empty", build({.third = "02 80"}), prefix + "size 0 not supported for max repeaters"},
    {"third past the end", changed(build({}), 22, 0x7F),
     "3 decode_uint: pos (23) out of buffer (40) (len: 127)"},
    {"list tag", build({.list_tag = 0x04}), prefix + "type 04 not supported for variables"},
    {"list length", changed(build({}), 25, 0x0D),
     prefix + "package size does not match len:13 size:40 pos:26 for variables"},
    {"21 varbinds", build({.varbinds = repeated(21, short_varbind)}),
     prefix + "too much OID list 20"},
    {"varbind tag", build({.varbinds = "31 02 05 00"}), "3 decode_len: unsupported type 31"},
    {"varbind no sequence", build({.varbinds = "04 02 05 00"}),
     prefix + "type 04 not supported for variable"},
    {"varbind empty", build({.varbinds = "30 00"}),
     prefix + "package size does not match len:0 size:28 pos:28 for variable"},
    {"name tag", build({.varbinds = "30 02 05 00"}),
     prefix + "type 05 not supported for variable oid"},
    {"name empty", build({.varbinds = "30 04 06 00 05 00"}),
     prefix + "package size does not match len:0 size:32 pos:30 for variable oid"},
    {"name past the end", build({.varbinds = "30 04 06 20 2B 06"}),
     "3 decode_oid: underflow for oid 30 32 32"},
    {"name from 0x80", build({.varbinds = "30 05 06 01 80 05 00"}),
     "3 decode_oid: unsupported OID startbyte 80"},
    {"name unfinished", build({.varbinds = "30 06 06 02 2B 81 05 00"}),
     "3 decode_oid: underflow for OID byte"},
    {"21 sub-identifiers", build({.varbinds = "30 18 06 14 2B " + repeated(19, "01 ") + "05 00"}),
     "3 decode_oid: OID too long (20)"},
    {"NULL with content", build({.varbinds = "30 06 06 01 2B 05 01 00"}),
     prefix + "only value NULL can have zero byte len"},
    {"text without content", build({.varbinds = "30 05 06 01 2B 04 00"}),
     prefix + "only value NULL can have zero byte len"},
    {"Counter64", build({.varbinds = "30 06 06 01 2B 46 01 00"}),
     "3 decode_len: unsupported type 46"},
    {"value past the end", build({.varbinds = "30 07 06 01 2B 04 82 FF FF"}),
     "3 decode_discart no possible to discard data requested"},
};

TEST(decoder, refuses_with_the_message_of_the_first_fault) {
  captured_log log;
  for (const refused& row : refusals) {
    SCOPED_TRACE(row.title);
    auto request = std::make_unique<snmp_request>();
    EXPECT_EQ(-1, decode_snmp_request(request.get(), row.datagram.data(), row.datagram.size()));
    EXPECT_EQ(row.message + "\n", log.take());
  }
}

// Exact copies on the heap, so that AddressSanitizer sees an octet read past the end.
TEST(decoder, refuses_every_prefix) {
  captured_log log;
  const octets whole = build({.varbinds = repeated(3, short_varbind)});
  for (size_t size = 0; size < whole.size(); size++) {
    snmp_request request;
    const octets prefix_only(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(-1, decode_snmp_request(&request, prefix_only.data(), size)) << size;
  }
}

struct accepted {
  const char* title;
  octets datagram;
  std::string expected;  // version type community id second third count: hex of the last OID
};

const std::string filler = repeated(63, "61 ");

const accepted acceptances[] = {
    {"a GET", build({}), "1 GET public 1 0 0 1: 06 08 2B 06 01 02 01 01 03 00"},
    {"v1 GETNEXT, no OID", build({.version = "02 01 00", .pdu_tag = 0xA1, .varbinds = ""}),
     "0 GETNEXT public 1 0 0 0:"},
    {"integers",
     build({.pdu_tag = 0xA5,
            .id = "02 05 01 00 00 00 05",
            .second = "02 01 FF",
            .third = "02 02 00 80"}),
     "1 GETBULK public 5 4294967295 128 1: 06 08 2B 06 01 02 01 01 03 00"},
    {"negative id", build({.id = "02 03 FF 7F FF"}),
     "1 GET public -32769 0 0 1: 06 08 2B 06 01 02 01 01 03 00"},
    {"20 varbinds", build({.varbinds = repeated(20, short_varbind)}),
     "1 GET public 1 0 0 20: 06 02 2B 06"},
    {"community of one", build({.community = "04 01 78", .varbinds = ""}), "1 GET x 1 0 0 0:"},
    {"community of 63", build({.community = "04 3F " + filler, .varbinds = ""}),
     "1 GET " + std::string(63, 'a') + " 1 0 0 0:"},
    {"zero in the community", build({.community = "04 03 61 00 62", .varbinds = ""}),
     "1 GET a 1 0 0 0:"},
    {"0x80 as length 0", build({.varbinds = "30 05 06 01 2B 05 80"}),
     "1 GET public 1 0 0 1: 06 01 2B"},
    {"long lengths", build({.varbinds = "30 82 00 07 06 81 01 2B 04 01 00"}),
     "1 GET public 1 0 0 1: 06 01 2B"},
    {"groups", build({.varbinds = "30 0A 06 06 2B 81 00 83 FF 7F 05 00"}),
     "1 GET public 1 0 0 1: 06 06 2B 81 00 83 FF 7F"},
    {"32 bits kept", build({.varbinds = "30 0B 06 06 2B 90 80 80 80 05 05 00"}),
     "1 GET public 1 0 0 1: 06 02 2B 05"},
    {"20 sub-identifiers", build({.varbinds = "30 17 06 13 7F " + repeated(18, "01 ") + "05 00"}),
     "1 GET public 1 0 0 1: 06 13 7F " + repeated(17, "01 ") + "01"},
};

TEST(decoder, accepts) {
  captured_log log;
  for (const accepted& row : acceptances) {
    SCOPED_TRACE(row.title);
    snmp_request request;
    memset(&request, 0xFF, sizeof request);
    ASSERT_EQ(0, decode_snmp_request(&request, row.datagram.data(), row.datagram.size()))
        << log.take();
    std::string got = std::to_string(request.ver) + " " + get_pdu_name(request.pdu_type) + " " +
                      request.community + " " + std::to_string(request.id) + " " +
                      std::to_string(request.non_repeaters) + " " +
                      std::to_string(request.max_repetitions) + " " +
                      std::to_string(request.oid_count) + ":";
    if (request.oid_count > 0) {
      const snmp_oid& last = request.oid[request.oid_count - 1];
      octets name(get_oidlen(last.subid, last.count));
      encode_snmp_oid(name.data(), last.subid, last.count);
      got += " " + to_hex(name);
    }
    EXPECT_EQ(row.expected, got);
    for (size_t i = request.oid_count; i < SNMP_MAX_REQUEST_OIDS; i++) {
      EXPECT_EQ(0u, request.oid[i].count | request.oid[i].subid[0]) << "entry " << i;
    }
  }
}

TEST(decoder, names_pdus) {
  const std::pair<uint32_t, const char*> rows[] = {
      {0xA0, "GET"},    {0xA1, "GETNEXT"}, {0xA2, "RESPONSE"}, {0xA3, "SET"},
      {0xA4, "?"},      {0xA5, "GETBULK"}, {0xA6, "INFORM"},   {0xA7, "TRAP"},
      {0xA8, "REPORT"}, {0xA9, "?"},       {0x9F, "?"},        {0, "?"}};
  for (const auto& [type, name] : rows) EXPECT_STREQ(name, get_pdu_name(type)) << type;
}

// A content length that would wrap when added to the cursor.
TEST(decoder, steps_hold_against_any_length) {
  captured_log log;
  const uint8_t one[1] = {0x2B};
  size_t cursor = 1;
  uint32_t number;
  snmp_oid oid;
  EXPECT_EQ(-1, decode_oid(one, 1, &cursor, SIZE_MAX, &oid));
  EXPECT_EQ(-1, decode_discart(1, &cursor, -1));
  EXPECT_EQ(-1, decode_uint(one, 1, &cursor, 1, &number));
  cursor = 0;
  EXPECT_EQ(-1, decode_uint(one, 1, &cursor, SIZE_MAX, &number));
  EXPECT_EQ(-1, decode_oid(one, 1, &cursor, 0, &oid));
  cursor = 0;
  const octets large(70000, 0x01);
  EXPECT_EQ(-1, decode_oid(large.data(), large.size(), &cursor, 65536, &oid));
  EXPECT_TRUE(log.has(3, "decode_oid: len 65536 too big"));
}

}  // namespace
