#include "snmp_msg_protocol.h"

#include <string.h>

#include <algorithm>
#include <bit>
#include <iterator>

#include "snmp_log.h"

namespace {

constexpr char log_source[] = "src/module/snmp/snmp/snmp_msg_protocol";

// The steps of decoding and encoding a message log under these names.
constexpr char decoder_name[] = "decode_snmp_request";
constexpr char encoder_name[] = "encode_snmp_response";
constexpr char varbind_name[] = "encode_snmp_varbind";

// Logs why, and is the status to return.
#define REFUSE(...) (SNMP_LOG(ERROR, __VA_ARGS__), -1)

// A size for the messages that print it with %u. In the agent all sizes are far below 2^32.
constexpr unsigned printed(size_t n) {
  return static_cast<unsigned>(n);
}

}  // namespace

const char* get_pdu_name(uint32_t pdu_type) {
  static constexpr const char* names[] = {"GET",     "GETNEXT", "RESPONSE", "SET",   "?",
                                          "GETBULK", "INFORM",  "TRAP",     "REPORT"};
  const uint32_t index = pdu_type - PDU_GET;
  return index < std::size(names) ? names[index] : "?";
}

// ---- Request decoder ---------------------------------------------------------------------------

namespace {

struct tag_set {
  bool has[256] = {};
};

// IpAddress, Opaque, Counter64, the SNMPv1 trap and Report are missing on purpose.
constexpr tag_set accepted_tags = [] {
  tag_set set;
  for (uint8_t tag : {BER_BOOLEAN,
                      BER_INTEGER,
                      BER_BIT_STRING,
                      BER_OCTET_STRING,
                      BER_NULL,
                      BER_OBJECT_IDENTIFIER,
                      BER_SEQUENCE,
                      BER_COUNTER32,
                      BER_GAUGE32,
                      BER_TIMETICKS,
                      BER_NO_SUCH_OBJECT,
                      BER_NO_SUCH_INSTANCE,
                      BER_END_OF_MIB_VIEW,
                      PDU_GET,
                      PDU_GETNEXT,
                      PDU_RESPONSE,
                      PDU_SET,
                      PDU_GETBULK,
                      PDU_INFORM,
                      PDU_TRAP}) {
    set.has[tag] = true;
  }
  return set;
}();

// All reads from a datagram pass this check. Returns the next n octets and moves the cursor past
// them, or returns null when fewer remain. Compares n with what remains, so no sum can wrap around.
const uint8_t* take(const uint8_t* datagram, size_t size, size_t* cursor, size_t n) {
  if (*cursor > size || n > size - *cursor) return nullptr;
  const uint8_t* octets = datagram + *cursor;
  *cursor += n;
  return octets;
}

// take() for the content of an INTEGER or OCTET STRING. Refuses even empty content at the
// datagram's end.
const uint8_t* take_content(const char* name, const uint8_t* datagram, size_t size, size_t* cursor,
                            size_t length) {
  if (*cursor >= size) {
    SNMP_LOG(ERROR, "%s: pos (%u) out of buffer (%u) (0)", name, printed(*cursor), printed(size));
    return nullptr;
  }
  const uint8_t* content = take(datagram, size, cursor, length);
  if (content == nullptr) {
    SNMP_LOG(ERROR, "%s: pos (%u) out of buffer (%u) (len: %u)", name, printed(*cursor),
             printed(size), printed(length));
  }
  return content;
}

int32_t decode_integer(const char* name, const uint8_t* datagram, size_t size, size_t* cursor,
                       size_t length, uint32_t* value) {
  *value = 0;
  const uint8_t* content = take_content(name, datagram, size, cursor, length);
  if (content == nullptr) return -1;
  uint32_t bits = length > 0 && (content[0] & 0x80) != 0 ? UINT32_MAX : 0;
  for (size_t i = 0; i < length; i++) bits = bits << 8 | content[i];
  *value = bits;
  return 0;
}

}  // namespace

