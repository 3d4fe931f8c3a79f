// Values, OIDs and whole responses: their octets, and that each size function counts exactly these.

#include <gtest/gtest.h>

#include <functional>

#include "support.h"

// An encoder must write the expected octets, and not one beyond its size.
void check(const std::string& expected, size_t size, const std::function<void(uint8_t*)>& encode) {
  octets room(size + 8, 0xEE);
  encode(room.data());
  EXPECT_EQ(expected + repeated(8, " EE"), to_hex(room));
}

// Both sides of each boundary where a number takes one more octet.
TEST(values, numbers) {
  const std::vector<std::pair<int64_t, std::string>> rows[] = {
      {{-129, "02 FF 7F"}, {-128, "01 80"}, {-1, "01 FF"}, {0, "01 00"}, {127, "01 7F"}, {128, "02 00 80"}},
      {{-32769, "03 FF 7F FF"}, {-32768, "02 80 00"}, {32767, "02 7F FF"}, {32768, "03 00 80 00"}},
      {{-8388609, "04 FF 7F FF FF"}, {-8388608, "03 80 00 00"}, {8388607, "03 7F FF FF"}, {8388608, "04 00 80 00 00"}},
      {{-2147483648, "04 80 00 00 00"}, {2147483647, "04 7F FF FF FF"}, {2147483648, "05 00 80 00 00 00"}},
      {{4294967295, "05 00 FF FF FF FF"}},
  };
  for (const auto& row : rows) {
    for (const auto& [value, content] : row) {
      const auto number = static_cast<int32_t>(value);
      const auto counter = static_cast<uint32_t>(value);
      if (value == number) check("02 " + content, get_intlen(number), [&](auto* at) { encode_int(at, number); });
      if (value == counter) check("41 " + content, get_uintlen(counter), [&](auto* at) { encode_uint(at, counter); });
    }
  }
  check("43 02 01 2C", 4, [](uint8_t* at) { encode_timeticks(at, 300); });
}

TEST(values, oids) {
  object_id longest = {1, 3};
  longest.resize(SNMP_MAX_SUBIDS, UINT32_MAX);
  const std::pair<object_id, std::string> rows[] = {
      {{0, 0}, "06 01 00"},
      {{2, 47}, "06 01 7F"},
      {{1, 3, 6, 127, 128}, "06 05 2B 06 7F 81 00"},
      {{1, 3, 16383, 16384}, "06 06 2B FF 7F 81 80 00"},
      {{1, 3, 2097151, 2097152}, "06 08 2B FF FF 7F 81 80 80 00"},
      {{1, 3, 268435455, 268435456}, "06 0A 2B FF FF FF 7F 81 80 80 80 00"},
      {longest, "06 5B 2B" + repeated(18, " 8F FF FF FF 7F")},
      {object_id(65536, 1), "06 82 FF FF 29" + repeated(65534, " 01")},
  };
  for (const auto& [oid, hex] : rows) {
    check(hex, get_oidlen(oid.data(), oid.size()),
          [&name = oid](uint8_t* at) { EXPECT_EQ(0, encode_snmp_oid(at, name.data(), name.size())); });
  }
  const object_id one = {1, 0}, too_long(65537, 1);
  captured_log log;
  check("06 01 28", 3, [&](uint8_t* at) { EXPECT_EQ(0, encode_snmp_oid(at, one.data(), 1)); });
  check("06", 1, [&](uint8_t* at) { EXPECT_EQ(-1, encode_snmp_oid(at, too_long.data(), too_long.size())); });
  EXPECT_EQ(SIZE_MAX, get_oidlen(too_long.data(), too_long.size()));
  EXPECT_EQ("3 encode_snmp_oid: OID not convertible\n3 get_oidlen: OID not convertible\n", log.take());
}

