// The request pipeline: one datagram in, at most one response out.

#ifndef TORVASIN_SNMP_SNMP_H
#define TORVASIN_SNMP_SNMP_H

#include "snmp_item.h"

// Sends one encoded message. minimal_snmp returns its result. The message is valid during the call.
using snmp_send_callback = int32_t (*)(void* context, const uint8_t* message, size_t length);

// The two records of an exchange. The next one reuses them: each is cleared before it is filled.
struct snmp_exchange {
  snmp_request request;
  snmp_response response;
};

// Decodes a datagram, checks the community of an SNMPv2c request (any other than "public" is
// answered with noAccess; SNMPv1 is not checked), looks up the answers, encodes the response into
// the output buffer and sends it. Datagram and output buffer may be the same memory. send may be
// null.
//
// Returns -1 and sends nothing when the request is malformed or not served, or when the response
// does not fit. Returns 0 when there is nothing to send or no callback. Otherwise returns what the
// callback returned.
//
// Allocates nothing. Several threads may call it at once, each with an exchange of its own. The
// poller of an instance calls it under the lock that guards the items and their values.
int32_t minimal_snmp_exchange(snmp_exchange* exchange, const snmp_item* items, uint32_t item_count,
                              const uint8_t* datagram, size_t datagram_size, uint8_t* output,
                              size_t output_size, void* send_context, snmp_send_callback send);

// The same, for one caller at a time: all its calls use one exchange, in static memory.
int32_t minimal_snmp(const snmp_item* items, uint32_t item_count, const uint8_t* datagram,
                     size_t datagram_size, uint8_t* output, size_t output_size, void* send_context,
                     snmp_send_callback send);

#endif  // TORVASIN_SNMP_SNMP_H
