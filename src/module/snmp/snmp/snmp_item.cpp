#include "snmp_item.h"

#include <string.h>

#include <algorithm>
#include <bit>

namespace {

// Two neighbouring sub-identifiers as one number, which orders as the two do. The second may lie
// beyond the OID's count.
uint64_t pair_at(const snmp_oid* oid, uint64_t at) {
  uint64_t pair;
  memcpy(&pair, &oid->subid[at], sizeof pair);
  return std::endian::native == std::endian::little ? std::rotl(pair, 32) : pair;
}

constexpr uint64_t last_pair = SNMP_MAX_SUBIDS - 2;

// The same with `missing` for each sub-identifier beyond the OID's count.
uint64_t pair_or(const snmp_oid* oid, uint64_t at, uint32_t missing) {
  const uint32_t first = at < oid->count ? oid->subid[at] : missing;
  const uint32_t second = at + 1 < oid->count ? oid->subid[at + 1] : missing;
  return uint64_t{first} << 32 | second;
}

// The first position where the two OIDs differ or one of them ends. Most have a long prefix in
// common, which is compared in steps of a fixed size: a compiler makes few instructions of one.
uint64_t parting(const snmp_oid* a, const snmp_oid* b) {
  constexpr uint64_t step = 8;
  const uint64_t shorter = std::min(a->count, b->count);
  uint64_t at = 0;
  while (at + step <= shorter &&
         memcmp(&a->subid[at], &b->subid[at], step * sizeof a->subid[0]) == 0) {
    at += step;
  }
  while (at < shorter && a->subid[at] == b->subid[at]) at++;
  return at;
}

// Whether a comes before b. The two part at `at`.
bool precedes(const snmp_oid* a, const snmp_oid* b, uint64_t at) {
  return at < b->count && (at == a->count || a->subid[at] < b->subid[at]);
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

// The values that the pair at one place of an OID may have: low to high.
struct bounds {
  uint64_t at;
  uint64_t low;
  uint64_t high;
};

// The first item from `item` on that is within the bounds, or end. All but a few items of a table
// are told from the wanted one here, by two of their sub-identifiers.
const snmp_item* first_within(const bounds& telling, const snmp_item* item, const snmp_item* end) {
  const uint64_t at = telling.at;
  const uint64_t low = telling.low;
  const uint64_t range = telling.high - low;
  return std::find_if(item, end, [=](const snmp_item& candidate) {
    return pair_at(&candidate.oid, at) - low <= range;
  });
}

// The bounds that hold for an equal OID, at one of its sub-identifiers. The pair begins at an even
// place, so that none lies across two cache lines.
bounds bounds_of(const snmp_oid* oid, uint64_t at) {
  at -= at % 2;
  return {at, pair_or(oid, at, 0), pair_or(oid, at, UINT32_MAX)};
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t at = parting(a, b);
  return precedes(a, b, at) ? -1 : precedes(b, a, at) ? 1 : 0;
}

// The items of a table share a long prefix and differ in a few places, so an item is first looked
// at where the last one that was compared in full differed.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  if (item_count == 0) return store(nullptr, found);
  const snmp_item* end = items + item_count;
  bounds telling = bounds_of(oid, std::max<uint64_t>(oid->count, 1) - 1);
  for (const snmp_item* item = items; (item = first_within(telling, item, end)) != end; item++) {
    const uint64_t at = parting(&item->oid, oid);
    if (at < oid->count) {
      telling = bounds_of(oid, at);
    } else if (item->oid.count == oid->count) {
      return store(item, found);
    }
  }
  return store(nullptr, found);
}

namespace {

bool follows(const snmp_item* item, const snmp_oid* oid) {
  return precedes(oid, &item->oid, parting(oid, &item->oid));
}

// An item between the given OID and the best so far begins with all that these two have in common,
// and its next sub-identifier lies between theirs. Only such items are compared in full.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best;
  uint64_t parted = 0;  // where oid and best part
  bounds telling = {};

  void look_at(const snmp_item* item) {
    const uint64_t at = parting(oid, &item->oid);
    if (precedes(oid, &item->oid, at) && compare_oid(&item->oid, &best->oid) <= 0) {
      best = item;
      parted = at;
    }
    tell_by(at);
  }

  // Sets the bounds for the items to come, at the pair that told the last one from the OID: it
  // tells its neighbours as well. No pair behind the parting is bounded.
  void tell_by(uint64_t at) {
    const bool covered = at == telling.at || at == telling.at + 1;
    at = std::min({covered ? telling.at : at, parted, last_pair});
    const uint64_t highest = pair_at(&best->oid, at);
    telling = {at, pair_or(oid, at, 0), at == parted ? highest | UINT32_MAX : highest};
  }
};

}  // namespace

int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found) {
  // The last item that follows the OID bounds the search: what is behind it cannot be the answer.
  // In a table in OID order it is the last of all, unless none follows.
  const snmp_item* end = items + item_count;
  while (end != items && !follows(end - 1, oid)) end--;
  if (end == items) return store(nullptr, found);
  successor_search search = {oid, end - 1};
  search.look_at(end - 1);
  // Looked at out of turn it gives way to an equal one before it, and is taken again in its turn.
  for (const snmp_item* item = items; (item = first_within(search.telling, item, end)) != end;
       item++) {
    search.look_at(item);
  }
  return store(search.best, found);
}
