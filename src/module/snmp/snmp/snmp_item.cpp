#include "snmp_item.h"

#include <string.h>

#include <algorithm>
#include <bit>

namespace {

// The first position where the two OIDs differ or one of them ends. The caller knows that they are
// equal before the position `from`. Most OIDs share a long prefix, which is compared in steps of a
// fixed size, because each step then compiles to a few instructions.
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
// A lookup scans the whole table, and comparing every OID in full would be slow. OIDs of a table
// usually share a long prefix and differ in few positions. So a lookup reads only one or two
// sub-identifiers of each item, at the position where the last OID that it compared in full
// differed. It compares an OID in full only if those sub-identifiers allow it to be the answer.

int32_t find_snmp_item(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                       const snmp_item** found) {
  if (item_count == 0) return store(nullptr, found);
  const snmp_item* end = items + item_count;
  // Most OIDs end with a 0. The sub-identifier before it distinguishes more of them.
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

// The range, low to high inclusive, that contains the two sub-identifiers of the answer at a
// position. Pairs of sub-identifiers compare as OIDs do.
//
// For example, a GETNEXT asks for the first OID below, and the second one is the best item so far.
// The answer is between them, so its fifth and sixth sub-identifiers are in the range 9.4 to 9.7.
// The third OID belongs to another item, which the lookup skips.
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

// The two sub-identifiers as a number that compares as they do. The second may be beyond the count.
uint64_t pair_at(const snmp_oid* oid, uint64_t position) {
  uint64_t pair;
  memcpy(&pair, &oid->subid[position], sizeof pair);
  return std::endian::native == std::endian::little ? std::rotl(pair, 32) : pair;
}

// The lowest pair that an OID beginning with this one can have.
uint64_t lowest_pair(const snmp_oid* oid, uint64_t position) {
  const uint32_t first = position < oid->count ? oid->subid[position] : 0;
  const uint32_t second = position + 1 < oid->count ? oid->subid[position + 1] : 0;
  return uint64_t{first} << 32 | second;
}

// The window of the items between an OID and the best item so far. Such items begin with all
// sub-identifiers that the two share, and their next sub-identifier is between those of the two.
// Nothing is known of later ones, so the position is at most `difference`, where the two differ
// first.
pair_window window_at(uint64_t position, const snmp_oid* oid, const snmp_oid* best,
                      uint64_t difference) {
  position = std::min({position, difference, last_pair});
  const uint64_t high = pair_at(best, position);
  return {position, lowest_pair(oid, position), position == difference ? high | UINT32_MAX : high};
}

// The first item from `item` on whose pair is in the window, or end.
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
  // Find the last item of the table whose OID follows the requested one. The search below can end
  // there, and begins with this item as the best. In a table in OID order it is the last item of
  // all, unless no item follows.
  const snmp_item* end = items + item_count;
  uint64_t difference = 0;  // where the OID and best differ first
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
    // An item that differs from best at an earlier position than the OID does is not between them.
    // An equal item replaces best. The scan ends with the item that was the first best, so the last
    // of several equal items wins.
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
