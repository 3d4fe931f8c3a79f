// Any text as a configuration: reads and links it, and serves every item for extreme meter values.

#include <cassert>
#include <cmath>

#include "engine/memory.h"
#include "input_file.h"
#include "support.h"

static void check_item(const snmp_item& item, snmp_meter_binding* binding) {
  size_t size = 0;
  assert(item.writer(nullptr, 0, &size, binding) == 0 && size >= 2);
  octets room(size);
  assert(item.writer(room.data(), size - 1, nullptr, binding) == -1);
  assert(item.writer(room.data(), size, nullptr, binding) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static captured_log log;
  log.take(5);
  write_input(data, size);
  snmp_module module;
  init_snmp_module(&module);
  torvasin_plugin_context context = {"fuzz", nullptr, {}, &module};
  readings = 0;
  parse_config_file(&context, input_path);
  link_snmp_items(&module);
  for (uint32_t i = 0; i < module.item_count; i++) {
    snmp_meter_binding* binding = &module.bindings[i];
    check_item(module.items[i], binding);
    for (float meter : {0.0f, -0.5f, 1e9f, -3e38f, INFINITY, NAN}) {
      if (binding->type == ITEM_STRING) break;
      torvasin_valueInitFloat(&binding->value, meter);
      check_item(module.items[i], binding);
    }
  }
  release_items(&module);
  torvasin_engine::release_all_texts();
  assert(torvasin_engine::get_memory_stats().live_blocks == 0);
  return 0;
}
