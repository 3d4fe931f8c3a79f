// The handlers of the three request types.
//
// Each looks the request's OIDs up in the item table and fills the cleared response with one
// varbind for each answer: a copy of the item found, or, in SNMPv2c, the requested OID with an
// exception. For an SNMPv1 request the first OID without an answer ends the work with the error
// noSuchName and its position, counted from 1. The handlers do not touch values, which are produced
// when the response is encoded.
//
// They run on the poller thread, under the lock that guards the items. They return 0 when the
// response is to be encoded, also with the SNMPv1 error. They log a message and return -1 when they
// find an item and the response is full; then nothing is to be sent.

#ifndef TORVASIN_SNMP_SNMP_HANDLER_H
#define TORVASIN_SNMP_SNMP_HANDLER_H

#include "snmp_item.h"
#include "snmp_msg_protocol.h"

// Answers each OID with the item of that OID, or with noSuchObject when there is none.
int32_t minimal_snmp_handle_get(const snmp_item* items, uint32_t item_count, snmp_request* request,
                                snmp_response* response);

// Answers each OID with the item that follows it, or with endOfMibView when there is none.
int32_t minimal_snmp_handle_getnext(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response);

// Does as GETNEXT once for the first non_repeaters OIDs, then max_repetitions times for the others.
// After each answer the request's entry of such an OID becomes the OID found. A repetition that
// finds nothing is the last. An item found when the response is full ends the repetitions with a
// message and the result 0.
int32_t minimal_snmp_handle_getbulk(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response);

// The snmp_value_writers of the exceptions. The context is ignored.
int32_t encode_no_such_object(ber_tlv* destination, size_t capacity, size_t* size_out,
                              void* context);
int32_t encode_end_of_mib_view(ber_tlv* destination, size_t capacity, size_t* size_out,
                               void* context);

#endif  // TORVASIN_SNMP_SNMP_HANDLER_H
