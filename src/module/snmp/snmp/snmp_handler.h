// The handlers of the three request types.
//
// Each looks up the request's OIDs in the item table and fills the cleared response with one
// varbind for each answer: a copy of the item found or, in SNMPv2c, the requested OID with an
// exception. In SNMPv1 the handler stops at the first OID without an answer and sets the error
// noSuchName with the position of that OID, counted from 1. The handlers do not touch values, which
// are produced when the response is encoded.
//
// They run on the poller thread, under the lock that guards the items. They return 0 when the
// caller must encode the response, even one with the SNMPv1 error. When they find an item but the
// response is full, they log a message and return -1; the caller then sends nothing.

#ifndef TORVASIN_SNMP_SNMP_HANDLER_H
#define TORVASIN_SNMP_SNMP_HANDLER_H

#include "snmp_item.h"
#include "snmp_msg_protocol.h"

// Answers each OID with the item that has it, or with noSuchObject when there is none.
int32_t minimal_snmp_handle_get(const snmp_item* items, uint32_t item_count, snmp_request* request,
                                snmp_response* response);

// Answers each OID with the item that follows it, or with endOfMibView when there is none.
int32_t minimal_snmp_handle_getnext(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response);

// Does what GETNEXT does: once for the first non_repeaters OIDs, then up to max_repetitions times
// for the others, the repeaters. The OID of each item found for a repeater replaces the repeater's
// OID in the request. A repetition that finds no item is the last. When a repetition finds an item
// but the response is full, logs a message and returns 0.
int32_t minimal_snmp_handle_getbulk(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response);

// The snmp_value_writers of the exceptions. The context is ignored.
int32_t encode_no_such_object(ber_tlv* destination, size_t capacity, size_t* size_out,
                              void* context);
int32_t encode_end_of_mib_view(ber_tlv* destination, size_t capacity, size_t* size_out,
                               void* context);

#endif  // TORVASIN_SNMP_SNMP_HANDLER_H
