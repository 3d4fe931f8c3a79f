#include "message.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>

namespace torvasin_bench {
namespace {

using octet_span = std::span<const std::uint8_t>;

constexpr std::uint32_t rows_per_column = 100;
constexpr std::size_t positions = 16;  // requests of a kind that ask for different OIDs

// Tags of BER and of the PDUs, RFC 3416.
constexpr std::uint8_t tag_integer = 0x02;
constexpr std::uint8_t tag_string = 0x04;
constexpr std::uint8_t tag_oid = 0x06;
constexpr std::uint8_t tag_sequence = 0x30;
constexpr std::uint8_t tag_no_such_object = 0x80;
constexpr std::uint8_t tag_end_of_view = 0x82;
constexpr std::uint8_t pdu_get = 0xA0;
constexpr std::uint8_t pdu_getnext = 0xA1;
constexpr std::uint8_t pdu_response = 0xA2;
constexpr std::uint8_t pdu_getbulk = 0xA5;

// ---- Writing -----------------------------------------------------------------------------------

void append(octets& to, octet_span more) {
  to.insert(to.end(), more.begin(), more.end());
}

// The content is shorter than 65536 octets.
octets element(std::uint8_t tag, octet_span content) {
  octets result = {tag};
  if (content.size() >= 0x80) {
    result.push_back(0x82);
    result.push_back(static_cast<std::uint8_t>(content.size() >> 8));
  }
  result.push_back(static_cast<std::uint8_t>(content.size()));
  append(result, content);
  return result;
}

octets sequence(std::uint8_t tag, std::initializer_list<octets> parts) {
  octets content;
  for (const octets& part : parts) append(content, part);
  return element(tag, content);
}

octets small_integer(std::uint8_t value) {
  return element(tag_integer, octets{value});
}

octets null_varbind(const object_id& oid) {
  octets name = {static_cast<std::uint8_t>(oid.at(0) * 40 + oid.at(1))};
  for (std::size_t i = 2; i < oid.size(); i++) {
    for (unsigned shift = 28; shift > 0; shift -= 7) {
      if (oid[i] >> shift != 0) {
        name.push_back(static_cast<std::uint8_t>((oid[i] >> shift & 0x7F) | 0x80));
      }
    }
    name.push_back(static_cast<std::uint8_t>(oid[i] & 0x7F));
  }
  return sequence(tag_sequence, {element(tag_oid, name), {0x05, 0x00}});
}

octets make_request(std::uint8_t pdu, std::uint8_t max_repetitions,
                    const std::vector<object_id>& oids) {
  constexpr std::string_view community = "public";
  octets varbinds;
  for (const object_id& oid : oids) append(varbinds, null_varbind(oid));
  const octets id = element(tag_integer, octets{0x40, 0, 0, 0});
  return sequence(
      tag_sequence,
      {small_integer(1), element(tag_string, octets(community.begin(), community.end())),
       sequence(pdu, {id, small_integer(0), small_integer(max_repetitions),
                      element(tag_sequence, varbinds)})});
}

// ---- Reading -----------------------------------------------------------------------------------

// Walks over elements; once one is cut short or of another tag than wanted, all that follow are
// empty and `good` is false.
struct reader {
  octet_span rest;
  bool good = true;

  octet_span fail() {
    good = false;
    return rest = {};
  }

  octet_span next(std::uint8_t& tag) {
    if (rest.size() < 2) return fail();
    tag = rest[0];
    std::size_t header = 2;
    std::size_t length = rest[1];
    if (length >= 0x80) {
      header += length & 0x7F;
      if (header > 4 || rest.size() < header) return fail();
      length = 0;
      for (std::size_t i = 2; i < header; i++) length = length << 8 | rest[i];
    }
    if (rest.size() - header < length) return fail();
    const octet_span content = rest.subspan(header, length);
    rest = rest.subspan(header + length);
    return content;
  }

  octet_span expect(std::uint8_t wanted) {
    std::uint8_t tag = 0;
    const octet_span content = next(tag);
    return good && tag == wanted ? content : fail();
  }

  std::uint32_t number() {
    std::uint32_t value = 0;
    for (const std::uint8_t octet : expect(tag_integer)) value = value << 8 | octet;
    return value;
  }
};

// The content of the PDU of a message, with its tag.
reader open_pdu(octet_span message, std::uint8_t& pdu) {
  reader in = {message};
  in.rest = in.expect(tag_sequence);
  in.expect(tag_integer);
  in.expect(tag_string);
  in.rest = in.next(pdu);
  return in;
}

}  // namespace

object_id table_oid(std::uint32_t index) {
  return {1, 3, 6, 1, 4, 1, 32473, 1, 2, index / rows_per_column + 1, index % rows_per_column + 1,
          0};
}

std::vector<std::size_t> spread(std::size_t count, std::size_t last) {
  std::vector<std::size_t> indices(count);
  for (std::size_t i = 0; i < count; i++)
    indices[i] = i * last / std::max<std::size_t>(count - 1, 1);
  return indices;
}

std::vector<octets> make_requests(request_kind kind, const std::vector<object_id>& oids) {
  const std::size_t last = oids.size() - 1;
  std::vector<octets> requests;
  switch (kind) {
    case request_kind::get1:
    case request_kind::next1:
      for (const std::size_t i : spread(positions, last)) {
        requests.push_back(
            make_request(kind == request_kind::get1 ? pdu_get : pdu_getnext, 0, {oids[i]}));
      }
      break;
    case request_kind::get20: {
      std::vector<object_id> asked;
      for (const std::size_t i : spread(many, last)) asked.push_back(oids[i]);
      requests.push_back(make_request(pdu_get, 0, asked));
      break;
    }
    case request_kind::bulk20:
      for (const std::size_t i : spread(positions, last > many ? last - many : 0)) {
        requests.push_back(make_request(pdu_getbulk, many, {oids[i]}));
      }
      break;
  }
  return requests;
}

std::optional<std::size_t> find_request_id(octet_span message) {
  std::uint8_t pdu = 0;
  reader in = open_pdu(message, pdu);
  const octet_span id = in.expect(tag_integer);
  if (!in.good || id.size() != 4) return std::nullopt;
  return static_cast<std::size_t>(id.data() - message.data());
}

void set_request_id(std::span<std::uint8_t> message, std::size_t at, std::uint32_t id) {
  for (std::size_t i = 0; i < 4; i++)
    message[at + i] = static_cast<std::uint8_t>(id >> (24 - 8 * i));
}

std::optional<reply> read_reply(octet_span message) {
  std::uint8_t pdu = 0;
  reader in = open_pdu(message, pdu);
  reply result;
  result.id = in.number();
  result.error_status = in.number();
  in.number();
  reader varbinds = {in.expect(tag_sequence)};
  if (!in.good || pdu != pdu_response) return std::nullopt;
  while (!varbinds.rest.empty()) {
    reader varbind = {varbinds.expect(tag_sequence)};
    std::uint8_t tag = 0;
    varbind.expect(tag_oid);
    varbind.next(tag);
    if (!varbinds.good || !varbind.good) return std::nullopt;
    result.varbinds++;
    result.exceptions += tag >= tag_no_such_object && tag <= tag_end_of_view;
  }
  return result;
}

}  // namespace torvasin_bench
