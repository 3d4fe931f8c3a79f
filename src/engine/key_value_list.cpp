#include "engine/key_value_list.h"

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
  if (value == nullptr || value->type > TORVASIN_INT32) return 1;
  *number = value->type == TORVASIN_UINT32 ? value->payload.uint32
                                           : static_cast<std::uint32_t>(value->payload.int32);
  return 0;
}

int torvasin_keyValueListGet(const torvasin_key_value_list* list, const char* key,
                             const torvasin_value** value) {
  const torvasin_value* found = find_value(list, key);
  if (found == nullptr) return 1;
  *value = found;
  return 0;
}
