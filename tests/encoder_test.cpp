// Values, OIDs and whole responses: the octets, and that every size is that of the octets written.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "module/snmp/snmp/snmp_handler.h"
#include "support.h"

namespace {

constexpr uint8_t untouched = 0xEE;

// What an encoder wrote, by the first octet that it left alone.
octets encoded(size_t size, const std::function<void(uint8_t*)>& encode) {
  octets room(size + 8, untouched);
  encode(room.data());
  EXPECT_EQ(octets(8, untouched), octets(room.end() - 8, room.end()));
  room.resize(size);
  return room;
}

TEST(values, unsigned_numbers) {
  const std::pair<uint32_t, const char*> rows[] = {
      {0, "41 01 00"},
      {127, "41 01 7F"},
      {128, "41 02 00 80"},
      {256, "41 02 01 00"},
      {32767, "41 02 7F FF"},
      {32768, "41 03 00 80 00"},
      {65535, "41 03 00 FF FF"},
      {8388607, "41 03 7F FF FF"},
      {8388608, "41 04 00 80 00 00"},
      {16777216, "41 04 01 00 00 00"},
      {2147483647, "41 04 7F FF FF FF"},
      {2147483648, "41 05 00 80 00 00 00"},
      {4294967295, "41 05 00 FF FF FF FF"},
  };
  for (const auto& [value, hex] : rows) {
    EXPECT_EQ(
        hex, to_hex(encoded(get_uintlen(value), [v = value](uint8_t* at) { encode_uint(at, v); })));
  }
  EXPECT_EQ("43 02 01 2C", to_hex(encoded(4, [](uint8_t* at) { encode_timeticks(at, 300); })));
  EXPECT_EQ("42 01 07", to_hex(encoded(3, [](uint8_t* at) { encode_uint_type(at, 7, 0x42); })));
}

TEST(values, signed_numbers) {
  const std::pair<int32_t, const char*> rows[] = {
      {0, "02 01 00"},
      {127, "02 01 7F"},
      {128, "02 02 00 80"},
      {-1, "02 01 FF"},
      {-128, "02 01 80"},
      {-129, "02 02 FF 7F"},
      {32767, "02 02 7F FF"},
      {32768, "02 03 00 80 00"},
      {-32768, "02 02 80 00"},
      {-32769, "02 03 FF 7F FF"},
      {8388608, "02 04 00 80 00 00"},
      {-8388608, "02 03 80 00 00"},
      {-8388609, "02 04 FF 7F FF FF"},
      {INT32_MAX, "02 04 7F FF FF FF"},
      {INT32_MIN, "02 04 80 00 00 00"},
  };
  for (const auto& [value, hex] : rows) {
    EXPECT_EQ(hex,
              to_hex(encoded(get_intlen(value), [v = value](uint8_t* at) { encode_int(at, v); })));
  }
}

TEST(values, texts) {
  const std::pair<size_t, const char*> rows[] = {
      {0, "04 00"},      {3, "04 03"},         {127, "04 7F"},        {128, "04 81 80"},
      {255, "04 81 FF"}, {256, "04 82 01 00"}, {1000, "04 82 03 E8"}, {65535, "04 82 FF FF"},
  };
  for (const auto& [length, header] : rows) {
    const std::string text(length, 'a');
    const octets expected = from_hex(header) + octets(length, 'a');
    EXPECT_EQ(expected, encoded(get_strlen(length),
                                [&](uint8_t* at) { encode_str(at, text.data(), text.size()); }))
        << length;
  }
  EXPECT_EQ(1472u, get_strlen(65536));
}

TEST(values, writers_of_empty_values) {
  const std::pair<snmp_value_writer, const char*> rows[] = {
      {encode_null, "05 00"}, {encode_no_such_object, "80 00"}, {encode_end_of_mib_view, "82 00"}};
  for (const auto& [writer, hex] : rows) {
    SCOPED_TRACE(hex);
    size_t size = 0;
    octets room(3, untouched);
    EXPECT_EQ(0, writer(nullptr, 0, &size, nullptr));
    EXPECT_EQ(2u, size);
    EXPECT_EQ(-1, writer(room.data(), 1, nullptr, nullptr));
    EXPECT_EQ(octets(3, untouched), room);
    EXPECT_EQ(0, writer(room.data(), 2, nullptr, nullptr));
    EXPECT_EQ(from_hex(hex) + octets{untouched}, room);
  }
}

TEST(oids, encoding) {
  snmp_oid longest = oid_of({1, 3});
  for (; longest.count < SNMP_MAX_SUBIDS; longest.count++)
    longest.subid[longest.count] = UINT32_MAX;
  std::string longest_hex = "06 5B 2B";
  for (int i = 0; i < 18; i++) longest_hex += " 8F FF FF FF 7F";
  const std::pair<snmp_oid, std::string> rows[] = {
      {oid_of({0, 0}), "06 01 00"},
      {oid_of({1}), "06 01 28"},
      {oid_of({1, 3}), "06 01 2B"},
      {oid_of({2, 47}), "06 01 7F"},
      {oid_of({1, 3, 6, 1, 2, 1, 1, 3, 0}), "06 08 2B 06 01 02 01 01 03 00"},
      {oid_of({1, 3, 6, 1, 4, 1, 127, 128}), "06 08 2B 06 01 04 01 7F 81 00"},
      {oid_of({1, 3, 16383, 16384}), "06 06 2B FF 7F 81 80 00"},
      {oid_of({1, 3, 2097151, 2097152}), "06 08 2B FF FF 7F 81 80 80 00"},
      {oid_of({1, 3, 268435455, 268435456}), "06 0A 2B FF FF FF 7F 81 80 80 80 00"},
      {oid_of({1, 3, 4294967295}), "06 06 2B 8F FF FF FF 7F"},
      {longest, longest_hex},
  };
  for (const auto& [oid, hex] : rows) {
    EXPECT_EQ(hex, to_hex(encoded(get_oidlen(oid.subid, oid.count), [&oid = oid](uint8_t* at) {
                EXPECT_EQ(0, encode_snmp_oid(at, oid.subid, oid.count));
              })));
  }
  captured_log log;
  const std::vector<uint32_t> endless(65600, 1);
  uint8_t tag[2] = {0, untouched};
  EXPECT_EQ(SIZE_MAX, get_oidlen(endless.data(), endless.size()));
  EXPECT_EQ(-1, encode_snmp_oid(tag, endless.data(), endless.size()));
  EXPECT_EQ(untouched, tag[1]);
  EXPECT_EQ("3 get_oidlen: OID not convertible\n3 encode_snmp_oid: OID not convertible\n",
            log.take());
}

// ---- Responses ---------------------------------------------------------------------------------

// A writer whose value is a text of as many octets as its context says.
int32_t encode_text_of(ber_tlv* destination, size_t capacity, size_t* size_out, void* context) {
  const std::string text(*static_cast<size_t*>(context), 'x');
  return write_value(destination, capacity, size_out, get_strlen(text.size()),
                     [&](ber_tlv* at) { encode_str(at, text.data(), text.size()); });
}

int32_t encode_1500(ber_tlv* destination, size_t capacity, size_t* size_out, void*) {
  return write_value(destination, capacity, size_out, get_intlen(1500),
                     [](ber_tlv* at) { encode_int(at, 1500); });
}

int32_t encode_nothing(ber_tlv* destination, size_t, size_t* size_out, void*) {
  if (size_out != nullptr) *size_out = 4;
  return destination == nullptr ? 0 : -1;
}

struct responses : testing::Test {
  responses() {
    strcpy(request.community, "public");
    request.ver = 1;
    request.id = 1234;
    response.varbind[0] = {oid_of({1, 3, 6, 1, 3, 99, 1, 0}), encode_1500, nullptr};
    response.varbind_count = 1;
  }

