// The handlers of the three request types.
//
// Each looks the request's OIDs up in the item table and fills the cleared response with one
// varbind for each answer: a copy of the item found, or, in SNMPv2c, the requested OID with an
// exception. For an SNMPv1 request the first OID without an answer ends the work with the error
// noSuchName and its position, counted from 1. Values are not touched: they are produced when the
// response is encoded.
//
// They run on the poller thread, under the lock that guards the items. Returns 0 when the response
// is to be encoded, the SNMPv1 error included; -1, after a message, when an item was found and the
// response was full: then nothing is to be sent.

#ifndef TORVASIN_SNMP_SNMP_HANDLER_H
#define TORVASIN_SNMP_SNMP_HANDLER_H

#include "snmp_item.h"
#include "snmp_msg_protocol.h"

// Each OID itself; noSuchObject where there is none.
int32_t minimal_snmp_handle_get(const snmp_item* items, uint32_t item_count, snmp_request* request,
                                snmp_response* response);

// The successor of each OID; endOfMibView where there is none.
int32_t minimal_snmp_handle_getnext(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response);

// GETNEXT once for the first non_repeaters OIDs, then max_repetitions times over for the others,
// the request's entries of which advance to what was found. Stops early after a repetition that
// found nothing, and, with a message and 0, at an item found when the response is full.
int32_t minimal_snmp_handle_getbulk(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response);

// The snmp_value_writers of the exceptions. The context is ignored.
int32_t encode_no_such_object(ber_tlv* destination, size_t capacity, size_t* size_out,
                              void* context);
int32_t encode_end_of_mib_view(ber_tlv* destination, size_t capacity, size_t* size_out,
                               void* context);

#endif  // TORVASIN_SNMP_SNMP_HANDLER_H
