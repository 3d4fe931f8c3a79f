// What the benchmarks and the load generator ask for.

#ifndef TORVASIN_BENCH_WORKLOAD_H
#define TORVASIN_BENCH_WORKLOAD_H

#include <algorithm>
#include <string>
#include <vector>

#include "client.h"

namespace torvasin_bench {

constexpr std::size_t many = 20;  // OIDs of a get20, repetitions of a bulk20

enum class request_kind {
  get1,   // GET of one OID
  get20,  // GET of 20 OIDs
  next1,  // GETNEXT of one OID
  bulk20  // GETBULK of one OID, 20 repetitions
};

constexpr std::uint8_t pdu_tag(request_kind kind) {
  if (kind == request_kind::bulk20) return 0xA5;
  return kind == request_kind::next1 ? 0xA1 : 0xA0;
}

// The request-id of the requests made, in four octets, for a sender to replace.
constexpr std::uint8_t placeholder_id[] = {0x80, 0, 0, 0};

// The OID of an item of a test table, which ascends with the index: columns of 100 rows, both
// counted from 1.
inline object_id table_oid(std::uint32_t index) {
  return {1, 3, 6, 1, 4, 1, 32473, 1, 2, index / 100 + 1, index % 100 + 1, 0};
}

// `count` indices from 0 to last, both among them, in even steps.
inline std::vector<std::size_t> spread(std::size_t count, std::size_t last) {
  std::vector<std::size_t> indices(count);
  for (std::size_t i = 0; i < count; i++) indices[i] = i * last / (count - 1);
  return indices;
}

// Requests of a kind, to be asked in turn. What they ask for is spread over the OIDs, which are
// those of a table in ascending order, at least one: a get20 does so in one message; a next1 and a
// bulk20 start where 1 or 20 more follow, or at the first OID when there are not that many.
inline std::vector<octets> make_requests(request_kind kind, const std::vector<object_id>& oids) {
  request_parts parts = {
      .pdu_tag = pdu_tag(kind), .id = "02 04 " + to_hex(placeholder_id), .varbinds = ""};
  if (kind == request_kind::bulk20) parts.third = to_hex(tlv(0x02, {many}));
  std::size_t last = oids.size() - 1;
  if (kind == request_kind::get20) {
    for (const std::size_t i : spread(many, last)) parts.varbinds += null_varbind(oids[i]);
    return {build(parts)};
  }
  if (kind == request_kind::next1) last -= std::min<std::size_t>(last, 1);
  if (kind == request_kind::bulk20) last -= std::min(last, many);
  std::vector<octets> requests;
  for (const std::size_t i : spread(16, last)) {
    parts.varbinds = null_varbind(oids[i]);
    requests.push_back(build(parts));
  }
  return requests;
}

}  // namespace torvasin_bench

#endif  // TORVASIN_BENCH_WORKLOAD_H