// Writes a text of as many octets as its context says; fails if that is too long for an encoding.
int32_t encode_text_of(ber_tlv* destination, size_t capacity, size_t* size_out, void* context) {
  const std::string text(*static_cast<size_t*>(context), 'x');
  const size_t size = get_strlen(text.size());
  EXPECT_EQ(destination == nullptr, size_out != nullptr);
  EXPECT_EQ(destination == nullptr ? 0 : size, capacity);
  if (text.size() > BER_MAX_LENGTH) capacity = 0;
  return write_value(destination, capacity, size_out, size,
                     [&](ber_tlv* at) { encode_str(at, text.data(), text.size()); });
}

struct responses : testing::Test {
  // The message, which must end where the buffer ends, or nothing.
  octets encode(size_t room) {
    octets buffer(room);
    uint8_t* data = buffer.data();
    size_t length = 1;
    const int32_t status = encode_snmp_response(&request, &response, buffer.data(), room, &data, &length);
    EXPECT_EQ(status == 0 ? buffer.data() + room : nullptr, data + length);
    return {data, data + length};
  }

  captured_log log;
  size_t text_size = 2;
  snmp_request request = {
      "a community of 63 octets, as many as a request can have at most", PDU_GET, SNMP_V1, 1234, 0, 0, {}, 0};
  snmp_response response = {0, 0, {{oid_of({1, 3, 6, 1, 3, 99, 1, 0}), encode_text_of, &text_size}}, 1};
};

// Covers all lengths of the headers of the varbind, the list, the PDU and the message.
TEST_F(responses, headers_grow_with_their_content) {
  const octets community(request.community, request.community + 63);
  for (text_size = 0; text_size < 300; text_size++) {
    const octets varbind = from_hex("06 07 2B 06 01 03 63 01 00") + tlv(0x04, octets(text_size, 'x'));
    const octets expected = build({.version = "02 01 00",
                                   .community = "04 3F " + to_hex(community),
                                   .pdu_tag = 0xA2,
                                   .id = "02 02 04 D2",
                                   .varbinds = to_hex(tlv(0x30, varbind))});
    EXPECT_EQ(to_hex(expected), to_hex(encode(SNMP_MAX_DATAGRAM)));
    EXPECT_EQ(to_hex(expected), to_hex(encode(expected.size())));
  }
  text_size = 65432;
  EXPECT_NE(octets(), encode(70000));
  // First only the content of the message is too long, then also the PDU's, the list's and the varbind's.
  for (const size_t size : {65433u, 65505u, 65519u, 65523u}) {
    text_size = size;
    EXPECT_EQ(octets(), encode(70000)) << size;
  }
  EXPECT_EQ("", log.take());
}

TEST_F(responses, what_does_not_fit_is_named_from_the_end) {
  const std::pair<size_t, std::string> rows[] = {
      {98, "response: HEADER not fit in buffer"},      {96, "response: VERSION not fit in buffer"},
      {93, "response: COMMUNITY not fit in buffer"},   {28, "response: PDU not fit in buffer"},
      {26, "response: ID not fit in buffer"},          {22, "response: ERROR STATUS not fit in buffer"},
      {19, "response: ERROR INDEX not fit in buffer"}, {16, "response: VARBINDS not fit in buffer"},
      {14, "varbind: no space in buffer for VARBIND"}, {12, "varbind: no space in buffer for OID"},
      {3, "varbind: no space in buffer for DATA"},
  };
  const auto refused = [&](size_t room, const std::string& message) {
    EXPECT_EQ(octets(), encode(room));
    EXPECT_EQ("3 encode_snmp_" + message + "\n", log.take()) << room;
  };
  for (const auto& [room, message] : rows) refused(room, message);
  text_size = 65536;
  refused(1472, "varbind: no space in buffer for DATA :-(");
  response.varbind[0].writer = [](ber_tlv*, size_t, size_t*, void*) { return -1; };  // gives no size either
  refused(1472, "varbind: no space in buffer for DATA :-(");
  request.oid_count = SNMP_MAX_VARBINDS + 1;
  response.error_status = SNMP_NO_ACCESS;
  refused(1472, "response: too much oid");
  request.oid_count = 1;
  EXPECT_NE(octets(), encode(1472));
  EXPECT_EQ(&text_size, response.varbind[0].writer_ctx) << "an error response changed the context";
}
