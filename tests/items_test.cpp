// The configuration line by line, the refresh of values, and what the items then serve.

#include <gtest/gtest.h>

#include <cmath>
#include <variant>

#include "engine/key_value_list.h"
#include "engine/memory.h"
#include "module/snmp/mainsnmp.h"
#include "support.h"

using namespace std::literals;

// A module without socket or threads, as it is while its configuration is read.
struct configuration : testing::Test {
  configuration() {
    init_snmp_module(&module);
    pthread_mutex_init(&module.lock, nullptr);
  }
  ~configuration() override {
    release_items(&module);
    torvasin_engine::release_all_texts();
    EXPECT_EQ(0u, torvasin_engine::get_memory_stats().live_blocks);
  }

  // Applies a line, given as messages show it: section, key and value, separated by ", ".
  void line(const std::string& text) {
    const size_t key = text.find(", ") + 2;
    const size_t value = text.find(", ", key) + 2;
    EXPECT_EQ(1, ini_handler_cb(&context, text.substr(0, key - 2).c_str(), text.substr(key, value - 2 - key).c_str(),
                                text.c_str() + value));
  }

  // What an item serves, written into exactly the room that it asks for; "-1" when the writer fails.
  std::string served(uint32_t i) {
    size_t size = 0;
    EXPECT_EQ(0, module.items[i].writer(nullptr, 0, &size, &module.bindings[i]));
    octets room(size);
    EXPECT_EQ(-1, module.items[i].writer(room.data(), size - 1, nullptr, &module.bindings[i]));
    if (module.items[i].writer(room.data(), size, nullptr, &module.bindings[i]) != 0) return "-1";
    return to_hex(room);
  }

  captured_log log;
  snmp_module module;
  torvasin_plugin_context context = {"test", nullptr, {}, &module};
};

TEST_F(configuration, refused_lines_name_themselves_and_change_nothing) {
  const std::pair<std::string, std::vector<std::string>> rows[] = {
      {" not valid port too big)", {"General, port, 65536", "General, port, -1"}},
      {" not valid port)", {"General, port, x"}},
      {") element not yet managed", {"General, Port, 1"}},
      {") error parsing file", {"General, include, /nowhere/at/all"}},
      {") section not yet managed", {"general, port, 1", "ITEM_, oid, 1.3", "ITEM_x, OID, 1.3"}},
      {") error parsing oid", {"ITEM_x, oid, 1..3"}},
      {") type not yet managed", {"ITEM_x, type, float", "ITEM_x, type, int:", "ITEM_x, type, uint:y"}},
      {", 1) error parsing formula near 6", {"ITEM_x, computeformula, value*"}},
  };
  for (const char* accepted : {"type, int:5", "computeformula, value*2", "oid, 1.3"}) line("ITEM_x, "s + accepted);
  for (const auto& [message, texts] : rows) {
    for (const std::string& text : texts) {
      line(text);
      EXPECT_TRUE(log.has(3, "ini_handler_cb(test, " + text + message)) << log.take() << "has no message of " << text;
    }
  }
  EXPECT_EQ(161, module.port);
  EXPECT_EQ(1u, module.item_count);
  EXPECT_EQ("02 01 05", served(0)) << "a refused formula removes the formula, the value stays";
  EXPECT_EQ(0u, module.items[0].oid.count);
  EXPECT_TRUE(log.has(3, "'' has to be an int") && log.has(3, "'y' has to be an uint"));
}

TEST_F(configuration, accepted_lines) {
  for (const char* text : {"port,  065535x", "ip, 255.255.255.2550"}) line("General, "s + text);
  EXPECT_EQ(65535, module.port);
  EXPECT_STREQ("255.255.255.255", module.ip);
  line("ITEM_x, meter, " + std::string(200, 'm'));
  EXPECT_EQ(std::string(127, 'm'), module.bindings[0].meter);
  for (const char* speed : {"FAST", "fastest"}) {
    line("ITEM_x, metertype, fast");
    line("ITEM_x, metertype, "s + speed);
    EXPECT_EQ(0u, module.bindings[0].fast) << speed;
  }
  EXPECT_EQ("05 00", served(0)) << "without a type";
  for (int i = 0; i < 300; i++) line("General, include, /nowhere");
  log.take();
  for (int i = 0; i < 20; i++) line("General, include, /dev/null");
  EXPECT_EQ("", log.take());
}

TEST_F(configuration, oid_texts) {
  const std::string nineteen = "1.3.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19";
  const std::pair<std::string, std::vector<std::string>> rows[] = {
      {"1", {"1"}},
      {"2.47", {"2.47", ".2.47", "2.47."}},
      {"1.3.4294967295", {"1.3.4294967295", "1.3. +04294967295"}},
      {nineteen, {nineteen}},
      {"", {"", "..1", "2.48", "107374183.0", "1.3.4294967296", "1.3.-1", "1.3.x", "1.3 4", nineteen + ".20"}},
  };
  for (const auto& [expected, texts] : rows) {
    for (const std::string& text : texts) {
      snmp_oid oid = oid_of({9, 9, 9});
      EXPECT_EQ(expected.empty() ? -1 : 0, parse_oid(text.c_str(), &oid)) << text;
      EXPECT_EQ(expected, dotted({oid.subid, oid.count}));
      for (size_t i = oid.count; i < SNMP_MAX_SUBIDS; i++) EXPECT_EQ(0u, oid.subid[i]) << text;
    }
  }
}

