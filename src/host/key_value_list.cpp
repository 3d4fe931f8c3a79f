#include "host/key_value_list.h"

torvasin_key_value_list::entry& torvasin_key_value_list::entry_of(std::string_view key,
                                                                  torvasin_value_type type) {
  auto at = entries_.find(key);
  if (at == entries_.end()) at = entries_.emplace(key, entry{}).first;
  at->second.value.type = type;
  return at->second;
}

void torvasin_key_value_list::set(std::string_view key, std::uint32_t number) {
  entry_of(key, TORVASIN_UINT32).value.payload.uint32 = number;
}

void torvasin_key_value_list::set(std::string_view key, std::int32_t number) {
  entry_of(key, TORVASIN_INT32).value.payload.int32 = number;
}

void torvasin_key_value_list::set(std::string_view key, float number) {
  entry_of(key, TORVASIN_FLOAT).value.payload.float32 = number;
}

void torvasin_key_value_list::set(std::string_view key, std::string_view text) {
  entry& changed = entry_of(key, TORVASIN_TEXT);
  changed.text = text;
  changed.value.payload.text = changed.text.c_str();
}

const torvasin_value* torvasin_key_value_list::find(std::string_view key) const {
  const auto at = entries_.find(key);
  return at != entries_.end() ? &at->second.value : nullptr;
}

namespace {

const torvasin_value* find_value(const torvasin_key_value_list* list, const char* key) {
  return list != nullptr && key != nullptr ? list->find(key) : nullptr;
}

}  // namespace

int torvasin_keyValueListGetS(const torvasin_key_value_list* list, const char* key,
                              const char** text) {
  const torvasin_value* value = find_value(list, key);
  if (value == nullptr || value->type != TORVASIN_TEXT) return 1;
  *text = value->payload.text;
  return 0;
}

int torvasin_keyValueListGetIU(const torvasin_key_value_list* list, const char* key,
                               std::uint32_t* number) {
  const torvasin_value* value = find_value(list, key);
  if (value == nullptr) return 1;
  switch (value->type) {
    case TORVASIN_UINT32:
      *number = value->payload.uint32;
      return 0;
    case TORVASIN_INT32:
      *number = static_cast<std::uint32_t>(value->payload.int32);
      return 0;
    default:
      return 1;
  }
}

int torvasin_keyValueListGet(const torvasin_key_value_list* list, const char* key,
                             const torvasin_value** value) {
  const torvasin_value* found = find_value(list, key);
  if (found == nullptr) return 1;
  *value = found;
  return 0;
}
