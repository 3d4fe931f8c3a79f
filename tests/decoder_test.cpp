// The request decoder: what it accepts, and the one message that it logs when it refuses anything else.

#include <gtest/gtest.h>

#include "support.h"

octets changed(octets datagram, size_t at, uint8_t octet) {
  datagram[at] = octet;
  return datagram;
}

octets with(const std::string& varbinds) { return build({.varbinds = varbinds}); }

const std::string request = "decode_snmp_request: ";
const std::string mismatch = request + "package size does not match ";
const std::string short_varbind = "30 06 06 02 2B 06 05 00 ";

const std::tuple<const char*, octets, std::string> refusals[] = {
    {"nothing", {}, "pos (0) out of buffer (0) (0)"},
    {"a tag alone", {0x30}, "decode_len: pos (1) out of buffer (1) (1)"},
    {"a length cut off", {0x30, 0x82, 0x01}, "decode_len: pos (3) out of buffer (3) (2)"},
    {"three length octets", {0x30, 0x83, 0, 0, 0}, "decode_len: overflow for length (3)"},
    {"message tag", build({.message_tag = 0x04}), request + "type 04 not supported"},
    {"an octet after it", build({}) + octets(1), mismatch + "len:38 size:41 pos:2"},
    {"version tag", build({.version = "04 01 01"}), request + "type 04 not supported for version"},
    {"version length", build({.version = "02 02 00 01"}), request + "size 2 not supported for version"},
    {"version 2", build({.version = "02 01 02"}), request + "version 2 not supported yet"},
    {"version -1", build({.version = "02 01 FF"}), request + "version -1 not supported yet"},
    {"community tag", build({.community = "02 01 00"}), request + "type 02 not supported for community"},
    {"64 octets", build({.community = "04 40" + repeated(64, " 61")}), request + "size 64 not supported for community"},
    {"a zero first", build({.community = "04 02 00 61"}), request + "unsupported empty community"},
    {"community at the end", {0x30, 5, 2, 1, 1, 4, 6}, "decode_str: pos (7) out of buffer (7) (0)"},
    {"community cut off", {0x30, 7, 2, 1, 1, 4, 6, 'p', 'u'}, "decode_str: pos (7) out of buffer (9) (len: 6)"},
    {"PDU length", changed(build({.pdu_tag = 0xA3}), 14, 24), mismatch + "len:24 size:40 pos:15 (reading type)"},
    {"SetRequest", build({.pdu_tag = 0xA3}), request + "type 0xa3 not yet supported"},
    {"InformRequest", build({.pdu_tag = 0xA6}), request + "type 0xa6 not yet supported"},
    {"request-id tag", build({.id = "41 01 01"}), request + "type 41 not supported for id"},
    {"request-id empty", build({.id = "02 00"}), request + "size 0 not supported for id"},
    {"request-id cut off", changed(build({}), 16, 112), "decode_int: pos (17) out of buffer (40) (len: 112)"},
    {"second tag", build({.second = "05 00"}), request + "type 05 not supported for non repeaters"},
    {"second empty", build({.second = "02 00"}), request + "size 0 not supported for non repeaters"},
    {"third tag", build({.third = "05 00"}), request + "type 05 not supported for max repeaters"},
    {"third empty", build({.third = "02 80"}), request + "size 0 not supported for max repeaters"},
    {"third cut off", changed(build({}), 22, 127), "decode_uint: pos (23) out of buffer (40) (len: 127)"},
    {"list tag", build({.list_tag = 0x04}), request + "type 04 not supported for variables"},
    {"list length", changed(build({}), 25, 13), mismatch + "len:13 size:40 pos:26 for variables"},
    {"21 varbinds", with(repeated(21, short_varbind)), request + "too much OID list 20"},
    {"varbind tag", with("04 02 05 00"), request + "type 04 not supported for variable"},
    {"varbind empty", with("30 00"), mismatch + "len:0 size:28 pos:28 for variable"},
    {"name tag", with("30 02 05 00"), request + "type 05 not supported for variable oid"},
    {"name empty", with("30 04 06 00 05 00"), mismatch + "len:0 size:32 pos:30 for variable oid"},
    {"name cut off", with("30 04 06 20 2B 06"), "decode_oid: underflow for oid 30 32 32"},
    {"name from 0x80", with("30 05 06 01 80 05 00"), "decode_oid: unsupported OID startbyte 80"},
    {"name unfinished", with("30 06 06 02 2B 81 05 00"), "decode_oid: underflow for OID byte"},
    {"21 sub-identifiers", with("30 18 06 14 2B " + repeated(19, "01 ") + "05 00"), "decode_oid: OID too long (20)"},
    {"NULL with content", with("30 06 06 01 2B 05 01 00"), request + "only value NULL can have zero byte len"},
    {"text without content", with("30 05 06 01 2B 04 00"), request + "only value NULL can have zero byte len"},
    {"Counter64", with("30 06 06 01 2B 46 01 00"), "decode_len: unsupported type 46"},
    {"value cut off", with("30 07 06 01 2B 04 82 FF FF"), "decode_discart no possible to discard data requested"},
};

TEST(decoder, refuses_with_the_message_of_the_first_fault) {
  captured_log log;
  for (const auto& [title, datagram, message] : refusals) {
    SCOPED_TRACE(title);
    const octets exact = datagram;  // on the heap, so that a sanitizer sees an octet read past the end
    snmp_request decoded;
    EXPECT_EQ(-1, decode_snmp_request(&decoded, exact.data(), exact.size()));
    EXPECT_EQ("3 " + message + "\n", log.take());
  }
}

const std::string up_time = ": 1.3.6.1.2.1.1.3.0";