TEST_F(configuration, names_and_links) {
  const std::string longest(63, 'n');
  EXPECT_EQ(0, meter_callback_slow(nullptr, &context)) << "without an item";
  line("ITEM_n" + longest + ", oid, 1.3.1");
  EXPECT_EQ("3 ini_handler_cb item name too long: n" + longest + "\n3 ini_handler_cb found item: n" + longest +
                " not found and not creable\n",
            log.take());
  for (const std::string& name : {longest, "ab"s, "a"s, "A"s, "abc"s, longest}) {
    line("ITEM_" + name + ", oid, 1.3.1");
    line("ITEM_" + name + ", meter, m");
  }
  line("ITEM_s, oid, 1.3.2");
  EXPECT_EQ(6u, module.item_count);
  for (const char* text : {"type, string:x", "computeformula, value*8"}) line("ITEM_s, "s + text);
  log.take();
  EXPECT_EQ(0, link_snmp_items(&module));
  EXPECT_EQ("2 empty meter for 5:'s'\n2 formula configured for string type, (not supported yet) 5:'s'\n", log.take());
  EXPECT_EQ(nullptr, module.bindings[5].formula);
}

// Rows: type, formula, what the item serves at first, and what it then serves for values of its meter.
TEST_F(configuration, items_take_their_meters) {
  using meter = std::variant<int32_t, uint32_t, float, std::string>;
  const std::tuple<std::string, std::string, std::string, std::vector<std::pair<meter, std::string>>> rows[] = {
      {"int", "", "02 01 00", {{-3.99f, "02 01 FD"}, {3e10f, "02 04 7F FF FF FF"}, {-3e10f, "02 04 80 00 00 00"}}},
      {"int:-5", "", "02 01 FB", {{5u, "02 01 FB"}, {"5", "02 01 FB"}}},
      {"int:04294967295x", "", "02 01 FF", {}},
      {"int", "value/4", "02 01 00", {{21, "02 01 05"}, {-10, "02 01 FE"}, {NAN, "02 01 00"}}},
      {"uint:09", "", "41 01 09", {{5, "41 01 09"}, {7.9f, "41 01 07"}, {4294967295u, "41 05 00 FF FF FF FF"}}},
      {"int", "value*10", "02 01 00", {{-0.37f, "02 01 FD"}}},
      {"uint", "value*100", "41 01 00", {{0.37f, "41 01 25"}}},
      {"uint", "value+9", "41 01 09", {{-1.5f, "41 01 07"}, {NAN, "41 01 00"}}},
      {"uint", "", "41 01 00", {{-1.5f, "41 01 00"}, {5e9f, "41 05 00 FF FF FF FF"}}},
      {"string", "", "04 00", {{"abc", "04 03 61 62 63"}, {std::string(65536, 'x'), "-1"}}},
      {"string:x", "", "04 01 78", {{5, "04 01 78"}, {5.0f, "04 01 78"}}},
      {"string:", "", "04 00", {{std::string(65535, 'x'), "04 82 FF FF" + repeated(65535, " 78")}}},
  };
  for (bool fast : {false, true}) {
    for (const auto& [type, formula, initial, meters] : rows) {
      SCOPED_TRACE(type + " " + formula + (fast ? " fast" : " slow"));
      const std::string kind = type.substr(0, type.find(':')) + (type.find(':') < type.size() ? " with default" : "");
      line("ITEM_x, meter, m");
      line(fast ? "ITEM_x, metertype, fast" : "ITEM_x, metertype, slow");
      line("ITEM_x, type, " + type);
      EXPECT_TRUE(log.has(1, "ini_handler_cb(test, ITEM_x, type, " + type + ") set callback " + kind));
      if (!formula.empty()) line("ITEM_x, computeformula, " + formula);
      EXPECT_EQ(initial, served(0));
      for (const auto& [published, expected] : meters) {
        torvasin_key_value_list list;
        std::visit([&](const auto& value) { list.set("m", value); }, published);
        const std::string before = served(0);
        EXPECT_EQ(0, (fast ? meter_callback_slow : meter_callback_fast)(&list, &context));
        EXPECT_EQ(before, served(0)) << "a refresh of the other speed changed it";
        EXPECT_EQ(0, (fast ? meter_callback_fast : meter_callback_slow)(&list, &context));
        EXPECT_EQ(expected, served(0));
      }
      line("ITEM_x, type, " + type);
      EXPECT_EQ(initial, served(0)) << "after the type was set again";
      release_items(&module);
      EXPECT_EQ("", log.take());
    }
  }
}