int32_t decode_len(const uint8_t* datagram, size_t size, size_t* cursor, uint32_t* tag,
                   size_t* length) {
  *tag = 0;
  *length = 0;
  const uint8_t* octet = take(datagram, size, cursor, 1);
  if (octet == nullptr) {
    return REFUSE("pos (%u) out of buffer (%u) (0)", printed(*cursor), printed(size));
  }
  if (!accepted_tags.has[*octet]) return REFUSE("%s: unsupported type %02X", __func__, *octet);
  *tag = *octet;

  octet = take(datagram, size, cursor, 1);
  if (octet == nullptr) {
    return REFUSE("%s: pos (%u) out of buffer (%u) (1)", __func__, printed(*cursor), printed(size));
  }
  if (*octet < 0x80) {
    *length = *octet;
    return 0;
  }
  const unsigned length_octets = *octet & 0x7Fu;
  if (length_octets > 2) return REFUSE("%s: overflow for length (%u)", __func__, length_octets);
  for (unsigned i = 0; i < length_octets; i++) {
    octet = take(datagram, size, cursor, 1);
    if (octet == nullptr) {
      return REFUSE("%s: pos (%u) out of buffer (%u) (2)", __func__, printed(*cursor),
                    printed(size));
    }
    *length = *length << 8 | *octet;
  }
  return 0;
}

int32_t decode_int(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                   int32_t* value) {
  uint32_t bits;
  const int32_t status = decode_integer(__func__, datagram, size, cursor, length, &bits);
  *value = static_cast<int32_t>(bits);
  return status;
}

int32_t decode_uint(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                    uint32_t* value) {
  return decode_integer(__func__, datagram, size, cursor, length, value);
}

int32_t decode_str(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                   char destination[SNMP_COMMUNITY_SIZE], size_t* count) {
  *count = 0;
  const uint8_t* content = take_content(__func__, datagram, size, cursor, length);
  if (content == nullptr) return -1;
  const char* text = reinterpret_cast<const char*>(content);
  *count = strnlen(text, std::min(length, SNMP_COMMUNITY_SIZE - 1));
  if (*count == 0) return 0;
  memcpy(destination, text, *count);
  destination[*count] = '\0';
  return 0;
}

int32_t decode_oid(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                   snmp_oid* oid) {
  const uint8_t* octet = take(datagram, size, cursor, length);
  if (octet == nullptr) {
    return REFUSE("%s: underflow for oid %u %u %u", __func__, printed(*cursor), printed(size),
                  printed(length));
  }
  if (length > BER_MAX_LENGTH) return REFUSE("%s: len %u too big", __func__, printed(length));
  oid->count = 0;
  const uint8_t* end = octet + length;
  if (octet == end) return REFUSE("%s: underflow for OID byte", __func__);
  if (*octet >= 0x80) return REFUSE("%s: unsupported OID startbyte %02X", __func__, *octet);
  oid->subid[0] = *octet / 40u;
  oid->subid[1] = *octet % 40u;
  oid->count = 2;
  octet++;
  while (octet != end) {
    if (oid->count == SNMP_MAX_SUBIDS) {
      return REFUSE("%s: OID too long (%u)", __func__, printed(SNMP_MAX_SUBIDS));
    }
    uint32_t subid = *octet & 0x7Fu;
    while (*octet++ >= 0x80) {
      if (octet == end) return REFUSE("%s: underflow for OID byte", __func__);
      subid = subid << 7 | (*octet & 0x7Fu);
    }
    oid->subid[oid->count++] = subid;
  }
  return 0;
}

int32_t decode_discart(size_t size, size_t* cursor, int32_t length) {
  // A negative length becomes larger than any datagram.
  const size_t n = static_cast<size_t>(length);
  if (*cursor > size || n > size - *cursor) {
    return REFUSE("%s no possible to discard data requested", __func__);
  }
  *cursor += n;
  return 0;
}

namespace {

// The datagram with the cursor, and the tag and length read last.
struct request_reader {
  const uint8_t* datagram;
  size_t size;
  size_t cursor;
  uint32_t tag;
  size_t length;
};

int32_t read_header(request_reader* in) {
  return decode_len(in->datagram, in->size, &in->cursor, &in->tag, &in->length);
}

bool reaches_end(const request_reader* in) {
  return in->length == in->size - in->cursor;
}

int32_t read_message_header(request_reader* in) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_SEQUENCE) return REFUSE("%s: type %02X not supported", decoder_name, in->tag);
  if (!reaches_end(in)) {
    return REFUSE("%s: package size does not match len:%zu size:%zu pos:%zu", decoder_name,
                  in->length, in->size, in->cursor);
  }
  return 0;
}

