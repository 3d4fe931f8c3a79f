#include "snmp_item.h"

#include <string.h>

#include <algorithm>
#include <bit>

// ---- Lookups -----------------------------------------------------------------------------------
//
// A lookup scans the whole table, and comparing every item's OID in full would take long. So it
// reads only two neighbouring sub-identifiers of each item, as one number of 64 bits: a pair. It
// knows between which bounds that pair lies in every item that can be the answer. Only an item
// whose pair is within the bounds is compared in full.
//
// Example: the successor of 1.3.6.1.9.4 is wanted, and the best item so far is 1.3.6.1.9.7. The
// answer begins with 1.3.6.1.9 too, and its sixth sub-identifier is 4 to 7. So the pair of its
// fifth and sixth is 9.4 to 9.7. An item 1.3.6.1.8.5 has the pair 8.5 and is passed over.

namespace {

// Two neighbouring sub-identifiers as one number. Such numbers have the order of their
// sub-identifiers. The second may lie beyond the OID's count.
uint64_t pair_at(const snmp_oid* oid, uint64_t at) {
  uint64_t pair;
  memcpy(&pair, &oid->subid[at], sizeof pair);
  return std::endian::native == std::endian::little ? std::rotl(pair, 32) : pair;
}

constexpr uint64_t last_pair = SNMP_MAX_SUBIDS - 2;

// The same, with `missing` in place of each sub-identifier beyond the OID's count.
uint64_t pair_or(const snmp_oid* oid, uint64_t at, uint32_t missing) {
  const uint32_t first = at < oid->count ? oid->subid[at] : missing;
  const uint32_t second = at + 1 < oid->count ? oid->subid[at + 1] : missing;
  return uint64_t{first} << 32 | second;
}

// The first position where the two OIDs differ or one of them ends. Most have a long prefix in
// common. It is compared in steps of a fixed size, each of which compiles to a few instructions.
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

// Whether a comes before b. `at` is where they part, as parting() gives it.
bool precedes(const snmp_oid* a, const snmp_oid* b, uint64_t at) {
  return at < b->count && (at == a->count || a->subid[at] < b->subid[at]);
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

// The values that the pair at position `at` may have: low to high, both included.
struct bounds {
  uint64_t at;
  uint64_t low;
  uint64_t high;
};

// The first item from `item` on whose pair is within the bounds, or end.
const snmp_item* first_within(const bounds& telling, const snmp_item* item, const snmp_item* end) {
  const uint64_t at = telling.at;
  const uint64_t low = telling.low;
  const uint64_t range = telling.high - low;
  return std::find_if(item, end, [=](const snmp_item& candidate) {
    return pair_at(&candidate.oid, at) - low <= range;
  });
}

// The bounds of an OID equal to this one, for the pair that holds the sub-identifier at `at`. The
// pair begins at an even position, so that it never lies across two cache lines.
bounds bounds_of(const snmp_oid* oid, uint64_t at) {
  at -= at % 2;
  return {at, pair_or(oid, at, 0), pair_or(oid, at, UINT32_MAX)};
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t at = parting(a, b);
  return precedes(a, b, at) ? -1 : precedes(b, a, at) ? 1 : 0;
}

// The items of a table have a long prefix in common and differ in a few positions. So the pair that
// the lookup reads is the one where the last item that was compared in full differed.
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

// The search for the smallest item that follows an OID. An item between the OID and the best item
// so far begins with all that these two have in common, and its next sub-identifier lies between
// theirs.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best;
  uint64_t parted = 0;  // the position where oid and best part
  bounds telling = {};

  void look_at(const snmp_item* item) {
    const uint64_t at = parting(oid, &item->oid);
    if (precedes(oid, &item->oid, at) && compare_oid(&item->oid, &best->oid) <= 0) {
      best = item;
      parted = at;
    }
    tell_by(at);
  }

  // Sets the bounds for the items to come. `at` is where the last item and the OID part. The pair
  // there tells the next items from the OID too, because neighbours in a table are alike. A pair
  // behind `parted` has no bounds, so the pair at `parted` is the last that can be read.
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
  // No item behind the last one that follows the OID can be the answer, so the search ends there.
  // It is also the first best. In a table in OID order it is the last item, unless none follows.
  const snmp_item* end = items + item_count;
  while (end != items && !follows(end - 1, oid)) end--;
  if (end == items) return store(nullptr, found);
  successor_search search = {oid, end - 1};
  search.look_at(end - 1);
  // An equal item before it takes its place as best, and it takes the place back at its own turn.
  for (const snmp_item* item = items; (item = first_within(search.telling, item, end)) != end;
       item++) {
    search.look_at(item);
  }
  return store(search.best, found);
}
