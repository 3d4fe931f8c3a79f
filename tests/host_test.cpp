// The engine's texts, its log and the host's meters. The probe checks the rest of the contract.

#include <gtest/gtest.h>

#include "engine/log.h"
#include "engine/log_limit.h"
#include "engine/memory.h"
#include "engine/meter_engine.h"
#include "host/meters.h"
#include "support.h"

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

TEST(host_log, limits_what_a_place_writes) {
  const struct {
    std::string title, lines, expected;  // a line is one letter; '+' lets 5 seconds pass
  } rows[] = {
      {"a repeated line", "aabba", "aba, 2 x a"},
      {"more than 20 lines", "abcdefghijklmnopqrst+uv", "abcdefghijklmnopqrst, 2 x t"},
      {"again after 10 seconds", "a+a+a", "a, 1 x aa"},
  };
  for (const auto& row : rows) {
    log_limit limit;
    log_limit::clock::time_point now{};
    std::string written;
    const auto report = [&](const log_record& last, unsigned left_out) {
      written += ", " + std::to_string(left_out) + " x " + std::string(last.text);
    };
    for (const char& letter : row.lines + "++") {
      now += std::chrono::seconds(letter == '+' ? 5 : 0);
      limit.write_counts(report, now);
      if (letter != '+' && limit.admit({TORVASIN_LOG_ERROR, "test", 1, {&letter, 1}}, now)) written += letter;
    }
    EXPECT_EQ(written, row.expected) << row.title;
  }
}

std::map<std::string, std::string> files = {
    {"/proc/stat", "cpu  100 20 30 460 50 5 6 9 40 0\ncpu0 1 2 3 4 5 6 7 8 9 10\n"},
    {"/proc/meminfo",
     "MemTotal: 5000000000 kB\nMemFree: 10 kB\nMemAvailable: 5000 kB\nSwapTotal: 90 kB\nSwapFree: 30 kB\n"},
    {"/proc/net/dev", "Inter-| Receive | Transmit\n face |bytes packets\n eth0:2048 2 0 0 0 0 0 0 500 3 0 0\n"},
    {"/proc/loadavg", "0.25 1.5 2.75 1/100 7\n"},
    {"/proc/uptime", "86400.52 1.00\n"}};

std::string sampled(meter_state& state, std::initializer_list<const char*> names) {
  torvasin_key_value_list list;
  for (const int speed : {TORVASIN_FAST, TORVASIN_SLOW}) sample_meters(speed, state, list);
  std::string all;
  for (const char* name : names) {
    const torvasin_value* value = list.find(name);
    all += value == nullptr                ? "- "
           : value->type == TORVASIN_FLOAT ? testing::PrintToString(value->payload.float32) + ' '
                                           : std::to_string(value->payload.uint32) + ' ';
  }
  return all;
}

meter_state state_of_texts() {
  meter_state state;
  state.content = [](const char* path) { return files[path]; };
  state.kind_of_link = [](const std::string& name) {
    return name[0] == 'e' ? link_kind::physical : name[0] == 'b' ? link_kind::stacked : link_kind::alone;
  };
  return state;
}

TEST(host_meters, are_read_from_texts) {
  captured_log log;
  meter_state state = state_of_texts();
  const auto all = [&state] {
    return sampled(state,
                   {"cpu.busy_percent", "memory.available_kib", "memory.total_kib", "swap.free_kib", "network.rx_kib",
                    "network.tx_octets", "system.load1", "system.load5", "system.load15", "system.uptime_seconds"});
  };
  EXPECT_EQ(all(), "25 5000 5e+09 30 2 500 0.25 1.5 2.75 86400 ");
  EXPECT_EQ(log.take(), "");
  files["/proc/stat"] = "cpu 170 20 30 485 55 5 6 9 99 0\n";
  files["/proc/meminfo"] = "MemAvailable: 4000 kB\nSwapFree: 0 kB\n";
  EXPECT_EQ(all(), "70 4000 - 0 2 500 0.25 1.5 2.75 86400 ");
  EXPECT_EQ(log.take(), "2 meter memory.total_kib gives no value: its item keeps the last one\n");
  files["/proc/stat"] = "cpu 270 20 30 480 55 5 6 9 99 0\n";  // idle time has fallen
  files["/proc/meminfo"] += "MemTotal: 8000 kB\n";
  EXPECT_EQ(all(), "70 4000 8000 0 2 500 0.25 1.5 2.75 86400 ");
  EXPECT_EQ(log.take(), "2 meter memory.total_kib gives values again\n");
  files.clear();
  EXPECT_EQ(all(), "- - - - - - - - - - ");
}

TEST(host_meters, see_a_change_of_the_time_zone) {
  meter_state state;
  for (const auto& [zone, offset] : {std::pair("XYZ-5:30", "19800 "), std::pair("UTC0", "0 ")}) {
    setenv("TZ", zone, 1);
    EXPECT_EQ(sampled(state, {"system.utc_offset_seconds"}), offset);
  }
}

TEST(host_meters, network_counters_never_fall) {
  meter_state state = state_of_texts();
  const struct {
    const char* title;
    std::vector<std::tuple<const char*, std::uint64_t, std::uint64_t>> links;
    const char* expected;
  } rows[] = {{"what has no device is left out",
               {{"lo", 5, 5}, {"eth0", 9000, 50}, {"br0", 9, 9}, {"vlo", 7, 7}},
               "9000 8 50 "},
              {"grown", {{"eth0", 9500, 60}, {"br0", 99, 99}, {"vlo", 70, 70}}, "9500 9 60 "},
              {"gone, and no device is left", {{"lo", 6, 6}, {"br0", 200, 200}, {"vlo", 75, 80}}, "9505 9 70 "},
              {"unreadable", {}, "- - - "},
              {"back, and lower", {{"eth0", 30, 3}, {"vlo", 90, 90}}, "9505 9 70 "},
              {"made anew", {{"eth0", 10, 1}}, "9505 9 70 "},
              {"wrapped", {{"eth0", 4294967306, 2}}, "9505 4194313 71 "}};
  for (const auto& [title, links, expected] : rows) {
    std::string& text = files["/proc/net/dev"] = "";
    for (const auto& [name, rx, tx] : links) {
      text += std::string("  ") + name + ":" + std::to_string(rx) + " 1 0 0 0 0 0 0 " + std::to_string(tx) + " 1 0 0\n";
    }
    EXPECT_EQ(sampled(state, {"network.rx_octets", "network.rx_kib", "network.tx_octets"}), expected) << title;
  }
}
