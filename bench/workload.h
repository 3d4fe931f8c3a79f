// The requests of the benchmarks and the load generator, and the test table that answers them.

#ifndef TORVASIN_BENCH_WORKLOAD_H
#define TORVASIN_BENCH_WORKLOAD_H

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "client.h"

namespace torvasin_bench {

// The OIDs of the test table, in ascending order: columns of 100 rows, both counted from 1.
inline std::vector<object_id> table_oids(std::uint32_t count) {
  std::vector<object_id> oids;
  for (std::uint32_t i = 0; i < count; i++) {
    oids.push_back({1, 3, 6, 1, 4, 1, 32473, 1, 2, i / 100 + 1, i % 100 + 1, 0});
  }
  return oids;
}

// The test table as a configuration: in turn a uint, an int, a uint with a formula and a string.
inline std::string table_ini(std::uint32_t count, bool shuffled = false) {
  static constexpr const char* kinds[] = {
      "type = uint:1234567\nmeter = network.rx_octets\n",
      "type = int:-12345\nmeter = system.uptime_seconds\n",
      "type = uint:1\nmeter = system.load1\ncomputeformula = value*8/100+1\n",
      "type = string:2001-02-03T04:05:06\nmeter = system.local_time\n"};
  std::vector<std::string> sections;
  for (const object_id& oid : table_oids(count)) {
    const std::size_t i = sections.size();
    sections.push_back("[ITEM_" + std::to_string(i) + "]\noid = " + dotted(oid) +
                       "\nmetertype = fast\n" + kinds[i % std::size(kinds)]);
  }
  if (shuffled) std::ranges::shuffle(sections, std::mt19937(1));
  return std::accumulate(sections.begin(), sections.end(), std::string());
}

enum class request_kind {
  get1,    // GET of one OID
  get20,   // GET of 20 OIDs
  next1,   // GETNEXT of one OID
  bulk20,  // GETBULK of one OID, 20 repetitions
  first20  // GETNEXT of 20 OIDs, all of them 1.3, where a walk begins
};
constexpr std::size_t many = 20;

constexpr std::uint8_t pdu_tag(request_kind kind) {
  if (kind == request_kind::bulk20) return 0xA5;
  const bool next = kind == request_kind::next1 || kind == request_kind::first20;
  return next ? 0xA1 : 0xA0;
}
constexpr std::uint8_t response_tag = 0xA2;

// The request-id in generated requests, four octets, which the sender replaces.
constexpr std::uint8_t placeholder_id[] = {0x80, 0, 0, 0};

// Generates requests of a kind, to send in turn. They ask for OIDs at even distances in `oids`,
// which must be ascending and not empty. next1 and bulk20 ask only for OIDs that 1 or 20 others
// follow, or for the first OID if there are not that many.
inline std::vector<octets> make_requests(request_kind kind, const std::vector<object_id>& oids) {
  request_parts parts = {
      .pdu_tag = pdu_tag(kind), .id = "02 04 " + to_hex(placeholder_id), .varbinds = ""};
  if (kind == request_kind::bulk20) parts.third = to_hex(tlv(0x02, {many}));
  const std::size_t follow = kind == request_kind::bulk20 ? many : kind == request_kind::next1;
  const std::size_t last = oids.size() - 1 - std::min(oids.size() - 1, follow);
  std::vector<octets> requests;
  std::string all;
  for (std::size_t i = 0; i < many; i++) {
    parts.varbinds =
        null_varbind(kind == request_kind::first20 ? object_id{1, 3} : oids[i * last / (many - 1)]);
    requests.push_back(build(parts));
    all += parts.varbinds;
  }
  if (kind != request_kind::get20 && kind != request_kind::first20) return requests;
  parts.varbinds = all;
  return {build(parts)};
}

}  // namespace torvasin_bench

#endif  // TORVASIN_BENCH_WORKLOAD_H
