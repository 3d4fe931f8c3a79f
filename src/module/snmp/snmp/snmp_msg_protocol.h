// The SNMP message codec: records, request decoder, value and OID encoding, response encoder.
//
// SNMPv1 (RFC 1157) and SNMPv2c (RFC 1901, 3416) messages in BER, as they appear on the wire:
//
//   SEQUENCE {                        30 len
//     version       INTEGER           02 01 00 (SNMPv1) or 01 (SNMPv2c)
//     community     OCTET STRING      04 len octets
//     PDU           {                 A0 Get, A1 GetNext, A5 GetBulk; A2 in a response
//       request-id  INTEGER           02 len octets
//       INTEGER                       error-status, or non-repeaters of a GetBulk
//       INTEGER                       error-index, or max-repetitions of a GetBulk
//       SEQUENCE {                    30 len, the variable bindings
//         SEQUENCE { name OBJECT IDENTIFIER, value } ...
//       }
//     }
//   }
//
// Everything here works on the caller's memory, allocates nothing, takes no lock and is re-entrant.
// Unless its comment says otherwise, a function returns 0 for success; for failure it logs the
// reason and returns -1. Value writers fail without a message, and so does the response encoder
// when a content exceeds BER_MAX_LENGTH.

#ifndef TORVASIN_SNMP_SNMP_MSG_PROTOCOL_H
#define TORVASIN_SNMP_SNMP_MSG_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

// Capacities, fixed so that a request is processed without allocation.
constexpr size_t SNMP_MAX_SUBIDS = 20;        // sub-identifiers in one OID
constexpr size_t SNMP_MAX_REQUEST_OIDS = 20;  // OIDs in one request
constexpr size_t SNMP_MAX_VARBINDS = 20;      // varbinds in one response
constexpr size_t SNMP_COMMUNITY_SIZE = 64;  // octets of a community, its terminating zero included
constexpr size_t SNMP_MAX_DATAGRAM =
    1472;                                 // an Ethernet frame's 1500 less the IPv4 and UDP headers
constexpr size_t BER_MAX_LENGTH = 65535;  // largest content that a length field can announce

enum snmp_version : int32_t {
  SNMP_V1 = 0,
  SNMP_V2C = 1,
};

enum snmp_error_status : int32_t {
  SNMP_NO_ERROR = 0,
  SNMP_NO_SUCH_NAME = 2,
  SNMP_NO_ACCESS = 6,
};

// Tag octets.
enum ber_tag : uint8_t {
  BER_BOOLEAN = 0x01,
  BER_INTEGER = 0x02,
  BER_BIT_STRING = 0x03,
  BER_OCTET_STRING = 0x04,
  BER_NULL = 0x05,
  BER_OBJECT_IDENTIFIER = 0x06,
  BER_SEQUENCE = 0x30,
  BER_COUNTER32 = 0x41,
  BER_GAUGE32 = 0x42,
  BER_TIMETICKS = 0x43,
  BER_NO_SUCH_OBJECT = 0x80,
  BER_NO_SUCH_INSTANCE = 0x81,
  BER_END_OF_MIB_VIEW = 0x82,
  PDU_GET = 0xA0,
  PDU_GETNEXT = 0xA1,
  PDU_RESPONSE = 0xA2,
  PDU_SET = 0xA3,
  PDU_TRAP_V1 = 0xA4,
  PDU_GETBULK = 0xA5,
  PDU_INFORM = 0xA6,
  PDU_TRAP = 0xA7,
  PDU_REPORT = 0xA8,
};

// An octet of one encoded value. A ber_tlv* points at its tag, which length and content follow. A
// length below 128 takes one octet, below 256 0x81 and one octet, below 65536 0x82 and two octets,
// most significant first.
using ber_tlv = uint8_t;

// Produces one value's octets. Stores their number in *size_out unless size_out is null. With a
// null destination that is all. Otherwise writes the value at the destination, or returns -1 and
// writes nothing when capacity, in octets, is below the size. The response encoder calls it twice
// for each varbind: once for the size, once to write into exactly that much room. A writer owns
// nothing and computes its value anew in each call; the caller must keep the value from changing
// between the two calls.
using snmp_value_writer = int32_t (*)(ber_tlv* destination, size_t capacity, size_t* size_out,
                                      void* context);

// An object identifier. Entries of subid beyond count are zero in every record of the agent.
struct snmp_oid {
  uint32_t subid[SNMP_MAX_SUBIDS];  // first arc first
  uint64_t count;                   // 0 to 20
};

// A decoded request.
struct snmp_request {
  char community[SNMP_COMMUNITY_SIZE];  // 1 to 63 octets and a terminating zero
  uint32_t pdu_type;                    // PDU_GET, PDU_GETNEXT or PDU_GETBULK
  int32_t ver;                          // enum snmp_version
  int32_t id;
  uint32_t non_repeaters;               // error-status as received, unless GETBULK
  uint32_t max_repetitions;             // error-index as received, unless GETBULK
  snmp_oid oid[SNMP_MAX_REQUEST_OIDS];  // GETBULK advances the entries of repeaters
  uint64_t oid_count;                   // 0 to 20
};

// One variable binding of a response, with the function that produces its value.
struct snmp_varbind {
  snmp_oid oid;
  snmp_value_writer writer;
  void* writer_ctx;  // handed to writer; not owned
};

