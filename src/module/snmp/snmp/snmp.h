// The request pipeline: one datagram in, at most one response out.

#ifndef TORVASIN_SNMP_SNMP_H
#define TORVASIN_SNMP_SNMP_H

#include "snmp_item.h"

// Sends one encoded message; its result becomes minimal_snmp's. The message is the callee's only
// until it returns.
using snmp_send_callback = int32_t (*)(void* context, const uint8_t* message, size_t length);

// Decodes a datagram, checks the community of an SNMPv2c request (any other than "public" is
// answered with noAccess; SNMPv1 is not checked), looks up the answers, encodes the response into
// the output buffer and sends it. Datagram and output buffer may be the same memory. send may be
// null.
//
// Returns -1 when nothing is sent because the request is malformed or not served, or the response
// does not fit; 0 when there is nothing to send or no callback; else what the callback returned.
//
// Each thread has its own request and response record, so any number of threads may call it at
// once; the poller of an instance holds the lock that guards the items and their values. Allocates
// nothing in a thread that has called prepare_minimal_snmp.
int32_t minimal_snmp(const snmp_item* items, uint32_t item_count, const uint8_t* datagram,
                     size_t datagram_size, uint8_t* output, size_t output_size, void* send_context,
                     snmp_send_callback send);

// Gives the calling thread the memory of its two records, about 4 KiB. A library that was loaded by
// dlopen otherwise gets it from the heap at the first datagram.
void prepare_minimal_snmp();

#endif  // TORVASIN_SNMP_SNMP_H