  // The message, which ends with the buffer, or an empty text.
  std::string encode(size_t size) {
    octets buffer(size);
    uint8_t* data = buffer.data();
    size_t length = 1;
    if (encode_snmp_response(&request, &response, buffer.data(), size, &data, &length) != 0) {
      EXPECT_EQ(nullptr, data);
      EXPECT_EQ(0u, length);
      return "";
    }
    EXPECT_EQ(buffer.data() + size, data + length);
    return to_hex(data, length);
  }

  captured_log log;
  snmp_request request = {};
  snmp_response response = {};
};

TEST_F(responses, worked_example_in_any_buffer) {
  const std::string expected =
      "30 28 02 01 01 04 06 70 75 62 6C 69 63 A2 1B 02 02 04 D2 02 01 00 02 01 00 30 0F 30 0D 06 "
      "07 "
      "2B 06 01 03 63 01 00 02 02 05 DC";
  EXPECT_EQ(expected, encode(SNMP_MAX_DATAGRAM));
  EXPECT_EQ(expected, encode(42));
}

TEST_F(responses, what_does_not_fit_is_named_from_the_end) {
  const std::pair<size_t, const char*> rows[] = {
      {41, "encode_snmp_response: HEADER"},      {39, "encode_snmp_response: VERSION"},
      {36, "encode_snmp_response: COMMUNITY"},   {28, "encode_snmp_response: PDU"},
      {26, "encode_snmp_response: ID"},          {22, "encode_snmp_response: ERROR STATUS"},
      {19, "encode_snmp_response: ERROR INDEX"}, {16, "encode_snmp_response: VARBINDS"},
  };
  for (const auto& [size, element] : rows) {
    EXPECT_EQ("", encode(size));
    EXPECT_EQ("3 " + std::string(element) + " not fit in buffer\n", log.take()) << size;
  }
  const std::pair<size_t, const char*> varbind_rows[] = {{14, "VARBIND"}, {12, "OID"}, {3, "DATA"}};
  for (const auto& [size, element] : varbind_rows) {
    EXPECT_EQ("", encode(size));
    EXPECT_EQ("3 encode_snmp_varbind: no space in buffer for " + std::string(element) + "\n",
              log.take())
        << size;
  }
  response.varbind[0].writer = encode_nothing;
  EXPECT_EQ("", encode(100));
  EXPECT_EQ("3 encode_snmp_varbind: no space in buffer for DATA :-(\n", log.take());
}

TEST_F(responses, errors_name_the_request) {
  strcpy(request.community, "private");
  request.id = 42;
  request.oid[0] = oid_of({1, 3, 6, 1, 3, 99, 1, 0});
  request.oid[1] = oid_of({1, 3, 6, 1, 3, 99, 2, 0});
  request.oid_count = 2;
  response.error_status = SNMP_NO_ACCESS;
  EXPECT_EQ(
      "30 33 02 01 01 04 07 70 72 69 76 61 74 65 A2 25 02 01 2A 02 01 06 02 01 00 30 1A 30 0B 06 "
      "07 "
      "2B 06 01 03 63 01 00 05 00 30 0B 06 07 2B 06 01 03 63 02 00 05 00",
      encode(SNMP_MAX_DATAGRAM));
  request.oid_count = 0;
  EXPECT_NE(std::string::npos, encode(SNMP_MAX_DATAGRAM).find("02 01 06 02 01 00 30 00"));
  request.oid_count = 21;
  EXPECT_EQ("", encode(SNMP_MAX_DATAGRAM));
  EXPECT_EQ("3 encode_snmp_response: too much oid\n", log.take());
}

// The header forms at their boundaries: of the varbind, whose OID takes 9 octets, of the list, of
// the PDU and of the message.
TEST_F(responses, headers_grow_with_their_content) {
  const std::pair<size_t, const char*> rows[] = {
      {116, "30 7F 06 07"},
      {117, "30 81 80 06"},
      {243, "30 81 FF 06"},
      {244, "30 82 01 00 06"},
  };
  for (const auto& [text_size, header] : rows) {
    size_t size = text_size;
    response.varbind[0] = {oid_of({1, 3, 6, 1, 3, 99, 1, 0}), encode_text_of, &size};
    EXPECT_NE(std::string::npos, encode(SNMP_MAX_DATAGRAM).find(header)) << text_size;
  }
  size_t size = 60000;
  response.varbind[0].writer_ctx = &size;
  EXPECT_NE("", encode(70000));
  size = 65530;  // fits a text, and with its OID no varbind
  EXPECT_EQ("", encode(70000));
  EXPECT_EQ("", log.take());
}

}  // namespace
