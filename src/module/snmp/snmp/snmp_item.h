// The items that the agent serves: their record, the order of OIDs and the two lookups.
//
// Pure functions over a caller's table; they allocate nothing, log nothing and modify nothing. The
// caller keeps the table from changing during a lookup and for as long as it uses the item found.

#ifndef TORVASIN_SNMP_SNMP_ITEM_H
#define TORVASIN_SNMP_SNMP_ITEM_H

#include "snmp_msg_protocol.h"

// One configured item is the varbind that answers for it: its OID, the writer of its current value
// and the writer's context. A handler answers with a copy.
using snmp_item = snmp_varbind;

// The order of OIDs: by the first sub-identifier that differs, unsigned; a proper prefix comes
// first. Negative, 0 or positive as a comes before, equals or follows b.
int32_t compare_oid(const snmp_oid* a, const snmp_oid* b);

// The first item in table order with exactly this OID. Returns 0 and stores the item, or returns -1
// and stores null; found may be null. Looks at item_count items at most.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found);

// The item with the smallest OID that follows this one; of several with that OID the last in table
// order. Looks at every item. Same conventions.
int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found);

#endif  // TORVASIN_SNMP_SNMP_ITEM_H
