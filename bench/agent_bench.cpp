// The agent in process, without sockets. Times are per request unless the name says otherwise;
// "item" is the time per item that a linear search looks at or a refresh visits.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "host/key_value_list.h"
#include "host/memory.h"
#include "module/snmp/mainsnmp.h"
#include "module/snmp/snmp/snmp.h"
#include "module/snmp/snmp/snmp_handler.h"
#include "support.h"
#include "workload.h"

namespace {

using namespace torvasin_bench;

// Which items a table holds and in which order.
enum class layout {
  ascending,      // the test table, in the order of the OIDs
  shuffled,       // the same in random order
  constant_tail,  // OIDs that differ in the tenth arc alone and go on with .1.0, ascending
};

object_id oid_in(layout order, std::uint32_t index) {
  if (order == layout::constant_tail) return {1, 3, 6, 1, 4, 1, 32473, 1, 2, index + 1, 1, 0};
  return table_oid(index);
}

// The module's tables as a configuration leaves them: in turn a uint, an int, a uint with a formula
// and a string.
class table {
 public:
  table(std::uint32_t count, layout order);
  ~table();
  table(const table&) = delete;
  table& operator=(const table&) = delete;

  std::uint32_t count() const { return module_.item_count; }
  const snmp_item* items() const { return module_.items; }
  snmp_module* module() { return &module_; }
  const std::vector<object_id>& oids() const { return oids_; }  // ascending

 private:
  void set_up(snmp_meter_binding& binding, snmp_item& item, std::uint32_t index);

