// Any text as a configuration: read, linked, every item served at the extremes of its meter.

#include <ini.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cassert>
#include <cmath>
#include <cstring>

#include "engine/memory.h"
#include "module/snmp/mainsnmp.h"
#include "support.h"

// The input is a file in memory, under a name that it can include itself by.
static constexpr int input_file = 100;
static constexpr char input_path[] = "/proc/self/fd/100";

// The module's calls come here. A path may lead to a device that never ends, and k inclusions of
// itself are k^16 readings: only the input can be opened, so many times in a run.
static uint32_t readings;
extern "C" int __real_ini_parse(const char* path, ini_handler handler, void* user);
extern "C" int __wrap_ini_parse(const char* path, ini_handler handler, void* user) {
  if (strcmp(path, input_path) != 0 || readings++ > MAX_OPEN_FILES) return -1;
  return __real_ini_parse(path, handler, user);
}

static void check_item(const snmp_item& item, snmp_meter_binding* binding) {
  size_t size = 0;
  assert(item.writer(nullptr, 0, &size, binding) == 0 && size >= 2);
  octets room(size);
  assert(item.writer(room.data(), size - 1, nullptr, binding) == -1);
  assert(item.writer(room.data(), size, nullptr, binding) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int input = dup2(memfd_create("input", 0), input_file);
  static captured_log log;
  log.take(5);
  assert(ftruncate(input, 0) == 0 && pwrite(input, data, size, 0) == static_cast<ssize_t>(size));
  snmp_module module = {};
  module.formula_vars = {"value", &module.formula_value, TE_VARIABLE, nullptr};
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
