// The stand-in host: ownership of texts, the log's level, the meters' texts. The probe has the rest of its contract.

#include <gtest/gtest.h>

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/meter_engine.h"
#include "host/meters.h"

using namespace torvasin_engine;
using namespace torvasin_host;

TEST(host_memory, texts_follow_their_record) {
  const auto texts = [] { return get_memory_stats().live_texts; };
  const auto resize = [](void* block, std::size_t records) {
    return static_cast<torvasin_value*>(torvasin_realloc(block, records * sizeof(torvasin_value)));
  };
  torvasin_value* records = resize(nullptr, 3);
  for (int at = 0; at < 3; ++at) torvasin_valueInitS(&records[at], "a text");
  records = resize(records, 100'000);
  torvasin_valueInitS(&records[0], records[0].payload.text + 2);
  EXPECT_STREQ(records[0].payload.text, "text");
  records = resize(records, 2);
  EXPECT_EQ(texts(), 2U) << "cut off";
  torvasin_valueInitFloat(&records[1], 1);
  EXPECT_EQ(texts(), 1U) << "replaced";
  torvasin_free(records);
  EXPECT_EQ(texts(), 0U) << "freed";
  EXPECT_EQ(get_memory_stats().live_blocks, 0U);
}

TEST(host_log, drops_by_level_before_it_formats_and_survives_its_sink) {
  std::string seen;
  const auto keep = [](const log_record& record, void* user) {
    *static_cast<std::string*>(user) = record.text;
    throw std::bad_alloc();
  };
  set_log_sink(keep, &seen);
  torvasin_log(TORVASIN_LOG_TRACE, "test", __LINE__, 1, "%s", reinterpret_cast<const char*>(1));
  torvasin_log(TORVASIN_LOG_WARNING, "test", __LINE__, 1, "%s", std::string(9000, 'x').c_str());
  EXPECT_EQ(seen, std::string(4092, 'x') + "...");
  meter_engine().start(1, 1, [](int, torvasin_key_value_list&) { throw std::runtime_error("no meters"); });
  EXPECT_EQ(seen, "meters cannot be read: no meters");
  set_log_sink(nullptr, nullptr);
}

std::map<std::string, std::string> files = {
    {"/proc/stat", "cpu  100 20 30 460 50 5 6 9 40 0\ncpu0 1 2 3 4 5 6 7 8 9 10\n"},
    {"/proc/meminfo", "MemTotal: 8000 kB\nMemFree: 10 kB\nMemAvailable: 5000 kB\nSwapTotal: 90 kB\nSwapFree: 30 kB\n"},
    {"/proc/net/dev",
     "Inter-| Receive | Transmit\n face |bytes packets\n    lo: 70 1 0 0 0 0 0 0 90 1 0 0\n"
     "  eth0:4294967290 2 0 0 0 0 0 0 500 3 0 0\n wlan0: 16 4 0 0 0 0 0 0 50 5 0 0\n"},
    {"/proc/loadavg", "0.25 1.5 2.75 1/100 7\n"},
    {"/proc/uptime", "86400.52 1.00\n"}};

std::string sampled(meter_state& state) {
  torvasin_key_value_list list;
  for (const int speed : {TORVASIN_FAST, TORVASIN_SLOW}) sample_meters(speed, state, list);
  std::string all;
  for (const char* name : {"cpu.busy_percent", "memory.available_change_kib", "memory.available_kib",
                           "memory.total_kib", "swap.free_kib", "network.rx_octets", "network.tx_octets",
                           "system.load1", "system.load5", "system.load15", "system.uptime_seconds"}) {
    const torvasin_value* value = list.find(name);
    all += value == nullptr                ? "- "
           : value->type == TORVASIN_FLOAT ? testing::PrintToString(value->payload.float32) + ' '
                                           : std::to_string(value->payload.int32) + ' ';
  }
  return all;
}

TEST(host_meters, are_read_from_texts) {
  meter_state state;
  state.content = [](const char* path) { return files[path]; };
  EXPECT_EQ(sampled(state), "25 0 5000 8000 30 10 550 0.25 1.5 2.75 86400 ");
  files["/proc/stat"] = "cpu 170 20 30 485 55 5 6 9 99 0\n";
  files["/proc/meminfo"] = "MemAvailable: 4000 kB\n";
  EXPECT_EQ(sampled(state), "70 -1000 4000 - - 10 550 0.25 1.5 2.75 86400 ");
  files.clear();
  EXPECT_EQ(sampled(state), "- - - - - - - - - - - ");
}