int32_t read_version(request_reader* in, int32_t* version) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_INTEGER) {
    return REFUSE("%s: type %02X not supported for version", decoder_name, in->tag);
  }
  if (in->length != 1) {
    return REFUSE("%s: size %zu not supported for version", decoder_name, in->length);
  }
  if (decode_int(in->datagram, in->size, &in->cursor, in->length, version) != 0) return -1;
  if (*version != SNMP_V1 && *version != SNMP_V2C) {
    return REFUSE("%s: version %d not supported yet", decoder_name, *version);
  }
  return 0;
}

int32_t read_community(request_reader* in, char community[SNMP_COMMUNITY_SIZE]) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_OCTET_STRING) {
    return REFUSE("%s: type %02X not supported for community", decoder_name, in->tag);
  }
  if (in->length >= SNMP_COMMUNITY_SIZE) {
    return REFUSE("%s: size %zu not supported for community", decoder_name, in->length);
  }
  size_t count;
  if (decode_str(in->datagram, in->size, &in->cursor, in->length, community, &count) != 0) {
    return -1;
  }
  if (count == 0) return REFUSE("%s: unsupported empty community", decoder_name);
  return 0;
}

int32_t read_pdu_header(request_reader* in, uint32_t* pdu_type) {
  if (read_header(in) != 0) return -1;
  if (!reaches_end(in)) {
    return REFUSE("%s: package size does not match len:%zu size:%zu pos:%zu (reading type)",
                  decoder_name, in->length, in->size, in->cursor);
  }
  if (in->tag != PDU_GET && in->tag != PDU_GETNEXT && in->tag != PDU_GETBULK) {
    return REFUSE("%s: type 0x%x not yet supported", decoder_name, in->tag);
  }
  *pdu_type = in->tag;
  return 0;
}

int32_t read_id(request_reader* in, int32_t* id) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_INTEGER) {
    return REFUSE("%s: type %02X not supported for id", decoder_name, in->tag);
  }
  if (in->length == 0) {
    return REFUSE("%s: size %zu not supported for id", decoder_name, in->length);
  }
  return decode_int(in->datagram, in->size, &in->cursor, in->length, id);
}

int32_t read_non_repeaters(request_reader* in, uint32_t* non_repeaters) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_INTEGER) {
    return REFUSE("%s: type %02X not supported for non repeaters", decoder_name, in->tag);
  }
  if (in->length == 0) {
    return REFUSE("%s: size %zu not supported for non repeaters", decoder_name, in->length);
  }
  return decode_uint(in->datagram, in->size, &in->cursor, in->length, non_repeaters);
}

int32_t read_max_repetitions(request_reader* in, uint32_t* max_repetitions) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_INTEGER) {
    return REFUSE("%s: type %02X not supported for max repeaters", decoder_name, in->tag);
  }
  if (in->length == 0) {
    return REFUSE("%s: size %zu not supported for max repeaters", decoder_name, in->length);
  }
  return decode_uint(in->datagram, in->size, &in->cursor, in->length, max_repetitions);
}

int32_t read_variables_header(request_reader* in) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_SEQUENCE) {
    return REFUSE("%s: type %02X not supported for variables", decoder_name, in->tag);
  }
  if (!reaches_end(in)) {
    return REFUSE("%s: package size does not match len:%zu size:%zu pos:%zu for variables",
                  decoder_name, in->length, in->size, in->cursor);
  }
  return 0;
}

