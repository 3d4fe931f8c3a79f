// The items that the agent serves: their record, the order of OIDs and the two lookups.
//
// The functions work on a caller's table. They allocate nothing, log nothing and modify nothing.
// The table must not change during a lookup, nor while the caller uses the item found.

#ifndef TORVASIN_SNMP_SNMP_ITEM_H
#define TORVASIN_SNMP_SNMP_ITEM_H

#include "snmp_msg_protocol.h"

// One configured item. It has the fields of a varbind (OID, value writer, writer's context), so a
// handler answers by copying the whole record into the response.
using snmp_item = snmp_varbind;

// Compares two OIDs. The first sub-identifier that differs decides, as an unsigned number. An OID
// comes before every longer one that begins with it. Returns a negative number when a comes before
// b, 0 when they are equal, a positive number when a follows b.
int32_t compare_oid(const snmp_oid* a, const snmp_oid* b);

// Finds the first item in table order with exactly this OID. Stores it and returns 0, or stores
// null and returns -1. found may be null.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found);

// Finds the item with the smallest OID that follows this one. If several items have that OID, finds
// the last of them in table order. Returns and stores as find_snmp_item does.
int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found);

#endif  // TORVASIN_SNMP_SNMP_ITEM_H
