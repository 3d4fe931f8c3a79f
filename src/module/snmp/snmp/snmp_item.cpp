#include "snmp_item.h"

#include <string.h>

#include <algorithm>
#include <bit>

// ---- Lookups -----------------------------------------------------------------------------------
//
// A lookup scans the whole table, and comparing every item's OID in full would take long. So it
// reads only two neighbouring sub-identifiers of each item, as one number of 64 bits: a pair. Only
// an item whose pair an answer may have is compared in full.

namespace {

// Two neighbouring sub-identifiers as they lie in memory. The second may lie beyond the count.
uint64_t pair_at(const uint32_t* subid) {
  uint64_t pair;
  memcpy(&pair, subid, sizeof pair);
  return pair;
}

// The first position where the two OIDs differ or one of them ends. They are known to agree before
// the position `at`. Most have a long prefix in common. It is compared in steps of a fixed size,
// each of which compiles to a few instructions.
uint64_t first_difference(const snmp_oid* a, const snmp_oid* b, uint64_t at = 0) {
  constexpr uint64_t step = 8;
  const uint64_t shorter = std::min(a->count, b->count);
  while (at + step <= shorter &&
         memcmp(&a->subid[at], &b->subid[at], step * sizeof a->subid[0]) == 0) {
    at += step;
  }
  while (at < shorter && a->subid[at] == b->subid[at]) at++;
  return at;
}

// Whether a comes before b. `at` is their first difference.
bool precedes(const snmp_oid* a, const snmp_oid* b, uint64_t at) {
  return at < b->count && (at == a->count || a->subid[at] < b->subid[at]);
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t at = first_difference(a, b);
  return precedes(a, b, at) ? -1 : precedes(b, a, at) ? 1 : 0;
}

namespace {

// What every OID equal to a given one has at position `at`. The bits outside the mask belong to a
// sub-identifier beyond the count.
struct exact_pair {
  uint64_t at;
  uint64_t mask;
  uint64_t value;
};

// The pair that holds the sub-identifier at `at`. It begins at an even position, so that it never
// lies across two cache lines.
exact_pair exact_pair_of(const snmp_oid* oid, uint64_t at) {
  at -= at % 2;
  const uint32_t mask[] = {at < oid->count ? UINT32_MAX : 0, at + 1 < oid->count ? UINT32_MAX : 0};
  return {at, pair_at(mask), pair_at(&oid->subid[at]) & pair_at(mask)};
}

// The first item from `item` on that has the pair, or end.
const snmp_item* first_with(const exact_pair& pair, const snmp_item* item, const snmp_item* end) {
  return std::find_if(item, end, [pair](const snmp_item& candidate) {
    return (pair_at(&candidate.oid.subid[pair.at]) & pair.mask) == pair.value;
  });
}

}  // namespace

// The items of a table have a long prefix in common and differ in a few positions. So the pair that
// the lookup reads is the one where the last item that was compared in full differed.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  if (item_count == 0) return store(nullptr, found);
  const snmp_item* end = items + item_count;
  exact_pair pair = exact_pair_of(oid, std::max<uint64_t>(oid->count, 1) - 1);
  for (const snmp_item* item = items;; item++) {
    item = first_with(pair, item, end);
    if (item == end) return store(nullptr, found);
    const uint64_t at = first_difference(&item->oid, oid);
    if (at < oid->count) {
      pair = exact_pair_of(oid, at);
    } else if (item->oid.count == oid->count) {
      return store(item, found);
    }
  }
}

namespace {

// What the pair at position `at` of an answer may be, in the order of the sub-identifiers: low to
// high, both included.
//
// For example, the successor of the first OID is wanted, and the second is the best item so far.
// The answer lies between them, so its fifth and sixth sub-identifiers are 9.4 to 9.7. The third is
// another item. It is passed over.
//
//   1.3.6.1.9.4    9.4, the low end
//   1.3.6.1.9.7    9.7, the high end
//   1.3.6.1.8.5    8.5, outside
struct pair_window {
  uint64_t at;
  uint64_t low;
  uint64_t high;
};

constexpr uint64_t last_pair = SNMP_MAX_SUBIDS - 2;

// A pair as a number that has the order of the sub-identifiers.
uint64_t ordered_pair(const snmp_oid* oid, uint64_t at) {
  const uint64_t pair = pair_at(&oid->subid[at]);
  return std::endian::native == std::endian::little ? std::rotl(pair, 32) : pair;
}

// The lowest pair of an OID that begins with this one.
uint64_t lowest_pair(const snmp_oid* oid, uint64_t at) {
  const uint32_t first = at < oid->count ? oid->subid[at] : 0;
  const uint32_t second = at + 1 < oid->count ? oid->subid[at + 1] : 0;
  return uint64_t{first} << 32 | second;
}

// The first item from `item` on whose pair lies in the window, or end.
const snmp_item* first_within(const pair_window& window, const snmp_item* item,
                              const snmp_item* end) {
  const uint64_t range = window.high - window.low;
  return std::find_if(item, end, [window, range](const snmp_item& candidate) {
    return ordered_pair(&candidate.oid, window.at) - window.low <= range;
  });
}

// The search for the smallest item that follows an OID. An item between the OID and the best item
// so far begins with all that these two have in common, and its next sub-identifier lies between
// theirs.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best;
  uint64_t difference;  // the first one of oid and best
  pair_window window = {};

  void look_at(const snmp_item* item) {
    const uint64_t at = first_difference(oid, &item->oid);
    if (precedes(oid, &item->oid, at) && !best_precedes(item, at)) {
      best = item;
      difference = at;
    }
    narrow(at);
  }

  // Whether best comes before an item that follows the OID. Of two such items, the one that agrees
  // with the OID further comes first.
  bool best_precedes(const snmp_item* item, uint64_t at) const {
    if (at != difference) return at < difference;
    return precedes(&best->oid, &item->oid, first_difference(&best->oid, &item->oid, at));
  }

  // Sets the window for the items to come. `at` is the first difference of the last item and the
  // OID. The pair there tells the next items from the OID too, because neighbours in a table are
  // alike. Nothing is known of a pair behind `difference`, so the pair there is the last to read.
  void narrow(uint64_t at) {
    const bool covered = at == window.at || at == window.at + 1;
    at = std::min({covered ? window.at : at, difference, last_pair});
    const uint64_t highest = ordered_pair(&best->oid, at);
    window = {at, lowest_pair(oid, at), at == difference ? highest | UINT32_MAX : highest};
  }
};

}  // namespace

int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found) {
  // No item behind the last one that follows the OID can be the answer, so the search ends there.
  // It is also the first best. In a table in OID order it is the last item, unless none follows.
  const snmp_item* end = items + item_count;
  uint64_t at = 0;
  for (; end != items; end--) {
    at = first_difference(oid, &end[-1].oid);
    if (precedes(oid, &end[-1].oid, at)) break;
  }
  if (end == items) return store(nullptr, found);
  successor_search search = {oid, end - 1, at};
  search.narrow(at);
  // An equal item before it takes its place as best, and it takes the place back at its own turn.
  for (const snmp_item* item = items;; item++) {
    item = first_within(search.window, item, end);
    if (item == end) return store(search.best, found);
    search.look_at(item);
  }
}