// Reads one varbind of a request: keeps its name and skips its value. Does not compare the
// varbind's own length with its content.
int32_t read_varbind(request_reader* in, snmp_oid* name) {
  if (read_header(in) != 0) return -1;
  if (in->tag != BER_SEQUENCE) {
    return REFUSE("%s: type %02X not supported for variable", decoder_name, in->tag);
  }
  if (in->length == 0) {
    return REFUSE("%s: package size does not match len:%zu size:%zu pos:%zu for variable",
                  decoder_name, in->length, in->size, in->cursor);
  }

  if (read_header(in) != 0) return -1;
  if (in->tag != BER_OBJECT_IDENTIFIER) {
    return REFUSE("%s: type %02X not supported for variable oid", decoder_name, in->tag);
  }
  if (in->length == 0) {
    return REFUSE("%s: package size does not match len:%zu size:%zu pos:%zu for variable oid",
                  decoder_name, in->length, in->size, in->cursor);
  }
  if (decode_oid(in->datagram, in->size, &in->cursor, in->length, name) != 0) return -1;

  if (read_header(in) != 0) return -1;
  if ((in->tag == BER_NULL) != (in->length == 0)) {
    return REFUSE("%s: only value NULL can have zero byte len", decoder_name);
  }
  return decode_discart(in->size, &in->cursor, static_cast<int32_t>(in->length));
}

int32_t read_varbinds(request_reader* in, snmp_request* request) {
  request->oid_count = 0;
  while (in->cursor < in->size) {
    if (request->oid_count == SNMP_MAX_REQUEST_OIDS) {
      return REFUSE("%s: too much OID list %u", decoder_name, printed(request->oid_count));
    }
    if (read_varbind(in, &request->oid[request->oid_count]) != 0) return -1;
    request->oid_count++;
  }
  return 0;
}

}  // namespace

int32_t decode_snmp_request(snmp_request* request, const uint8_t* datagram, size_t size) {
  memset(request, 0, sizeof *request);
  request_reader in = {datagram, size, 0, 0, 0};
  if (read_message_header(&in) != 0) return -1;
  if (read_version(&in, &request->ver) != 0) return -1;
  if (read_community(&in, request->community) != 0) return -1;
  if (read_pdu_header(&in, &request->pdu_type) != 0) return -1;
  if (read_id(&in, &request->id) != 0) return -1;
  if (read_non_repeaters(&in, &request->non_repeaters) != 0) return -1;
  if (read_max_repetitions(&in, &request->max_repetitions) != 0) return -1;
  if (read_variables_header(&in) != 0) return -1;
  return read_varbinds(&in, request);
}

// ---- Value encoding ----------------------------------------------------------------------------

namespace {

// Octets of the header (tag and length) before a content of this size; 0 if the content is too long
// for a length field.
size_t header_size(size_t content) {
  if (content < 0x80) return 2;
  if (content < 0x100) return 3;
  return content <= BER_MAX_LENGTH ? 4 : 0;
}

// These return where the content goes. Its length must be at most BER_MAX_LENGTH.

uint8_t* write_length(uint8_t* destination, size_t content) {
  if (content >= 0x100) {
    *destination++ = 0x82;
    *destination++ = static_cast<uint8_t>(content >> 8);
  } else if (content >= 0x80) {
    *destination++ = 0x81;
  }
  *destination++ = static_cast<uint8_t>(content);
  return destination;
}

uint8_t* write_header(uint8_t* destination, uint8_t tag, size_t content) {
  *destination = tag;
  return write_length(destination + 1, content);
}

// Content octets of an INTEGER or an unsigned type: the fewest that hold the number and its sign
// bit. An unsigned number whose highest bit would read as a sign gets a zero octet before it.
size_t integer_content(int64_t value) {
  const uint64_t magnitude = static_cast<uint64_t>(value < 0 ? ~value : value);
  return static_cast<size_t>(64 - std::countl_zero(magnitude)) / 8 + 1;
}

size_t integer_size(int64_t value) {
  return 2 + integer_content(value);
}

void write_integer(uint8_t* destination, uint8_t tag, int64_t value) {
  const size_t content = integer_content(value);
  uint8_t* octets = write_header(destination, tag, content);
  uint64_t bits = static_cast<uint64_t>(value);
  for (size_t i = content; i > 0; i--, bits >>= 8) octets[i - 1] = static_cast<uint8_t>(bits);
}

}  // namespace

size_t get_uintlen(uint32_t value) {
  return integer_size(value);
}

size_t get_intlen(int32_t value) {
  return integer_size(value);
}

