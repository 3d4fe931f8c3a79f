// SNMPv2c messages as a client sees them: requests built, replies read. Works without the agent's
// codec, so that neither can hide a fault of the other, and allocates freely.

#ifndef TORVASIN_BENCH_MESSAGE_H
#define TORVASIN_BENCH_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace torvasin_bench {

using octets = std::vector<std::uint8_t>;
using object_id = std::vector<std::uint32_t>;

constexpr std::size_t many = 20;  // OIDs of a get20, repetitions of a bulk20

enum class request_kind {
  get1,   // GET of one OID
  get20,  // GET of 20 OIDs
  next1,  // GETNEXT of one OID
  bulk20  // GETBULK of one OID, 20 repetitions
};

// The OID of an item of a test table: a prefix of nine arcs, the column and the row, each counted
// from 1, and 0. A column has 100 rows, so that OIDs ascend with the index.
object_id table_oid(std::uint32_t index);

// `count` indices from 0 to last, both among them, in even steps.
std::vector<std::size_t> spread(std::size_t count, std::size_t last);

// Requests of a kind with the community "public", to be asked in turn. What they ask for is spread
// over the OIDs, which are those of a table in ascending order, at least one: a get1 and a next1
// ask for the first, the last and those between; a get20 does so in one message; a bulk20 starts
// where 20 more follow, or at the first OID when there are not that many.
std::vector<octets> make_requests(request_kind kind, const std::vector<object_id>& oids);

// Where the four octets of a message's request-id are; none when the message is no SNMPv1 or
// SNMPv2c message or its request-id is shorter or longer. make_requests gives it four.
std::optional<std::size_t> find_request_id(std::span<const std::uint8_t> message);

void set_request_id(std::span<std::uint8_t> message, std::size_t at, std::uint32_t id);

struct reply {
  std::uint32_t id = 0;
  std::uint32_t error_status = 0;
  std::size_t varbinds = 0;
  std::size_t exceptions = 0;  // varbinds among them without a value
};

// Reads a Response; none when it is anything else.
std::optional<reply> read_reply(std::span<const std::uint8_t> message);

}  // namespace torvasin_bench

#endif  // TORVASIN_BENCH_MESSAGE_H
