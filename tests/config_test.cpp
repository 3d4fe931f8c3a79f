// The configuration line by line, the refresh of values and what the items then serve.

#include <gtest/gtest.h>

#include <cmath>
#include <variant>

#include "host/key_value_list.h"
#include "host/memory.h"
#include "module/snmp/mainsnmp.h"
#include "support.h"

// A module without socket or threads, as it is while its configuration is read.
struct configuration : testing::Test {
  configuration() {
    module.port = 161;
    module.formula_vars = {"value", &module.formula_value, TE_VARIABLE, nullptr};
    pthread_mutex_init(&module.lock, nullptr);
  }
  ~configuration() override {
    release_items(&module);
    torvasin_host::release_all_texts();
    EXPECT_EQ(0u, torvasin_host::get_memory_stats().live_blocks);
  }

  // A line as the messages show it: section, key and value with ", " between them.
  void line(const std::string& text) {
    const size_t key = text.find(", ") + 2;
    const size_t value = text.find(", ", key) + 2;
    EXPECT_EQ(1, ini_handler_cb(&context, text.substr(0, key - 2).c_str(), text.substr(key, value - 2 - key).c_str(),
                                text.c_str() + value));
  }

  // What an item serves, written into exactly the room it asks for; "-1" when it refuses.
  std::string served(uint32_t i) {
    size_t size = 0;
    EXPECT_EQ(0, module.items[i].writer(nullptr, 0, &size, &module.bindings[i]));
    octets room(size);
    EXPECT_EQ(-1, module.items[i].writer(room.data(), size - 1, nullptr, &module.bindings[i]));
    if (module.items[i].writer(room.data(), size, nullptr, &module.bindings[i]) != 0) return "-1";
    return to_hex(room);
  }

  captured_log log;
  snmp_module module = {};
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
  line("ITEM_x, type, int:5");
  line("ITEM_x, computeformula, value*2");
  for (const auto& [message, texts] : rows) {
    for (const std::string& text : texts) {
      line(text);
      EXPECT_TRUE(log.has(3, "ini_handler_cb(test, " + text + message)) << log.take() << "lacks that of " << text;
    }
  }
  EXPECT_EQ(161, module.port);
  EXPECT_EQ(1u, module.item_count);
  EXPECT_EQ("02 01 05", served(0)) << "the refused formula has gone, the value stays";
  EXPECT_TRUE(log.has(3, "'' has to be an int"));
  EXPECT_TRUE(log.has(3, "'y' has to be an uint"));
}

TEST_F(configuration, accepted_lines) {
  for (const char* value : {"0", "162x", " 65535"}) line(std::string("General, port, ") + value);
  line("General, ip, 255.255.255.2550");
  EXPECT_EQ(65535, module.port);
  EXPECT_STREQ("255.255.255.255", module.ip);
  line("ITEM_x, meter, " + std::string(200, 'm'));
  line("ITEM_x, metertype, fast");
  EXPECT_EQ(std::string(127, 'm'), module.bindings[0].meter);
  EXPECT_EQ(1u, module.bindings[0].fast);
  line("ITEM_x, metertype, FAST");
  EXPECT_EQ(0u, module.bindings[0].fast);
  EXPECT_EQ(encode_null, module.items[0].writer);
  for (int i = 0; i < 20; i++) line("General, include, /dev/null");
  EXPECT_EQ("", log.take());
}

TEST_F(configuration, oid_texts) {
  const auto read = [](const std::string& text) {
    snmp_oid oid = oid_of({9, 9, 9});
    const int32_t status = parse_oid(text.c_str(), &oid);
    EXPECT_EQ(oid.count > 0 ? 0 : -1, status) << text;
    EXPECT_EQ(0u, oid.subid[19]) << text;
    std::string dotted;
    for (size_t i = 0; i < oid.count; i++) dotted += (i > 0 ? "." : "") + std::to_string(oid.subid[i]);
    return dotted;
  };
  const std::string nineteen = "1.3.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19";
  const std::string refused[] = {
      "2.48", "107374183.0", "1.3.4294967296", "1.3.-1", "1.3.x", "1.3 4", "1..3", "..1", ".", "", nineteen + ".20"};
  for (const std::string& text : refused) EXPECT_EQ("", read(text)) << text;
  for (const std::string text : {"1", "1.3.4294967295", "2.47", nineteen.c_str()}) EXPECT_EQ(text, read(text));
  EXPECT_EQ("1.3.6", read(".1.3.6"));
  EXPECT_EQ("1.3.6.1", read("1.3.6.1."));
  EXPECT_EQ("1.3.4", read("1.3. +4"));
}