// A response being built. Handlers fill it; encode_snmp_response encodes it.
struct snmp_response {
  int32_t error_status;  // enum snmp_error_status
  int32_t error_index;   // position of the varbind at fault, from 1; 0 for none
  snmp_varbind varbind[SNMP_MAX_VARBINDS];
  uint64_t varbind_count;  // 0 to 20
};

// Returns the name of a PDU tag for the log, a constant text; "?" for a tag without a name.
const char* get_pdu_name(uint32_t pdu_type);

// ---- Request decoder ---------------------------------------------------------------------------

// Clears the request and fills it from one datagram, which must contain exactly one message. For
// anything but a well-formed Get, GetNext or GetBulk, logs the first fault and returns -1; the
// request is then partly filled and must not be read. It holds copies only, so the datagram may be
// overwritten afterwards.
int32_t decode_snmp_request(snmp_request* request, const uint8_t* datagram, size_t size);

// The steps of the decoder. Each reads at *cursor, an index into the datagram, and moves it just
// past what it consumed. None reads an octet at or past size, whatever cursor and length are. After
// a failure the cursor is meaningless.

// Reads a tag and a length. The tag must be one of enum ber_tag, but not the SNMPv1 trap or Report;
// IpAddress, Opaque and Counter64 are refused. The length has at most two octets after the first,
// and 0x80 means 0. It is not compared with what remains.
int32_t decode_len(const uint8_t* datagram, size_t size, size_t* cursor, uint32_t* tag,
                   size_t* length);

// Reads the content of an INTEGER, two's complement. If it has more than four octets, the last four
// count.
int32_t decode_int(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                   int32_t* value);
int32_t decode_uint(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                    uint32_t* value);

// Reads the content of an OCTET STRING as text: up to its first zero octet, at most 63 octets. Adds
// a terminating zero. An empty text leaves the destination unchanged. The cursor moves past the
// whole content.
int32_t decode_str(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                   char destination[SNMP_COMMUNITY_SIZE], size_t* count);

// Reads the content of an OBJECT IDENTIFIER. Of a longer sub-identifier the low 32 bits remain.
// Malformed content leaves the sub-identifiers before the fault in *oid, with their count. Content
// that runs past the datagram or exceeds BER_MAX_LENGTH leaves *oid unchanged.
int32_t decode_oid(const uint8_t* datagram, size_t size, size_t* cursor, size_t length,
                   snmp_oid* oid);

// Skips content of any type. A negative length fails.
int32_t decode_discart(size_t size, size_t* cursor, int32_t length);

// ---- Value encoding ----------------------------------------------------------------------------
//
// A size function returns the octets of the whole encoding, tag and length included. The encoder of
// the same type writes exactly that many at the destination, where the caller has made room.

size_t get_uintlen(uint32_t value);  // 3 to 7: values from 0x80000000 take five content octets
size_t get_intlen(int32_t value);    // 3 to 6
size_t get_strlen(size_t length);    // SNMP_MAX_DATAGRAM for a text above BER_MAX_LENGTH

void encode_int(ber_tlv* destination, int32_t value);
void encode_uint(ber_tlv* destination, uint32_t value);  // Counter32
void encode_uint_type(ber_tlv* destination, uint32_t value, uint8_t tag);
void encode_timeticks(ber_tlv* destination, uint32_t value);
// Writes nothing for a text above BER_MAX_LENGTH, which has no encoding.
void encode_str(ber_tlv* destination, const char* text, size_t length);

// The common part of every snmp_value_writer. Stores the size, checks the capacity, then calls
// encode(destination) to write.
template <typename encoder>
int32_t write_value(ber_tlv* destination, size_t capacity, size_t* size_out, size_t size,
                    encoder encode) {
  if (size_out != nullptr) *size_out = size;
  if (destination == nullptr) return 0;
  if (capacity < size) return -1;
  encode(destination);
  return 0;
}

// A value without content, NULL or an exception: the tag and a zero length.
int32_t write_empty_value(ber_tlv* destination, size_t capacity, size_t* size_out, uint8_t tag);

// The snmp_value_writer of NULL. The context is ignored.
int32_t encode_null(ber_tlv* destination, size_t capacity, size_t* size_out, void* context);

// ---- OID encoding ------------------------------------------------------------------------------
//
// 06, length, first * 40 + second in one octet, then each further sub-identifier in base-128
// groups, most significant first, all but the last with 0x80 added.

// Returns the octets of the whole encoding. When its content exceeds BER_MAX_LENGTH, logs a message
// and returns SIZE_MAX.
size_t get_oidlen(const uint32_t* subid, size_t count);

// Writes the octets that get_oidlen counts. When get_oidlen would fail, writes only the tag octet
// and fails. Reads subid[0] and subid[1] whatever the count is.
int32_t encode_snmp_oid(ber_tlv* destination, const uint32_t* subid, size_t count);

// ---- Response encoder --------------------------------------------------------------------------

// Encodes the response to a request into a buffer. Writes from the end of the buffer towards its
// start, so that each header is written when the length of its content is known. The message ends
// at the buffer's last octet; *data points at its first octet, and *length is its length. If
// error_status is set, the request's OIDs with NULL values first replace the response's varbinds.
// When there is no room or a value writer fails, *data is null and *length 0. Does not read the
// buffer.
int32_t encode_snmp_response(const snmp_request* request, snmp_response* response, uint8_t* buffer,
                             size_t size, uint8_t** data, size_t* length);

#endif  // TORVASIN_SNMP_SNMP_MSG_PROTOCOL_H