// Expected: version, type, community, id, second and third integer, number of OIDs: the OIDs.
const std::tuple<const char*, octets, std::string> acceptances[] = {
    {"a GET", build({}), "1 GET public 1 0 0 1" + up_time},
    {"v1", build({.version = "02 01 00", .pdu_tag = 0xA1, .id = "02 04 FF FF FF 7F"}),
     "0 GETNEXT public -129 0 0 1" + up_time},
    {"5 octets, no varbind", build({.id = "02 05 01 80 00 00 05", .varbinds = ""}), "1 GET public -2147483643 0 0 0:"},
    {"bulk", build({.pdu_tag = 0xA5, .second = "02 01 FF", .third = "02 02 00 80"}),
     "1 GETBULK public 1 4294967295 128 1" + up_time},
    {"20 varbinds", with(repeated(20, short_varbind)), "1 GET public 1 0 0 20:" + repeated(20, " 1.3.6")},
    {"63 octets", build({.community = "04 3F" + repeated(63, " 61")}),
     "1 GET " + repeated(63, "a") + " 1 0 0 1" + up_time},
    {"a zero inside", build({.community = "04 03 61 00 62", .varbinds = ""}), "1 GET a 1 0 0 0:"},
    {"0x80 as length 0", with("30 05 06 01 2B 05 80"), "1 GET public 1 0 0 1: 1.3"},
    {"long lengths", with("30 82 00 07 06 81 01 2B 04 01 00"), "1 GET public 1 0 0 1: 1.3"},
    {"groups", with("30 0A 06 06 2B 81 00 83 FF 7F 05 00"), "1 GET public 1 0 0 1: 1.3.128.65535"},
    {"32 bits kept", with("30 0B 06 06 2B 90 80 80 80 05 05 00"), "1 GET public 1 0 0 1: 1.3.5"},
    {"20 sub-identifiers", with("30 17 06 13 7F" + repeated(18, " 01") + " 05 00"),
     "1 GET public 1 0 0 1: 3.7" + repeated(18, ".1")},
};

TEST(decoder, accepts_a_whole_message_only) {
  captured_log log;
  for (const auto& [title, datagram, expected] : acceptances) {
    SCOPED_TRACE(title);
    snmp_request got;
    for (size_t size = 0; size < datagram.size(); size++) {
      EXPECT_EQ(-1, decode_snmp_request(&got, octets(datagram.data(), datagram.data() + size).data(), size)) << size;
    }
    memset(&got, 0xFF, sizeof got);
    ASSERT_EQ(0, decode_snmp_request(&got, datagram.data(), datagram.size())) << log.take();
    std::ostringstream text;
    text << got.ver << " " << get_pdu_name(got.pdu_type) << " " << got.community << " " << got.id << " "
         << got.non_repeaters << " " << got.max_repetitions << " " << got.oid_count << ":";
    for (const snmp_oid& oid : std::span(got.oid, got.oid_count)) text << " " << dotted({oid.subid, oid.count});
    EXPECT_EQ(expected, text.str());
    for (const snmp_oid& oid : got.oid) {
      for (size_t i = oid.count; i < SNMP_MAX_SUBIDS; i++) EXPECT_EQ(0u, oid.subid[i]) << "not cleared: " << i;
    }
    for (size_t i = got.oid_count; i < SNMP_MAX_REQUEST_OIDS; i++) EXPECT_EQ(0u, got.oid[i].count) << i;
  }
}

TEST(decoder, names_each_type_of_a_pdu) {
  std::string names;
  for (uint32_t type = PDU_GET - 1; type <= PDU_REPORT + 1; type++) names += std::string(get_pdu_name(type)) + " ";
  EXPECT_EQ("? GET GETNEXT RESPONSE SET ? GETBULK INFORM TRAP REPORT ? ", names);
}

// Some of the lengths would wrap around when added to the cursor.
TEST(decoder, steps_hold_against_any_tag_and_length) {
  captured_log log;
  const octets two = {1, 1};
  size_t cursor, count;
  uint32_t number;
  snmp_oid oid;
  const octets accepted = from_hex("1 2 3 4 5 6 30 41 42 43 80 81 82 A0 A1 A2 A3 A5 A6 A7");
  for (unsigned tag = 0; tag < 256; tag++) {
    const octets header = {static_cast<uint8_t>(tag), 0};
    const int32_t expected = std::ranges::count(accepted, header[0]) > 0 ? 0 : -1;
    EXPECT_EQ(expected, decode_len(header.data(), 2, &(cursor = 0), &number, &count)) << tag;
  }
  cursor = 1;
  EXPECT_EQ(-1, decode_discart(2, &cursor, -1));
  EXPECT_EQ(-1, decode_uint(two.data(), 2, &cursor, SIZE_MAX, &number));
  EXPECT_EQ(-1, decode_oid(two.data(), 2, &cursor, SIZE_MAX, &oid));
  EXPECT_EQ(-1, decode_oid(two.data(), 2, &cursor, 0, &oid));
  const std::pair<std::string, uint64_t> rows[] = {
      {"80", 0}, {"2B 06 85", 3}, {repeated(65536, "01 "), 3}, {"2B" + repeated(20, " 85 01"), 20}};
  for (const auto& [content, kept] : rows) {
    const octets cut = from_hex(content);
    EXPECT_EQ(-1, decode_oid(cut.data(), cut.size(), &(cursor = 0), cut.size(), &oid));
    EXPECT_EQ(kept, oid.count) << content.substr(0, 60);
  }
  EXPECT_TRUE(log.has(3, "decode_oid: len 65536 too big"));
  const octets text(100, 'a');
  char community[100];
  EXPECT_EQ(0, decode_str(text.data(), 100, &(cursor = 1), 99, community, &count));
  EXPECT_EQ(63u, count);
}
