// The stand-in host: ownership of texts, removal of callbacks, the log's level.

#include <gtest/gtest.h>

#include <atomic>

#include "host/log.h"
#include "host/memory.h"
#include "host/meter_engine.h"

using namespace torvasin_host;

TEST(host_memory, texts_follow_their_record) {
  const auto texts = [] { return get_memory_stats().live_texts; };
  const auto resize = [](void* block, std::size_t records) {
    return static_cast<torvasin_value*>(torvasin_realloc(block, records * sizeof(torvasin_value)));
  };
  torvasin_value* records = resize(nullptr, 3);  // never set: holds the pattern
  for (int at = 0; at < 3; ++at) torvasin_valueInitS(&records[at], "a text");
  records = resize(records, 100);
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

int hold_on(const torvasin_key_value_list*, void* user) {
  auto& step = *static_cast<std::atomic<int>*>(user);
  step = 1;
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return step = 2;
}

TEST(host_engine, removal_waits_for_the_call_in_progress) {
  meter_engine engine;
  engine.start(1, 1, [](int, torvasin_key_value_list&) {});
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> step{0};
    void* handle = engine.add_callback(TORVASIN_FAST, hold_on, &step);
    while (round % 2 == 0 && step == 0) std::this_thread::yield();
    engine.remove_callback(handle);
    EXPECT_NE(step, 1) << "removed during a call";
  }
}

TEST(host_log, drops_by_level_before_it_formats) {
  const auto keep = [](const log_record& record, void* user) { *static_cast<std::string*>(user) = record.text; };
  std::string seen;
  set_log_sink(keep, &seen);
  torvasin_log(TORVASIN_LOG_TRACE, "test", __LINE__, 1, "%s", reinterpret_cast<const char*>(1));
  torvasin_log(TORVASIN_LOG_WARNING, "test", __LINE__, 1, "%s", std::string(9000, 'x').c_str());
  EXPECT_EQ(seen, std::string(4092, 'x') + "...");
  set_log_sink(nullptr, nullptr);
}
