#include "snmp_item.h"

#include <string.h>

#include <algorithm>

namespace {

// The first position at which the two OIDs differ or one of them ends.
uint64_t common_prefix(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t shorter = std::min(a->count, b->count);
  uint64_t i = 0;
  while (i < shorter && a->subid[i] == b->subid[i]) i++;
  return i;
}

bool equal_oid(const snmp_oid* a, const snmp_oid* b) {
  return a->count == b->count && memcmp(a->subid, b->subid, a->count * sizeof a->subid[0]) == 0;
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t i = common_prefix(a, b);
  if (i < a->count && i < b->count) return a->subid[i] < b->subid[i] ? -1 : 1;
  return a->count == b->count ? 0 : a->count < b->count ? -1 : 1;
}

// The items of a table share a long prefix, so an item is told from the wanted OID by its last two
// sub-identifiers; only one that has both is compared in full.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  const uint64_t last = oid->count > 0 ? oid->count - 1 : 0;
  const uint64_t next_to_last = last > 0 ? last - 1 : 0;
  for (uint32_t i = 0; i < item_count; i++) {
    const snmp_oid* candidate = &items[i].oid;
    if (candidate->subid[last] == oid->subid[last] &&
        candidate->subid[next_to_last] == oid->subid[next_to_last] && equal_oid(candidate, oid)) {
      return store(&items[i], found);
    }
  }
  return store(nullptr, found);
}

// An item that lies between the given OID and the best so far begins with all that these two have
// in common, and its next sub-identifier lies between theirs. That one sub-identifier tells most
// items apart; only those within its range are compared in full. Where the given OID ends, the
// range starts at 0.
int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found) {
  const snmp_item* best = nullptr;
  uint64_t at = 0;
  uint32_t low = 0;
  uint32_t range = UINT32_MAX;
  for (uint32_t i = 0; i < item_count; i++) {
    const snmp_oid* candidate = &items[i].oid;
    if (candidate->subid[at] - low > range) continue;
    if (compare_oid(candidate, oid) <= 0) continue;
    if (best != nullptr && compare_oid(candidate, &best->oid) > 0) continue;
    best = &items[i];
    at = common_prefix(oid, &best->oid);
    low = at < oid->count ? oid->subid[at] : 0;
    range = best->oid.subid[at] - low;
  }
  return store(best, found);
}
