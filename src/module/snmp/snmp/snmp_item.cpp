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

// The items of a table share a long prefix and differ in a few places. An item is first looked at
// where the last one that came this far differed, which tells most of them from the wanted OID; the
// rest are compared in full.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  uint64_t telling = oid->count > 0 ? oid->count - 1 : 0;
  for (uint32_t i = 0; i < item_count; i++) {
    const snmp_oid* candidate = &items[i].oid;
    if (candidate->subid[telling] != oid->subid[telling]) continue;
    const uint64_t same = common_prefix(candidate, oid);
    if (same == oid->count && same == candidate->count) return store(&items[i], found);
    if (same < oid->count) telling = same;
  }
  return store(nullptr, found);
}

// An item between the given OID and the best so far begins with all that these two have in common,
// and its next sub-identifier lies between theirs. That one sub-identifier tells most items apart;
// only those within its bounds are compared in full.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best;
  uint64_t at;     // where oid and best part
  uint32_t low;    // the sub-identifier of oid there, 0 where oid ends
  uint32_t range;  // that of best less low

  void take(const snmp_item* item) {
    best = item;
    at = common_prefix(oid, &best->oid);
    low = at < oid->count ? oid->subid[at] : 0;
    range = best->oid.subid[at] - low;
  }
};

// The last item of a table in OID order follows whatever has a successor, so it bounds the search
// from the start. Taken out of turn it gives way to an equal one before it and is taken again last.
int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found) {
  successor_search search = {oid, nullptr, 0, 0, UINT32_MAX};
  if (item_count > 0 && compare_oid(&items[item_count - 1].oid, oid) > 0) {
    search.take(&items[item_count - 1]);
  }
  for (uint32_t i = 0; i < item_count; i++) {
    const snmp_oid* candidate = &items[i].oid;
    if (candidate->subid[search.at] - search.low > search.range) continue;
    if (compare_oid(candidate, oid) <= 0) continue;
    if (search.best != nullptr && compare_oid(candidate, &search.best->oid) > 0) continue;
    search.take(&items[i]);
  }
  return store(search.best, found);
}
