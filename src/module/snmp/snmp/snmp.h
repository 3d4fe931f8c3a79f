// The request pipeline: one datagram in, at most one response out.

#ifndef TORVASIN_SNMP_SNMP_H
#define TORVASIN_SNMP_SNMP_H

#include "snmp_item.h"

// Sends one encoded message, which is valid only during the call. minimal_snmp_exchange returns the
// result.
using snmp_send_callback = int32_t (*)(void* context, const uint8_t* message, size_t length);

// The two records of an exchange. Later exchanges may reuse them: each exchange clears a record
// before it fills it.
struct snmp_exchange {
  snmp_request request;
  snmp_response response;
};

// Decodes a datagram, checks the community of an SNMPv2c request (all but "public" get the error
// noAccess; SNMPv1 communities are not checked), looks up the answers, encodes the response into
// the output buffer and sends it. Datagram and output buffer may be the same memory. send may be
// null.
//
// Returns -1 and sends nothing when the request is malformed or not supported, or when the response
// does not fit. Returns 0 when there is nothing to send or no callback. Otherwise returns the
// callback's result.
//
// Allocates nothing. Several threads may call it at once, each with its own exchange. An instance's
// poller calls it under the lock that guards the items and their values.
int32_t minimal_snmp_exchange(snmp_exchange* exchange, const snmp_item* items, uint32_t item_count,
                              const uint8_t* datagram, size_t datagram_size, uint8_t* output,
                              size_t output_size, void* send_context, snmp_send_callback send);

// The same for one caller at a time: all calls share one exchange in static memory.
int32_t minimal_snmp(const snmp_item* items, uint32_t item_count, const uint8_t* datagram,
                     size_t datagram_size, uint8_t* output, size_t output_size, void* send_context,
                     snmp_send_callback send);

#endif  // TORVASIN_SNMP_SNMP_H
