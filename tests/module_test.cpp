// The library as a host loads it, over real UDP.

#include <gtest/gtest.h>

#include <fstream>

#include "host/memory.h"
#include "host/meter_engine.h"
#include "host/plugin.h"
#include "module/snmp/mainsnmp.h"
#include "udp_client.h"

TEST(module, serves_live_values_and_leaves_nothing) {
  const std::string path = testing::TempDir() + "module_" + std::to_string(getpid()) + ".ini";
  std::ofstream(path) << "[General]\nport = 0\n[ITEM_t]\noid = 1.3.6.1.1\ntype = string:none\nmeter = t\n";
  torvasin_key_value_list host_keys;
  host_keys.set("conf_file", path);
  torvasin_host::meter_engine engine;
  torvasin_host::plugin plugin("test", engine);
  std::string error;
  ASSERT_TRUE(plugin.load(TORVASIN_MODULE_PATH, error)) << error;
  EXPECT_STREQ("0.6.25", plugin.version());
  for (int cycle = 0; cycle < 2; cycle++) {
    ASSERT_EQ(0, plugin.start(host_keys));
    udp_client client(static_cast<snmp_module*>(plugin.context().private_data)->fd);
    const octets request = build({.varbinds = "30 08 06 04 2B 06 01 01 05 00"});
    EXPECT_EQ("0 0: 1.3.6.1.1=04046E6F6E65", client.ask(request));
    torvasin_key_value_list meters;
    meters.set("t", "abc");
    engine.publish(TORVASIN_SLOW, meters);
    const uint64_t allocations = torvasin_host::get_memory_stats().allocation_calls;
    for (int i = 0; i < 100; i++) EXPECT_EQ("0 0: 1.3.6.1.1=0403616263", client.ask(request));
    EXPECT_EQ(allocations, torvasin_host::get_memory_stats().allocation_calls);
    plugin.stop();
    EXPECT_EQ(0u, torvasin_host::get_memory_stats().live_blocks);
  }
  plugin.unload();
  torvasin_host::release_all_texts();
  unlink(path.c_str());
}
