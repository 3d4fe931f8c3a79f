// The agent in process, without sockets: times one request; and one lookup in a table or one
// refresh of it, these also as items per second.

#include <benchmark/benchmark.h>
#include <ini.h>

#include "engine/key_value_list.h"
#include "module/snmp/mainsnmp.h"
#include "module/snmp/snmp/snmp.h"
#include "support.h"
#include "workload.h"

namespace {

using namespace torvasin_bench;

constexpr bool ascending = false, shuffled = true;

// The test table as it is after its configuration is read.
struct table {
  table(const benchmark::State& state, bool order)
      : count(static_cast<std::uint32_t>(state.range(0))) {
    torvasin_plugin_context context = {"bench", nullptr, {}, &module};
    init_snmp_module(&module);
    pthread_mutex_init(&module.lock, nullptr);
    ini_parse_string(table_ini(count, order).c_str(), ini_handler_cb, &context);
    link_snmp_items(&module);
  }
  ~table() { release_items(&module); }

  std::uint32_t count;
  snmp_module module;
};

void table_sizes(benchmark::internal::Benchmark* benchmark) {
  for (const std::int64_t count : {10, 100, 1'000, 10'000}) benchmark->Arg(count);
}

std::int32_t keep(void* context, const std::uint8_t* message, std::size_t length) {
  *static_cast<view*>(context) = {message, length};
  return 0;
}

void pipeline(benchmark::State& state, request_kind kind, bool order) {
  const table served(state, order);
  const std::vector<octets> requests = make_requests(kind, table_oids(served.count));
  std::uint8_t packet[SNMP_MAX_DATAGRAM];  // for request and response, as in the poller
  view sent;
  std::size_t next = 0;
  for (auto _ : state) {
    const octets& request = requests[next++ % requests.size()];
    std::ranges::copy(request, packet);
    minimal_snmp(served.module.items, served.count, packet, request.size(), packet, sizeof packet,
                 &sent, keep);
    benchmark::DoNotOptimize(sent);
  }
  if (!describe(sent).starts_with("0 0:")) state.SkipWithError("no answer");
}

using lookup = decltype(find_snmp_item);

// Looks up the last item, or the successor of the first. Both lookups visit all items.
void find(benchmark::State& state, lookup* search, bool order) {
  const table served(state, order);
  const std::vector<object_id> oids = table_oids(served.count);
  const snmp_oid asked = oid_of(search == find_snmp_item ? oids.back() : oids.front());
  const snmp_item* found = nullptr;
  for (auto _ : state) {
    benchmark::DoNotOptimize(search(served.module.items, served.count, &asked, &found));
  }
  if (found == nullptr) state.SkipWithError("not found");
  state.SetItemsProcessed(state.iterations() * served.count);
}

void refresh(benchmark::State& state) {
  table served(state, ascending);
  torvasin_key_value_list list;
  list.set("network.rx_octets", 4'000'000'000u);
  list.set("system.uptime_seconds", -5);
  list.set("system.load1", 0.25f);
  list.set("system.local_time", "2001-02-03T04:05:07");
  for (auto _ : state) refresh_items(&served.module, &list, TORVASIN_FAST);
  if (served.module.bindings[0].value.payload.uint32 != 4'000'000'000u) {
    state.SkipWithError("not refreshed");
  }
  state.SetItemsProcessed(state.iterations() * served.count);
}

#define BENCH(...) BENCHMARK_CAPTURE(__VA_ARGS__)->Apply(table_sizes)
BENCH(pipeline, get1, request_kind::get1, ascending);
BENCH(pipeline, get20, request_kind::get20, ascending);
BENCH(pipeline, next1, request_kind::next1, ascending);
BENCH(pipeline, bulk20, request_kind::bulk20, ascending);
BENCH(pipeline, bulk20_shuffled, request_kind::bulk20, shuffled);
BENCH(pipeline, first20, request_kind::first20, ascending)->Arg(20'000);
BENCH(pipeline, first20_shuffled, request_kind::first20, shuffled)->Arg(20'000);
BENCH(find, exact, find_snmp_item, ascending);
BENCH(find, successor, find_next_snmp_item, ascending);
BENCH(find, successor_shuffled, find_next_snmp_item, shuffled);
BENCHMARK(refresh)->Apply(table_sizes);

}  // namespace