  std::vector<object_id> oids_;
  std::vector<snmp_meter_binding> bindings_;
  std::vector<snmp_item> items_;
  snmp_module module_ = {};
};

table::table(std::uint32_t count, layout order) : bindings_(count), items_(count) {
  for (std::uint32_t i = 0; i < count; i++) oids_.push_back(oid_in(order, i));
  std::vector<object_id> placed = oids_;
  if (order == layout::shuffled) std::shuffle(placed.begin(), placed.end(), std::mt19937(1));
  module_.formula_vars = {"value", &module_.formula_value, TE_VARIABLE, nullptr};
  pthread_mutex_init(&module_.lock, nullptr);
  for (std::uint32_t i = 0; i < count; i++) {
    items_[i].oid = oid_of(placed[i]);
    set_up(bindings_[i], items_[i], i);
  }
  module_.bindings = bindings_.data();
  module_.items = items_.data();
  module_.item_count = count;
}

table::~table() {
  for (snmp_meter_binding& binding : bindings_) te_free(binding.formula);
  torvasin_host::release_all_texts();
  pthread_mutex_destroy(&module_.lock);
}

void table::set_up(snmp_meter_binding& binding, snmp_item& item, std::uint32_t index) {
  static constexpr const char* meters[] = {"memory.available_kib", "memory.available_change_kib",
                                           "system.load1", "system.local_time"};
  const std::uint32_t kind = index % 4;
  binding.module = &module_;
  strcpy(binding.meter, meters[kind]);
  item.writer_ctx = &binding;
  if (kind == 1) {
    binding.type = ITEM_INT;
    item.writer = encode_item_int;
    torvasin_valueInitInt32(&binding.value, -12345);
  } else if (kind == 3) {
    binding.type = ITEM_STRING;
    item.writer = encode_item_string;
    torvasin_valueInitS(&binding.value, "2001-02-03T04:05:06");
  } else {
    binding.type = ITEM_UINT;
    item.writer = encode_item_uint;
    torvasin_valueInitUInt32(&binding.value, 1'234'567);
  }
  if (kind == 2) binding.formula = te_compile("value*8/100+1", &module_.formula_vars, 1, nullptr);
}

// The counter "item", of `looked_at` items in each iteration.
void count_items(benchmark::State& state, double looked_at) {
  state.counters["item"] = benchmark::Counter(
      looked_at, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void table_sizes(benchmark::internal::Benchmark* benchmark) {
  for (const std::int64_t count : {10, 100, 1'000, 10'000}) benchmark->Arg(count);
}

std::uint32_t table_size(const benchmark::State& state) {
  return static_cast<std::uint32_t>(state.range(0));
}

// ---- Pipeline ----------------------------------------------------------------------------------

std::int32_t keep(void* context, const std::uint8_t* message, std::size_t length) {
  *static_cast<view*>(context) = {message, length};
  return 0;
}

// Items that one request makes the agent look at, on the average over the requests of a kind.
double looked_at(request_kind kind, std::uint32_t count) {
  const double half = (count + 1) / 2.0;
  switch (kind) {
    case request_kind::get1:
      return half;
    case request_kind::get20:
      return half * many;
    case request_kind::next1:
      return count;
    case request_kind::bulk20:
      break;
  }
  return static_cast<double>(count) * std::min<double>(count, many);
}

void pipeline(benchmark::State& state, request_kind kind, layout order) {
  table served(table_size(state), order);
  const std::vector<octets> requests = make_requests(kind, served.oids());
  std::uint8_t packet[SNMP_MAX_DATAGRAM];  // for the request and the response, as the poller does
  view sent;
  std::size_t next = 0;
  for (auto _ : state) {
    const octets& request = requests[next];
    next = next + 1 < requests.size() ? next + 1 : 0;
    std::memcpy(packet, request.data(), request.size());
    minimal_snmp(served.items(), served.count(), packet, request.size(), packet, sizeof packet,
                 &sent, keep);
    benchmark::DoNotOptimize(sent);
  }
  if (!describe(sent).starts_with("0 0:")) state.SkipWithError("no answer");
  count_items(state, looked_at(kind, served.count()));
}

BENCHMARK_CAPTURE(pipeline, get1, request_kind::get1, layout::ascending)->Apply(table_sizes);
BENCHMARK_CAPTURE(pipeline, get20, request_kind::get20, layout::ascending)->Apply(table_sizes);
BENCHMARK_CAPTURE(pipeline, next1, request_kind::next1, layout::ascending)->Apply(table_sizes);
BENCHMARK_CAPTURE(pipeline, bulk20, request_kind::bulk20, layout::ascending)->Apply(table_sizes);
BENCHMARK_CAPTURE(pipeline, bulk20_shuffled, request_kind::bulk20, layout::shuffled)
    ->Apply(table_sizes);

// ---- Codec -------------------------------------------------------------------------------------

constexpr std::uint32_t codec_items = 100;

void decode(benchmark::State& state, request_kind kind) {
  const table served(codec_items, layout::ascending);
  const octets message = make_requests(kind, served.oids()).back();
  snmp_request request;
  for (auto _ : state) {
    const std::int32_t status = decode_snmp_request(&request, message.data(), message.size());
    if (status != 0) state.SkipWithError("not decoded");
    benchmark::DoNotOptimize(request);
  }
}

void encode(benchmark::State& state, request_kind kind) {
  const table served(codec_items, layout::ascending);
  const octets message = make_requests(kind, served.oids()).back();
  snmp_request request;
  snmp_response response = {};
  decode_snmp_request(&request, message.data(), message.size());
  minimal_snmp_handle_get(served.items(), served.count(), &request, &response);
  std::uint8_t packet[SNMP_MAX_DATAGRAM];
  for (auto _ : state) {
    std::uint8_t* data = nullptr;
    std::size_t length = 0;
    encode_snmp_response(&request, &response, packet, sizeof packet, &data, &length);
    if (data == nullptr) state.SkipWithError("not encoded");
    benchmark::DoNotOptimize(packet);
  }
}

BENCHMARK_CAPTURE(decode, get1, request_kind::get1);
BENCHMARK_CAPTURE(decode, get20, request_kind::get20);
BENCHMARK_CAPTURE(encode, get1, request_kind::get1);
BENCHMARK_CAPTURE(encode, get20, request_kind::get20);

// ---- Lookups -----------------------------------------------------------------------------------

// Of the last item, so that it looks at all of them.
void find_exact(benchmark::State& state, layout order) {
  const table served(table_size(state), order);
  const snmp_item* last = served.items() + served.count() - 1;
  const snmp_oid wanted = last->oid;
  const snmp_item* found = nullptr;
  for (auto _ : state) {
    benchmark::DoNotOptimize(find_snmp_item(served.items(), served.count(), &wanted, &found));
  }
  if (found != last) state.SkipWithError("not found");
  count_items(state, served.count());
}

// Of OIDs from the first to the last of the table, for which there is no successor.
void find_successor(benchmark::State& state, layout order) {
  const table served(table_size(state), order);
  std::vector<snmp_oid> asked;
  for (const std::size_t i : spread(17, served.oids().size() - 1)) {
    asked.push_back(oid_of(served.oids()[i]));
  }
  const snmp_item* found = nullptr;
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        find_next_snmp_item(served.items(), served.count(), &asked[next], &found));
    next = next + 1 < asked.size() ? next + 1 : 0;
  }
  find_next_snmp_item(served.items(), served.count(), &asked[0], &found);
  const snmp_oid second = oid_of(served.oids()[1]);
  if (found == nullptr || compare_oid(&found->oid, &second) != 0) state.SkipWithError("not found");
  count_items(state, served.count());
}

BENCHMARK_CAPTURE(find_exact, ascending, layout::ascending)->Apply(table_sizes);
BENCHMARK_CAPTURE(find_exact, constant_tail, layout::constant_tail)->Apply(table_sizes);
BENCHMARK_CAPTURE(find_successor, ascending, layout::ascending)->Apply(table_sizes);
BENCHMARK_CAPTURE(find_successor, shuffled, layout::shuffled)->Apply(table_sizes);
BENCHMARK_CAPTURE(find_successor, constant_tail, layout::constant_tail)->Apply(table_sizes);

// ---- Refresh and formula -----------------------------------------------------------------------

void refresh(benchmark::State& state) {
  table served(table_size(state), layout::ascending);
  torvasin_key_value_list list;
  for (const char* key : {"network.rx_octets", "network.tx_octets", "system.processes",
                          "system.uptime_seconds", "memory.available_kib"}) {
    list.set(key, 4'000'000'000u);
  }
  list.set("memory.available_change_kib", -5);
  list.set("system.load1", 0.25f);
  list.set("system.load5", 0.5f);
  list.set("system.local_time", "2001-02-03T04:05:07");
  for (auto _ : state) refresh_items(served.module(), &list, TORVASIN_SLOW);
  if (served.module()->bindings[0].value.payload.uint32 != 4'000'000'000u) {
    state.SkipWithError("not refreshed");
  }
  count_items(state, served.count());
}

void formula(benchmark::State& state) {
  double value = 1000;
  const te_variable variable = {"value", &value, TE_VARIABLE, nullptr};
  te_expr* compiled = te_compile("value*8/100+1", &variable, 1, nullptr);
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(te_eval(compiled));
  }
  te_free(compiled);
}

BENCHMARK(refresh)->Apply(table_sizes);
BENCHMARK(formula);

}  // namespace
