#include "snmp_item.h"

#include <string.h>

#include <algorithm>
#include <bit>

// ---- Lookups -----------------------------------------------------------------------------------
//
// A lookup scans the whole table, and comparing every item's OID in full would take long. So it
// reads only two neighbouring sub-identifiers of each item, as one number of 64 bits: a pair. In
// every item that can be the answer, this pair lies between two known values: the window. Only an
// item whose pair lies in the window is compared in full.
//
// For example, the successor of the first OID is wanted, and the second is the best item so far.
// The answer lies between them, so its fifth and sixth sub-identifiers are 9.4 to 9.7. The third is
// another item. It is passed over.
//
//   1.3.6.1.9.4    9.4, the window's low end
//   1.3.6.1.9.7    9.7, its high end
//   1.3.6.1.8.5    8.5, outside

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
uint64_t first_difference(const snmp_oid* a, const snmp_oid* b) {
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

// Whether a comes before b. `at` is their first difference.
bool precedes(const snmp_oid* a, const snmp_oid* b, uint64_t at) {
  return at < b->count && (at == a->count || a->subid[at] < b->subid[at]);
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

// The values that the pair at position `at` may have: low to high, both included.
struct pair_window {
  uint64_t at;
  uint64_t low;
  uint64_t high;
};

// The first item from `item` on whose pair lies in the window, or end.
const snmp_item* first_within(const pair_window& window, const snmp_item* item,
                              const snmp_item* end) {
  const uint64_t at = window.at;
  const uint64_t low = window.low;
  const uint64_t range = window.high - low;
  return std::find_if(item, end, [=](const snmp_item& candidate) {
    return pair_at(&candidate.oid, at) - low <= range;
  });
}

// The window of an OID equal to this one, for the pair that holds the sub-identifier at `at`. The
// pair begins at an even position, so that it never lies across two cache lines.
pair_window window_of(const snmp_oid* oid, uint64_t at) {
  at -= at % 2;
  return {at, pair_or(oid, at, 0), pair_or(oid, at, UINT32_MAX)};
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t at = first_difference(a, b);
  return precedes(a, b, at) ? -1 : precedes(b, a, at) ? 1 : 0;
}

// The items of a table have a long prefix in common and differ in a few positions. So the pair that
// the lookup reads is the one where the last item that was compared in full differed.
int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  if (item_count == 0) return store(nullptr, found);
  const snmp_item* end = items + item_count;
  pair_window window = window_of(oid, std::max<uint64_t>(oid->count, 1) - 1);
  for (const snmp_item* item = items;; item++) {
    item = first_within(window, item, end);
    if (item == end) return store(nullptr, found);
    const uint64_t at = first_difference(&item->oid, oid);
    if (at < oid->count) {
      window = window_of(oid, at);
    } else if (item->oid.count == oid->count) {
      return store(item, found);
    }
  }
}

namespace {

bool follows(const snmp_item* item, const snmp_oid* oid) {
  return precedes(oid, &item->oid, first_difference(oid, &item->oid));
}

// The search for the smallest item that follows an OID. An item between the OID and the best item
// so far begins with all that these two have in common, and its next sub-identifier lies between
// theirs.
struct successor_search {
  const snmp_oid* oid;
  const snmp_item* best;
  uint64_t difference = 0;  // the first one of oid and best
  pair_window window = {};

  void look_at(const snmp_item* item) {
    const uint64_t at = first_difference(oid, &item->oid);
    if (precedes(oid, &item->oid, at) && compare_oid(&item->oid, &best->oid) <= 0) {
      best = item;
      difference = at;
    }
    narrow(at);
  }

  // Sets the window for the items to come. `at` is the first difference of the last item and the
  // OID. The pair there tells the next items from the OID too, because neighbours in a table are
  // alike. Nothing is known of a pair behind `difference`, so the pair there is the last to read.
  void narrow(uint64_t at) {
    const bool covered = at == window.at || at == window.at + 1;
    at = std::min({covered ? window.at : at, difference, last_pair});
    const uint64_t highest = pair_at(&best->oid, at);
    window = {at, pair_or(oid, at, 0), at == difference ? highest | UINT32_MAX : highest};
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
  for (const snmp_item* item = items;; item++) {
    item = first_within(search.window, item, end);
    if (item == end) return store(search.best, found);
    search.look_at(item);
  }
}
