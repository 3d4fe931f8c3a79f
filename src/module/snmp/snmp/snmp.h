// The request pipeline: one datagram in, at most one response out.

#ifndef TORVASIN_SNMP_SNMP_H
#define TORVASIN_SNMP_SNMP_H

#include "snmp_item.h"

// Sends one encoded message. minimal_snmp returns its result. The message is valid during the call.
using snmp_send_callback = int32_t (*)(void* context, const uint8_t* message, size_t length);

// Decodes a datagram, checks the community of an SNMPv2c request (any other than "public" is
// answered with noAccess; SNMPv1 is not checked), looks up the answers, encodes the response into
// the output buffer and sends it. Datagram and output buffer may be the same memory. send may be
// null.
//
// Returns -1 and sends nothing when the request is malformed or not served, or when the response
// does not fit. Returns 0 when there is nothing to send or no callback. Otherwise returns what the
// callback returned.
//
// Each thread has its own request and response record, so any number of threads may call it at
// once. The poller of an instance calls it under the lock that guards the items and their values.
// Allocates nothing in a thread that has called prepare_minimal_snmp.
int32_t minimal_snmp(const snmp_item* items, uint32_t item_count, const uint8_t* datagram,
                     size_t datagram_size, uint8_t* output, size_t output_size, void* send_context,
                     snmp_send_callback send);

// Gives the calling thread the memory of its two records, about 4 KiB. Without this call, a library
// that dlopen loaded takes the memory from the heap at the thread's first datagram.
void prepare_minimal_snmp();

#endif  // TORVASIN_SNMP_SNMP_H
