// The stand-in host: ownership of texts, removal of callbacks, the log's level, list look-ups.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "host/log.h"
#include "host/memory.h"
#include "host/meter_engine.h"

using namespace torvasin_host;

TEST(host_memory, texts_follow_their_record) {
  const memory_stats before = get_memory_stats();
  const auto texts = [&] { return get_memory_stats().live_texts - before.live_texts; };
  const auto resize = [](void* block, std::size_t records) {
    return static_cast<torvasin_value*>(torvasin_realloc(block, records * sizeof(torvasin_value)));
  };
  torvasin_value* records = resize(nullptr, 3);  // never set: holds the pattern
  for (int at = 0; at < 3; ++at) torvasin_valueInitS(&records[at], "a text");
  records = resize(records, 100);
  torvasin_valueInitS(&records[0], records[0].payload.text + 2);
  torvasin_valueInitTakeS(&records[1], const_cast<char*>(records[1].payload.text), 1);
  EXPECT_STREQ(records[0].payload.text, "text");
  EXPECT_STREQ(records[1].payload.text, "a text");
  records[50] = records[2];  // a stale copy: the text is not its own
  torvasin_valueInitUInt32(&records[50], 1);
  EXPECT_STREQ(records[2].payload.text, "a text");
  records = resize(records, 2);
  EXPECT_EQ(texts(), 2U) << "cut off";
  auto* taken = static_cast<char*>(torvasin_malloc(1));
  *taken = '\0';
  torvasin_valueInitTakeS(&records[0], taken, 1);
  torvasin_valueInitFloat(&records[1], 1);
  EXPECT_EQ(texts(), 1U) << "replaced";
  torvasin_free(records);
  EXPECT_EQ(texts(), 0U) << "freed";
  EXPECT_EQ(get_memory_stats().live_blocks, before.live_blocks);
  EXPECT_EQ(get_memory_stats().allocation_calls, before.allocation_calls + 4);
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
  const auto come_and_go = [&] {
    for (int round = 0; round < 20; ++round) {
      std::atomic<int> step{0};
      void* handle = engine.add_callback(TORVASIN_FAST, hold_on, &step);
      while (round % 2 == 0 && step == 0) std::this_thread::yield();
      engine.remove_callback(handle);
      EXPECT_NE(step, 1) << "removed during a call";
      engine.remove_callback(handle);  // known no more
    }
  };
  std::thread other(come_and_go);
  come_and_go();
  other.join();
  EXPECT_EQ(engine.registrations(), 0U);
}

TEST(host_log, drops_by_level_before_it_formats) {
  std::string seen;
  const auto keep = [](const log_record& record, void* user) { *static_cast<std::string*>(user) = record.text; };
  set_log_sink(keep, &seen);
  torvasin_log(TORVASIN_LOG_TRACE, "test", __LINE__, 1, "%s", reinterpret_cast<const char*>(1));
  EXPECT_EQ(seen, "");
  torvasin_log(TORVASIN_LOG_WARNING, "test", __LINE__, 1, "%s", std::string(9000, 'x').c_str());
  EXPECT_EQ(seen, std::string(4092, 'x') + "...");
  set_log_sink(nullptr, nullptr);
}

TEST(host_list, looks_up_by_tag) {
  torvasin_key_value_list list;
  list.set("text", 1);
  list.set("text", "replaced");
  list.set("signed", -2);
  const char* text = nullptr;
  std::uint32_t number = 0;
  EXPECT_EQ(torvasin_keyValueListGetS(&list, "text", &text), 0);
  EXPECT_STREQ(text, "replaced");
  EXPECT_EQ(torvasin_keyValueListGetIU(&list, "signed", &number), 0);
  EXPECT_EQ(number, 0xFFFFFFFEU);
  for (const char* key : {"signed", "tex"}) EXPECT_NE(torvasin_keyValueListGetS(&list, key, &text), 0) << key;
  for (const char* key : {"text", "sign"}) EXPECT_NE(torvasin_keyValueListGetIU(&list, key, &number), 0) << key;
}