size_t get_strlen(size_t length) {
  const size_t header = header_size(length);
  return header != 0 ? header + length : SNMP_MAX_DATAGRAM;
}

void encode_int(ber_tlv* destination, int32_t value) {
  write_integer(destination, BER_INTEGER, value);
}

void encode_uint(ber_tlv* destination, uint32_t value) {
  encode_uint_type(destination, value, BER_COUNTER32);
}

void encode_uint_type(ber_tlv* destination, uint32_t value, uint8_t tag) {
  write_integer(destination, tag, value);
}

void encode_timeticks(ber_tlv* destination, uint32_t value) {
  encode_uint_type(destination, value, BER_TIMETICKS);
}

void encode_str(ber_tlv* destination, const char* text, size_t length) {
  if (length > BER_MAX_LENGTH) return;
  memcpy(write_header(destination, BER_OCTET_STRING, length), text, length);
}

int32_t write_empty_value(ber_tlv* destination, size_t capacity, size_t* size_out, uint8_t tag) {
  return write_value(destination, capacity, size_out, header_size(0),
                     [tag](ber_tlv* room) { write_header(room, tag, 0); });
}

int32_t encode_null(ber_tlv* destination, size_t capacity, size_t* size_out, void*) {
  return write_empty_value(destination, capacity, size_out, BER_NULL);
}

// ---- OID encoding ------------------------------------------------------------------------------

namespace {

// Base-128 groups of a sub-identifier.
size_t subid_groups(uint32_t subid) {
  return 1u + (subid >= 1u << 7) + (subid >= 1u << 14) + (subid >= 1u << 21) + (subid >= 1u << 28);
}

size_t oid_content(const uint32_t* subid, size_t count) {
  size_t content = 1;
  for (size_t i = 2; i < count; i++) content += subid_groups(subid[i]);
  return content;
}

// Writes the groups of a sub-identifier and returns where the next one goes.
uint8_t* write_subid(uint8_t* destination, uint32_t subid) {
  for (size_t behind = subid_groups(subid) - 1; behind > 0; behind--) {
    *destination++ = static_cast<uint8_t>(subid >> 7 * behind | 0x80);
  }
  *destination++ = static_cast<uint8_t>(subid & 0x7F);
  return destination;
}

}  // namespace

size_t get_oidlen(const uint32_t* subid, size_t count) {
  const size_t content = oid_content(subid, count);
  if (content > BER_MAX_LENGTH) {
    SNMP_LOG(ERROR, "%s: OID not convertible", __func__);
    return SIZE_MAX;
  }
  return header_size(content) + content;
}

int32_t encode_snmp_oid(ber_tlv* destination, const uint32_t* subid, size_t count) {
  *destination++ = BER_OBJECT_IDENTIFIER;
  const size_t content = oid_content(subid, count);
  if (content > BER_MAX_LENGTH) return REFUSE("%s: OID not convertible", __func__);
  destination = write_length(destination, content);
  *destination++ = static_cast<uint8_t>(subid[0] * 40 + subid[1]);
  for (size_t i = 2; i < count; i++) destination = write_subid(destination, subid[i]);
  return 0;
}

// ---- Response encoder --------------------------------------------------------------------------

