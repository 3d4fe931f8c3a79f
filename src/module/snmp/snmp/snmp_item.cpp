#include "snmp_item.h"

#include <string.h>

#include <algorithm>

namespace {

// The first position from `at` on where the two OIDs differ or one of them ends.
uint64_t parting(const snmp_oid* a, const snmp_oid* b, uint64_t at) {
  const uint64_t shorter = std::min(a->count, b->count);
  while (at < shorter && a->subid[at] == b->subid[at]) at++;
  return at;
}

// compare_oid for two OIDs that agree up to `at`.
int32_t compare_from(const snmp_oid* a, const snmp_oid* b, uint64_t at) {
  at = parting(a, b, at);
  if (at < a->count && at < b->count) return a->subid[at] < b->subid[at] ? -1 : 1;
  return a->count == b->count ? 0 : a->count < b->count ? -1 : 1;
}

bool same_subids(const snmp_oid* a, const snmp_oid* b, uint64_t count) {
  return memcmp(a->subid, b->subid, count * sizeof a->subid[0]) == 0;
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  return compare_from(a, b, 0);
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
    if (candidate->count == oid->count && same_subids(candidate, oid, oid->count)) {
      return store(&items[i], found);
    }
    const uint64_t parted = parting(candidate, oid, 0);
    if (parted < oid->count) telling = parted;
  }
  return store(nullptr, found);
}

namespace {

// An item between the given OID and the best so far begins with all that these two have in common,
// and its next sub-identifier lies between theirs. That one sub-identifier tells most items apart;
// only those within its bounds are looked at in full.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best = nullptr;
  uint64_t at = 0;              // where oid and best part
  uint32_t low = 0;             // the sub-identifier of oid there, 0 where oid ends
  uint32_t range = UINT32_MAX;  // that of best less low

  void look_at(const snmp_item* item) {
    if (item->oid.subid[at] - low > range || !same_subids(&item->oid, oid, at)) return;
    if (compare_from(&item->oid, oid, at) <= 0) return;
    if (best != nullptr && compare_from(&item->oid, &best->oid, at) > 0) return;
    best = item;
    at = parting(oid, &best->oid, at);
    low = at < oid->count ? oid->subid[at] : 0;
    range = best->oid.subid[at] - low;
  }
};

}  // namespace

// The last item of a table in OID order follows whatever has a successor, so it bounds the search
// from the start. Looked at out of turn it gives way to an equal one before it, and is taken again
// when its turn comes.
int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found) {
  successor_search search = {oid};
  if (item_count > 0) search.look_at(&items[item_count - 1]);
  for (uint32_t i = 0; i < item_count; i++) search.look_at(&items[i]);
  return store(search.best, found);
}
