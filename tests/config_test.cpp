// The configuration line by line, the refresh of values and what the items then serve.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "host/key_value_list.h"
#include "host/memory.h"
#include "module/snmp/mainsnmp.h"
#include "support.h"

namespace {

// A module without socket or threads, as it is while its configuration is read.
struct module_test : testing::Test {
  module_test() {
    strcpy(context.name, "test");
    context.private_data = &module;
    module.port = 161;
    module.formula_vars = {"value", &module.formula_value, TE_VARIABLE, nullptr};
    pthread_mutex_init(&module.lock, nullptr);
  }
  ~module_test() override {
    release_items(&module);
    torvasin_host::release_all_texts();
    EXPECT_EQ(0u, torvasin_host::get_memory_stats().live_blocks);
  }

  void line(const char* section, const char* key, const char* value) {
    EXPECT_EQ(1, ini_handler_cb(&context, section, key, value));
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
  torvasin_plugin_context context = {};
};

std::string dotted(const snmp_oid& oid) {
  std::string text;
  for (size_t i = 0; i < oid.count; i++) text += "." + std::to_string(oid.subid[i]);
  return text;
}

struct config_line {
  const char* section;
  const char* key;
  const char* value;
  const char* message;  // of level 3 after the four texts; null for none
};

const config_line refused_lines[] = {
    {"General", "port", "65536", " not valid port too big)"},
    {"General", "port", "-1", " not valid port too big)"},
    {"General", "port", "x", " not valid port)"},
    {"General", "Port", "1", ") element not yet managed"},
    {"General", "include", "/nowhere/at/all", ") error parsing file"},
    {"general", "port", "1", ") section not yet managed"},
    {"", "port", "1", ") section not yet managed"},
    {"ITEM_", "oid", "1.3", ") section not yet managed"},
    {"ITEM_x", "OID", "1.3", ") section not yet managed"},
    {"ITEM_x", "oid", "1..3", ") error parsing oid"},
    {"ITEM_x", "type", "float", ") type not yet managed"},
    {"ITEM_x", "type", "int:", ") type not yet managed"},
    {"ITEM_x", "type", "uint:x", ") type not yet managed"},
    {"ITEM_x", "computeformula", "value*", ", 1) error parsing formula near 6"},
};

TEST_F(module_test, refused_lines_name_themselves_and_change_nothing) {
  line("ITEM_x", "type", "int:5");
  line("ITEM_x", "computeformula", "value*2");
  for (const config_line& row : refused_lines) {
    log.take();
    line(row.section, row.key, row.value);
    const std::string message = std::string("ini_handler_cb(test, ") + row.section + ", " +
                                row.key + ", " + row.value + row.message;
    EXPECT_TRUE(log.has(3, message)) << message << "\nnot in\n" << log.take();
  }
  EXPECT_EQ(161, module.port);
  EXPECT_EQ(1u, module.item_count);
  EXPECT_EQ("02 01 05", served(0)) << "the refused formula has gone, the value stays";
  log.take();
  line("ITEM_x", "type", "int:y");
  EXPECT_EQ(
      "3 'y' has to be an int\n3 ini_handler_cb(test, ITEM_x, type, int:y) type not yet managed\n",
      log.take());
}

TEST_F(module_test, accepted_lines) {
  for (const char* value : {"0", "162x", " 65535"}) line("General", "port", value);
  line("General", "ip", "255.255.255.2550");
  EXPECT_EQ(65535, module.port);
  EXPECT_STREQ("255.255.255.255", module.ip);
  line("ITEM_x", "meter", std::string(200, 'm').c_str());
  line("ITEM_x", "metertype", "fast");
  EXPECT_EQ(std::string(127, 'm'), module.bindings[0].meter);
  EXPECT_EQ(1u, module.bindings[0].fast);
  line("ITEM_x", "metertype", "FAST");
  EXPECT_EQ(0u, module.bindings[0].fast);
  EXPECT_EQ(encode_null, module.items[0].writer);
  EXPECT_EQ("", log.take());

  const std::pair<const char*, std::pair<const char*, const char*>> types[] = {
      {"int", {"int", "02 01 00"}},
      {"uint", {"uint", "41 01 00"}},
      {"string", {"string", "04 00"}},
      {"int:-5", {"int with default", "02 01 FB"}},
      {"int:4294967295x", {"int with default", "02 01 FF"}},
      {"uint:7", {"uint with default", "41 01 07"}},
      {"string:", {"string with default", "04 00"}},
      {"string:abc", {"string with default", "04 03 61 62 63"}},
  };
  for (const auto& [value, expected] : types) {
    line("ITEM_x", "type", value);
    EXPECT_TRUE(log.has(1, std::string("ini_handler_cb(test, ITEM_x, type, ") + value +
                               ") set callback " + expected.first));
    EXPECT_EQ(expected.second, served(0)) << value;
  }
}

TEST_F(module_test, oid_texts) {
  const std::string nineteen = "1.3.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19";
  const std::pair<std::string, std::string> rows[] = {
      {".1.3.6.1.4.1.99.1.0", ".1.3.6.1.4.1.99.1.0"},
      {"1.3.6.1.", ".1.3.6.1"},
      {"1", ".1"},
      {"1.3. +4", ".1.3.4"},
      {"1.3.4294967295", ".1.3.4294967295"},
      {"2.47", ".2.47"},
      {nineteen, "." + nineteen},
      {nineteen + ".20", ""},
      {"2.48", ""},
      {"4294967295.4294967295", ""},
      {"1.3.4294967296", ""},
      {"1.3.-1", ""},
      {"1.3.x", ""},
      {"1.3 4", ""},
      {"1.3+4", ""},
      {"1..3", ""},
      {"..1", ""},
      {".", ""},
      {"", ""},
  };
  for (const auto& [text, expected] : rows) {
    snmp_oid oid = oid_of({9, 9, 9});
    EXPECT_EQ(expected.empty() ? -1 : 0, parse_oid(text.c_str(), &oid)) << text;
    EXPECT_EQ(expected, dotted(oid)) << text;
    EXPECT_EQ(0u, oid.subid[19]);
  }
}

TEST_F(module_test, names_and_links) {
  const std::string longest(63, 'n');
  line(("ITEM_" + longest).c_str(), "oid", "1.3.1");
  line("ITEM_s", "oid", "1.3.2");
  line(("ITEM_" + longest).c_str(), "meter", "m");
  EXPECT_EQ(2u, module.item_count);
  line(("ITEM_" + longest + "n").c_str(), "oid", "1.3.1");
  EXPECT_EQ("3 ini_handler_cb item name too long: " + longest +
                "n\n3 ini_handler_cb found item: " + longest + "n not found and not creable\n",
            log.take());
  line("ITEM_s", "type", "string:x");
  line("ITEM_s", "computeformula", "value*8");
  EXPECT_EQ(0, link_snmp_items(&module));
  EXPECT_EQ(
      "2 empty meter for 1:'s'\n2 formula configured for string type, (not supported yet) 1:'s'\n",
      log.take());
  EXPECT_EQ(nullptr, module.bindings[1].formula);
  EXPECT_EQ(&module.bindings[1], module.items[1].writer_ctx);
  line("ITEM_s", "oid", "1.x");
  EXPECT_EQ(-1, link_snmp_items(&module));
  EXPECT_TRUE(log.has(1, "loaded 2 oid"));
  EXPECT_TRUE(log.has(3, "error missing oid: 1 s"));
}

// ---- Refresh -----------------------------------------------------------------------------------

TEST_F(module_test, items_take_their_meters) {
  struct {
    const char* type;
    const char* formula;
    std::function<void(torvasin_key_value_list&)> publish;
    const char* expected;
  } const rows[] = {
      {"int", "", [](auto& list) { list.set("m", 3.99f); }, "02 01 03"},
      {"int", "", [](auto& list) { list.set("m", -3.99f); }, "02 01 FD"},
      {"int", "", [](auto& list) { list.set("m", 3e10f); }, "02 04 7F FF FF FF"},
      {"int", "", [](auto& list) { list.set("m", -3e10f); }, "02 04 80 00 00 00"},
      {"int", "", [](auto& list) { list.set("m", NAN); }, "02 01 00"},
      {"int:9", "", [](auto& list) { list.set("m", 5u); }, "02 01 09"},
      {"int:9", "", [](auto& list) { list.set("m", "5"); }, "02 01 09"},
      {"int:9", "", [](auto& list) { list.set("other", 5); }, "02 01 09"},
      {"int", "value*2", [](auto& list) { list.set("m", 21); }, "02 01 2A"},
      {"int", "value/4", [](auto& list) { list.set("m", 21); }, "02 01 05"},
      {"int", "value/4", [](auto& list) { list.set("m", -10); }, "02 01 FE"},
      {"int", "0/0", [](auto& list) { list.set("m", -10); }, "02 01 00"},
      {"uint", "", [](auto& list) { list.set("m", -1.5f); }, "41 01 00"},
      {"uint", "", [](auto& list) { list.set("m", 5e9f); }, "41 05 00 FF FF FF FF"},
      {"uint", "", [](auto& list) { list.set("m", 7.9f); }, "41 01 07"},
      {"uint", "", [](auto& list) { list.set("m", 4294967295u); }, "41 05 00 FF FF FF FF"},
      {"uint:9", "", [](auto& list) { list.set("m", 5); }, "41 01 09"},
      {"uint", "-value/2", [](auto& list) { list.set("m", 1u); }, "41 01 00"},
      {"uint", "value*8/100+1", [](auto& list) { list.set("m", 50.5f); }, "41 01 05"},
      {"string", "", [](auto& list) { list.set("m", "abc"); }, "04 03 61 62 63"},
      {"string:x", "", [](auto& list) { list.set("m", 5); }, "04 01 78"},
      {"string", "", [](auto& list) { list.set("m", std::string(65536, 'x')); }, "-1"},
  };
  const int count = static_cast<int>(std::size(rows));
  for (int i = 0; i < count; i++) {
    const std::string section = "ITEM_" + std::to_string(i);
    line(section.c_str(), "type", rows[i].type);
    line(section.c_str(), "meter", "m");
    if (rows[i].formula[0] != '\0') line(section.c_str(), "computeformula", rows[i].formula);
    line(section.c_str(), "metertype", i % 2 == 0 ? "fast" : "slow");
    const std::string untouched = served(0);
    torvasin_key_value_list list;
    rows[i].publish(list);
    auto* callback = i % 2 == 0 ? meter_callback_fast : meter_callback_slow;
    auto* other_callback = i % 2 == 0 ? meter_callback_slow : meter_callback_fast;
    EXPECT_EQ(0, other_callback(&list, &context));
    EXPECT_EQ(untouched, served(0)) << "row " << i << ", other speed";
    EXPECT_EQ(0, callback(&list, &context));
    torvasin_key_value_list empty;
    EXPECT_EQ(0, callback(&empty, &context));
    EXPECT_EQ(rows[i].expected, served(0)) << "row " << i;
    release_items(&module);
  }
}

// Cannot come from a configuration; the writers and the refresh must live through it all the same.
TEST_F(module_test, impossible_states_are_reported) {
  line("ITEM_i", "type", "int");
  line("ITEM_s", "type", "string");
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

}  // namespace