namespace {

// A buffer that is written from its end towards its start: octets before position are free, those
// from position on are written.
struct tail_writer {
  uint8_t* buffer;
  size_t size;
  size_t position;
};

// All room in the buffer comes from here. Returns the n octets before what is written, or null when
// fewer are free.
uint8_t* make_room(tail_writer* out, size_t n) {
  if (out->position < n) return nullptr;
  out->position -= n;
  return out->buffer + out->position;
}

size_t written(const tail_writer* out) {
  return out->size - out->position;
}

// These put one element before what is written, and return false when there is no room for it. The
// content of a header must be at most BER_MAX_LENGTH.

bool prepend_header(tail_writer* out, uint8_t tag, size_t content) {
  uint8_t* room = make_room(out, header_size(content));
  if (room != nullptr) write_header(room, tag, content);
  return room != nullptr;
}

bool prepend_int(tail_writer* out, int32_t value) {
  uint8_t* room = make_room(out, get_intlen(value));
  if (room != nullptr) encode_int(room, value);
  return room != nullptr;
}

bool prepend_str(tail_writer* out, const char* text, size_t length) {
  uint8_t* room = make_room(out, get_strlen(length));
  if (room != nullptr) encode_str(room, text, length);
  return room != nullptr;
}

int32_t encode_snmp_varbind(tail_writer* out, const snmp_varbind* varbind) {
  const size_t end = out->position;
  size_t value_size = 0;
  varbind->writer(nullptr, 0, &value_size, varbind->writer_ctx);
  uint8_t* room = make_room(out, value_size);
  if (room == nullptr) return REFUSE("%s: no space in buffer for DATA", varbind_name);
  if (varbind->writer(room, value_size, nullptr, varbind->writer_ctx) != 0) {
    return REFUSE("%s: no space in buffer for DATA :-(", varbind_name);
  }

  const size_t oid_size = get_oidlen(varbind->oid.subid, varbind->oid.count);
  room = make_room(out, oid_size);
  if (room == nullptr) return REFUSE("%s: no space in buffer for OID", varbind_name);
  if (encode_snmp_oid(room, varbind->oid.subid, varbind->oid.count) != 0) return -1;

  const size_t content = end - out->position;
  if (content > BER_MAX_LENGTH) return -1;
  if (!prepend_header(out, BER_SEQUENCE, content)) {
    return REFUSE("%s: no space in buffer for VARBIND", varbind_name);
  }
  return 0;
}

// An error response carries the requested OIDs with NULL values, whatever was found before.
int32_t fill_error_varbinds(const snmp_request* request, snmp_response* response) {
  if (request->oid_count > SNMP_MAX_VARBINDS) return REFUSE("%s: too much oid", encoder_name);
  for (uint64_t i = 0; i < request->oid_count; i++) {
    response->varbind[i].oid = request->oid[i];
    response->varbind[i].writer = encode_null;
  }
  response->varbind_count = request->oid_count;
  return 0;
}

int32_t encode_pdu(tail_writer* out, const snmp_request* request, const snmp_response* response) {
  for (uint64_t i = response->varbind_count; i > 0; i--) {
    if (encode_snmp_varbind(out, &response->varbind[i - 1]) != 0) return -1;
  }
  if (written(out) > BER_MAX_LENGTH) return -1;
  if (!prepend_header(out, BER_SEQUENCE, written(out))) {
    return REFUSE("%s: VARBINDS not fit in buffer", encoder_name);
  }
  if (!prepend_int(out, response->error_index)) {
    return REFUSE("%s: ERROR INDEX not fit in buffer", encoder_name);
  }
  if (!prepend_int(out, response->error_status)) {
    return REFUSE("%s: ERROR STATUS not fit in buffer", encoder_name);
  }
  if (!prepend_int(out, request->id)) {
    return REFUSE("%s: ID not fit in buffer", encoder_name);
  }
  if (written(out) > BER_MAX_LENGTH) return -1;
  if (!prepend_header(out, PDU_RESPONSE, written(out))) {
    return REFUSE("%s: PDU not fit in buffer", encoder_name);
  }
  return 0;
}

}  // namespace

int32_t encode_snmp_response(const snmp_request* request, snmp_response* response, uint8_t* buffer,
                             size_t size, uint8_t** data, size_t* length) {
  *data = nullptr;
  *length = 0;
  if (response->error_status != SNMP_NO_ERROR && fill_error_varbinds(request, response) != 0) {
    return -1;
  }
  tail_writer out = {buffer, size, size};
  if (encode_pdu(&out, request, response) != 0) return -1;
  if (!prepend_str(&out, request->community, strnlen(request->community, SNMP_COMMUNITY_SIZE))) {
    return REFUSE("%s: COMMUNITY not fit in buffer", encoder_name);
  }
  if (!prepend_int(&out, request->ver)) {
    return REFUSE("%s: VERSION not fit in buffer", encoder_name);
  }
  if (written(&out) > BER_MAX_LENGTH) return -1;
  if (!prepend_header(&out, BER_SEQUENCE, written(&out))) {
    return REFUSE("%s: HEADER not fit in buffer", encoder_name);
  }
  *data = buffer + out.position;
  *length = written(&out);
  return 0;
}