TEST_F(configuration, names_and_links) {
  const std::string longest(63, 'n');
  line("ITEM_" + longest + ", oid, 1.3.1");
  line("ITEM_s, oid, 1.3.2");
  line("ITEM_" + longest + ", meter, m");
  EXPECT_EQ(2u, module.item_count);
  line("ITEM_n" + longest + ", oid, 1.3.1");
  EXPECT_EQ("3 ini_handler_cb item name too long: n" + longest + "\n3 ini_handler_cb found item: n" + longest +
                " not found and not creable\n",
            log.take());
  line("ITEM_s, type, string:x");
  line("ITEM_s, computeformula, value*8");
  EXPECT_EQ(0, link_snmp_items(&module));
  EXPECT_EQ("2 empty meter for 1:'s'\n2 formula configured for string type, (not supported yet) 1:'s'\n", log.take());
  EXPECT_EQ(nullptr, module.bindings[1].formula);
  EXPECT_EQ(&module.bindings[1], module.items[1].writer_ctx);
  line("ITEM_s, oid, 1.x");
  EXPECT_EQ(-1, link_snmp_items(&module));
  EXPECT_TRUE(log.has(1, "loaded 2 oid"));
  EXPECT_TRUE(log.has(3, "error missing oid: 1 s"));
}

// What an item of a type and a formula serves, at first and then for values of its meter.
TEST_F(configuration, items_take_their_meters) {
  using meter = std::variant<int32_t, uint32_t, float, std::string>;
  const std::tuple<std::string, std::string, std::string, std::vector<std::pair<meter, std::string>>> rows[] = {
      {"int", "", "02 01 00", {{3.99f, "02 01 03"}, {-3.99f, "02 01 FD"}, {NAN, "02 01 00"}}},
      {"int", "", "02 01 00", {{3e10f, "02 04 7F FF FF FF"}, {-3e10f, "02 04 80 00 00 00"}}},
      {"int:-5", "", "02 01 FB", {{5u, "02 01 FB"}, {"5", "02 01 FB"}}},
      {"int:4294967295x", "", "02 01 FF", {}},
      {"int", "value*2", "02 01 00", {{21, "02 01 2A"}}},
      {"int", "value/4", "02 01 00", {{21, "02 01 05"}, {-10, "02 01 FE"}}},
      {"int", "0/0", "02 01 00", {{-10, "02 01 00"}}},
      {"uint", "", "41 01 00", {{7.9f, "41 01 07"}, {-1.5f, "41 01 00"}, {5e9f, "41 05 00 FF FF FF FF"}}},
      {"uint:9", "", "41 01 09", {{5, "41 01 09"}, {4294967295u, "41 05 00 FF FF FF FF"}}},
      {"uint", "-value/2", "41 01 00", {{1u, "41 01 00"}}},
      {"uint", "value*8/100+1", "41 01 01", {{50.5f, "41 01 05"}}},
      {"string", "", "04 00", {{"abc", "04 03 61 62 63"}, {std::string(65536, 'x'), "-1"}}},
      {"string:x", "", "04 01 78", {{5, "04 01 78"}, {5.0f, "04 01 78"}}},
      {"string:", "", "04 00", {{std::string(65535, 'x'), "04 82 FF FF" + repeated(65535, " 78")}}},
  };
  const auto take = [&](bool fast, const meter& published) {
    torvasin_key_value_list list;
    torvasin_key_value_list others;
    std::visit([&](const auto& value) { list.set("m", value), others.set("other", value); }, published);
    auto* refresh = fast ? meter_callback_fast : meter_callback_slow;
    auto* other_refresh = fast ? meter_callback_slow : meter_callback_fast;
    const std::string untouched = served(0);
    EXPECT_EQ(0, other_refresh(&list, &context));
    EXPECT_EQ(untouched, served(0)) << "refreshed at the other speed";
    EXPECT_EQ(0, refresh(&list, &context) | refresh(&others, &context));
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
        take(fast, published);
        EXPECT_EQ(expected, served(0));
      }
      line("ITEM_x, type, " + type);
      EXPECT_EQ(initial, served(0)) << "set again";
      release_items(&module);
      EXPECT_EQ("", log.take());
    }
  }
}

// Cannot come from a configuration; the writers and the refresh must live through it all the same.
TEST_F(configuration, impossible_states_are_reported) {
  line("ITEM_i, type, int");
  line("ITEM_s, type, string");
  torvasin_valueInitUInt32(&module.bindings[0].value, 7);
  torvasin_valueInitUInt32(&module.bindings[1].value, 7);
  EXPECT_EQ("02 01 00", served(0));
  EXPECT_EQ("04 00", served(1));
  EXPECT_EQ(0u, log.take().find("4 programming error "));
  module.bindings[0].type = 2;
  torvasin_key_value_list list;
  list.set("", 1.0f);
  EXPECT_EQ(0, refresh_items(&module, &list, TORVASIN_SLOW));
  EXPECT_NE(std::string::npos, log.take(1).find("1 not yet managed "));
}
