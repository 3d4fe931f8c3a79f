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

bool same_subids(const snmp_oid* a, const snmp_oid* b, uint64_t count) {
  return memcmp(a->subid, b->subid, count * sizeof a->subid[0]) == 0;
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

// The values that the sub-identifier at one place of an OID may have: low to low + range.
struct bounds {
  uint64_t at;
  uint32_t low;
  uint32_t range;
};

// The first item from i on that is within the bounds, or item_count. All but a few items of a table
// are told from the wanted one here, by one of their sub-identifiers.
uint32_t first_within(const bounds& telling, const snmp_item* items, uint32_t i,
                      uint32_t item_count) {
  const auto [at, low, range] = telling;
  while (i < item_count && items[i].oid.subid[at] - low > range) i++;
  return i;
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b, uint64_t alike) {
  const uint64_t at = parting(a, b, alike);
  if (at < a->count && at < b->count) return a->subid[at] < b->subid[at] ? -1 : 1;
  return a->count == b->count ? 0 : a->count < b->count ? -1 : 1;
}

// The items of a table share a long prefix and differ in a few places, so an item is first looked
// at where the last one that was compared in full differed.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  const uint64_t last = oid->count > 0 ? oid->count - 1 : 0;
  bounds telling = {last, oid->subid[last], 0};
  for (uint32_t i = 0; (i = first_within(telling, items, i, item_count)) < item_count; i++) {
    const snmp_oid* candidate = &items[i].oid;
    if (candidate->count == oid->count && same_subids(candidate, oid, oid->count)) {
      return store(&items[i], found);
    }
    const uint64_t parted = parting(candidate, oid, 0);
    if (parted < oid->count) telling = {parted, oid->subid[parted], 0};
  }
  return store(nullptr, found);
}

namespace {

// An item between the given OID and the best so far begins with all that these two have in common,
// and its next sub-identifier lies between theirs. Only such items are compared in full.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best = nullptr;
  bounds telling = {0, 0, UINT32_MAX};  // at: where oid and best part; low: 0 where oid ends

  void look_at(const snmp_item* item) {
    const uint64_t at = telling.at;
    if (!same_subids(&item->oid, oid, at)) return;
    if (compare_oid(&item->oid, oid, at) <= 0) return;
    if (best != nullptr && compare_oid(&item->oid, &best->oid, at) > 0) return;
    best = item;
    telling.at = parting(oid, &best->oid, at);
    telling.low = telling.at < oid->count ? oid->subid[telling.at] : 0;
    telling.range = best->oid.subid[telling.at] - telling.low;
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
  for (uint32_t i = 0; (i = first_within(search.telling, items, i, item_count)) < item_count; i++) {
    search.look_at(&items[i]);
  }
  return store(search.best, found);
}
