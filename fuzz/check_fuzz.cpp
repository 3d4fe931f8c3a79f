// Any text as a configuration: torvasin_config reads it as the module does, and finds an error in
// it exactly when the module logs one or cannot start.

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>

#include "config/config.h"
#include "engine/memory.h"
#include "input_file.h"
#include "support.h"

// The linker routes torvasin_config's calls here.
extern "C" FILE* __real_fopen(const char* path, const char* mode);
extern "C" FILE* __wrap_fopen(const char* path, const char* mode) {
  return may_open(path) ? __real_fopen(path, mode) : nullptr;
}

// The versions of inih read a longer line differently, and torvasin_config reports it as an error.
// torvasin_config does not check what follows an octet of 0.
static bool is_comparable(std::string_view text) {
  constexpr size_t longest_line = 198;
  for (size_t begin = 0, end = 0; end != text.npos; begin = end + 1) {
    end = text.find('\n', begin);
    if (std::min(end, text.size()) - begin > longest_line) return false;
  }
  return text.find('\0') == text.npos;
}

static bool same_value(const torvasin_value& a, const torvasin_value& b) {
  if (a.type != b.type) return false;
  if (a.type == TORVASIN_TEXT) return strcmp(a.payload.text, b.payload.text) == 0;
  return a.payload.uint32 == b.payload.uint32;
}

static void compare(const snmp_module& module, const snmp_module& checked) {
  assert(module.port == checked.port && strcmp(module.ip, checked.ip) == 0);
  assert(module.item_count == checked.item_count);
  for (uint32_t i = 0; i < module.item_count; i++) {
    const snmp_meter_binding& a = module.bindings[i];
    const snmp_meter_binding& b = checked.bindings[i];
    assert(strcmp(a.name, b.name) == 0 && strcmp(a.meter, b.meter) == 0);
    assert(a.fast == b.fast && a.type == b.type && same_value(a.value, b.value));
    assert((a.formula == nullptr) == (b.formula == nullptr));
    assert(compare_oid(&module.items[i].oid, &checked.items[i].oid) == 0);
    assert(module.items[i].writer == checked.items[i].writer);
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!is_comparable({reinterpret_cast<const char*>(data), size})) return 0;
  write_input(data, size);
  snmp_module module;
  init_snmp_module(&module);
  torvasin_plugin_context context = {"fuzz", nullptr, {}, &module};
  bool faulty;
  {
    captured_log log;
    readings = 0;
    faulty = parse_config_file(&context, input_path) != 0;
    faulty = !log.take(TORVASIN_LOG_ERROR).empty() || faulty;
  }
  for (uint32_t i = 0; i < module.item_count; i++) faulty |= module.items[i].oid.count == 0;
  readings = 0;
  {
    const torvasin_config::meter_list none = {};
    const torvasin_config::configuration config(input_path, none);
    compare(module, config.module);
    assert(faulty == (config.found.count(torvasin_config::severity::error) > 0));
  }
  release_items(&module);
  torvasin_engine::release_all_texts();
  assert(torvasin_engine::get_memory_stats().live_blocks == 0);
  return 0;
}
