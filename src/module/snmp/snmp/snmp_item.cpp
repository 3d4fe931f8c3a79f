#include "snmp_item.h"

#include <string.h>

#include <algorithm>
#include <bit>

namespace {

// The first position where the two OIDs differ or one of them ends. They are known to agree before
// the position `from`. Most have a long prefix in common. It is compared in steps of a fixed size,
// each of which compiles to a few instructions.
uint64_t first_difference(const snmp_oid* a, const snmp_oid* b, uint64_t from = 0) {
  constexpr uint64_t step = 8;
  const uint64_t shorter = std::min(a->count, b->count);
  while (from + step <= shorter &&
         memcmp(&a->subid[from], &b->subid[from], step * sizeof a->subid[0]) == 0) {
    from += step;
  }
  while (from < shorter && a->subid[from] == b->subid[from]) from++;
  return from;
}

// Whether a comes before b, given their first difference.
bool precedes(const snmp_oid* a, const snmp_oid* b, uint64_t difference) {
  return difference < b->count &&
         (difference == a->count || a->subid[difference] < b->subid[difference]);
}

int32_t store(const snmp_item* item, const snmp_item** found) {
  if (found != nullptr) *found = item;
  return item != nullptr ? 0 : -1;
}

}  // namespace

int32_t compare_oid(const snmp_oid* a, const snmp_oid* b) {
  const uint64_t difference = first_difference(a, b);
  return precedes(a, b, difference) ? -1 : precedes(b, a, difference) ? 1 : 0;
}

// ---- Lookups -----------------------------------------------------------------------------------
//
// A lookup scans the whole table, and comparing every item's OID in full would take long. The items
// have a long prefix in common and differ in a few positions. So a lookup reads one position of
// each item, or two, where the last item that it compared in full differed. It compares in full
// only those that an answer may agree with there.

int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  if (item_count == 0) return store(nullptr, found);
  const snmp_item* end = items + item_count;
  // Most OIDs end with a 0. The sub-identifier before it tells more of them apart.
  uint64_t position = std::max<uint64_t>(oid->count, 2) - 2;
  for (const snmp_item* item = items; item != end; item++) {
    if (position < oid->count) {
      item =
          std::find_if(item, end, [position, wanted = oid->subid[position]](const auto& candidate) {
            return candidate.oid.subid[position] == wanted;
          });
      if (item == end) break;
    }
    const uint64_t difference = first_difference(&item->oid, oid);
    if (difference < oid->count) {
      position = difference;
    } else if (item->oid.count == oid->count) {
      return store(item, found);
    }
  }
  return store(nullptr, found);
}

namespace {

// What the pair of sub-identifiers at a position of an answer may be, in the order of the
// sub-identifiers: low to high, both included.
//
// For example, the successor of the first OID is wanted, and the second is the best item so far.
// The answer lies between them, so its fifth and sixth sub-identifiers are 9.4 to 9.7. The third is
// another item. It is passed over.
//
//   1.3.6.1.9.4    9.4, the low end
//   1.3.6.1.9.7    9.7, the high end
//   1.3.6.1.8.5    8.5, outside
struct pair_window {
  uint64_t position;
  uint64_t low;
  uint64_t high;
};

constexpr uint64_t last_pair = SNMP_MAX_SUBIDS - 2;

// The two sub-identifiers as a number that has their order. The second may lie beyond the count.
uint64_t pair_at(const snmp_oid* oid, uint64_t position) {
  uint64_t pair;
  memcpy(&pair, &oid->subid[position], sizeof pair);
  return std::endian::native == std::endian::little ? std::rotl(pair, 32) : pair;
}

// The lowest pair of an OID that begins with this one.
uint64_t lowest_pair(const snmp_oid* oid, uint64_t position) {
  const uint32_t first = position < oid->count ? oid->subid[position] : 0;
  const uint32_t second = position + 1 < oid->count ? oid->subid[position + 1] : 0;
  return uint64_t{first} << 32 | second;
}

// The window of the items between an OID and the best item so far: they begin with all that these
// two have in common, and their next sub-identifier lies between theirs. Nothing is known of a pair
// behind that, so the position is `difference`, the first one of the two, at most.
pair_window window_at(uint64_t position, const snmp_oid* oid, const snmp_oid* best,
                      uint64_t difference) {
  position = std::min({position, difference, last_pair});
  const uint64_t high = pair_at(best, position);
  return {position, lowest_pair(oid, position), position == difference ? high | UINT32_MAX : high};
}

// The first item from `item` on whose pair lies in the window, or end.
const snmp_item* first_within(const pair_window& window, const snmp_item* item,
                              const snmp_item* end) {
  const uint64_t range = window.high - window.low;
  return std::find_if(item, end, [window, range](const snmp_item& candidate) {
    return pair_at(&candidate.oid, window.position) - window.low <= range;
  });
}

}  // namespace

int32_t find_next_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                            const snmp_item** found) {
  // No item behind the last one that follows the OID can be the answer, so the search ends there.
  // It is also the first best. In a table in OID order it is the last item, unless none follows.
  const snmp_item* end = items + item_count;
  uint64_t difference = 0;  // the first one of the OID and best
  for (; end != items; end--) {
    difference = first_difference(oid, &end[-1].oid);
    if (precedes(oid, &end[-1].oid, difference)) break;
  }
  if (end == items) return store(nullptr, found);
  const snmp_item* best = end - 1;
  pair_window window = window_at(difference, oid, &best->oid, difference);
  for (const snmp_item* item = items;; item++) {
    item = first_within(window, item, end);
    if (item == end) return store(best, found);
    // An item that differs from best earlier than the OID does is not between them. An equal item
    // takes the place of best, and best takes it back at its own turn.
    const uint64_t from_best = first_difference(&best->oid, &item->oid);
    if (from_best >= difference && !precedes(&best->oid, &item->oid, from_best)) {
      const uint64_t from_oid = first_difference(oid, &item->oid, difference);
      if (precedes(oid, &item->oid, from_oid)) {
        best = item;
        difference = from_oid;
      }
    }
    window = window_at(from_best, oid, &best->oid, difference);
  }
}
