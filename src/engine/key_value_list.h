// The engine's key/value list: the opaque torvasin_key_value_list of module/torvasin.h. The
// torvasin_keyValueListGet functions read it:
//  - GetS finds only texts;
//  - GetIU finds unsigned values, and signed ones, whose bits it returns unchanged;
//  - Get finds any value.
// Each returns 0 if it finds the value. Otherwise, also if list or key is null, it returns 1 and
// leaves the out-parameter unchanged.
//
// Not synchronised: several threads may read a list while none changes it.

#ifndef TORVASIN_ENGINE_KEY_VALUE_LIST_H
#define TORVASIN_ENGINE_KEY_VALUE_LIST_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "module/torvasin.h"

struct torvasin_key_value_list {
 public:
  torvasin_key_value_list() = default;
  torvasin_key_value_list(const torvasin_key_value_list&) = delete;  // values point into entries
  torvasin_key_value_list& operator=(const torvasin_key_value_list&) = delete;

  // Sets or replaces the value of a key. Key and text are copied. Returns the value's record, which
  // stays at its address, so a list that is kept can be refreshed in place.
  torvasin_value* set(const std::string& key, std::uint32_t number) {
    return put(key, {TORVASIN_UINT32, {.uint32 = number}});
  }
  torvasin_value* set(const std::string& key, std::int32_t number) {
    return put(key, {TORVASIN_INT32, {.int32 = number}});
  }
  torvasin_value* set(const std::string& key, float number) {
    return put(key, {TORVASIN_FLOAT, {.float32 = number}});
  }
  torvasin_value* set(const std::string& key, std::string text) {
    entry& changed = entries_[key];
    changed.text = std::move(text);
    changed.value = {TORVASIN_TEXT, {.text = changed.text.c_str()}};
    return &changed.value;
  }

  // Returns the value of a key, valid until the key is set again, or null.
  const torvasin_value* find(std::string_view key) const {
    const auto at = entries_.find(key);
    return at != entries_.end() ? &at->second.value : nullptr;
  }

 private:
  struct entry {
    torvasin_value value;
    std::string text;  // what value.payload.text of a text value points to
  };
  struct hash : std::hash<std::string_view> {
    using is_transparent = void;  // finds a key without copying it
  };

  torvasin_value* put(const std::string& key, torvasin_value value) {
    return &(entries_[key].value = value);
  }

  std::unordered_map<std::string, entry, hash, std::equal_to<>> entries_;
};

#endif  // TORVASIN_ENGINE_KEY_VALUE_LIST_H
