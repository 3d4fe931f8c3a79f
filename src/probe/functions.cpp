#include "probe/functions.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "probe/fault.h"

namespace torvasin_probe {
namespace {
constexpr char log_source[] = "src/probe/functions";
}

// ---- Log ---------------------------------------------------------------------------------------

// The text lies on the stack and is gone after the call.
void log_text(int level, size_t length) {
  char text[20'001];
  memset(text, 'x', length);
  text[length] = '\0';
  CALL(torvasin_log, level, log_source, __LINE__, 1, "probe: a text of %zu: %s", length, text);
}

void check_log() {
  for (int level = TORVASIN_LOG_TRACE; level <= TORVASIN_LOG_FAILURE; level++) log_text(level, 0);
  for (size_t length = 500; length < 20'000; length *= 2) log_text(TORVASIN_LOG_TRACE, length);
  log_text(TORVASIN_LOG_WARNING, 20'000);  // a host may drop the lower ones before it formats them
  constexpr char odd[] = "%s%n\n\x1b[0m\xff";
  CALL(torvasin_log, TORVASIN_LOG_WARNING, log_source, __LINE__, 1, "probe: %s %d", odd, -1);
}

// ---- Memory ------------------------------------------------------------------------------------

// Null when the host gives none.
void* resize(void* block, size_t size) {
  void* got = CALL(torvasin_realloc, block, size);
  EXPECT(got != nullptr, "torvasin_realloc gives memory", "for %zu octets it gave null", size);
  return got;
}

bool is_filled(const void* block, int octet, size_t size) {
  const step here("reading a block");
  const std::span octets(static_cast<const unsigned char*>(block), size);
  return std::ranges::all_of(octets, [=](unsigned char one) { return one == octet; });
}

void check_blocks() {
  struct block {
    size_t size;
    void* memory = nullptr;
  };
  std::array<block, 7> blocks = {{{1}, {7}, {24}, {100}, {4096}, {5000}, {200'000}}};
  int octet = 0;
  for (auto& [size, memory] : blocks) {
    memory = CALL(torvasin_malloc, size);
    EXPECT(memory != nullptr, "torvasin_malloc gives memory", "for %zu octets it gave null", size);
    EXPECT(reinterpret_cast<uintptr_t>(memory) % alignof(max_align_t) == 0,
           "a block is aligned for any type", "one was at %p", memory);
    if (memory == nullptr) return;
    memset(memory, octet++, size);
  }
  octet = 0;
  for (auto& [size, memory] : blocks) {
    EXPECT(is_filled(memory, octet, size), "a block keeps its content", "one of %zu octets changed",
           size);
    for (const size_t next : {3 * size, size}) {
      memory = resize(memory, next);
      if (memory == nullptr) return;
      EXPECT(is_filled(memory, octet, size), "torvasin_realloc keeps the content",
             "of %zu octets it was lost", size);
      memset(memory, octet, next);
    }
    CALL(torvasin_free, memory);
    octet++;
  }
  CALL(torvasin_free, nullptr);
}

// ---- Values ------------------------------------------------------------------------------------

void expect_number(const torvasin_value& value, uint32_t type, uint32_t bits) {
  EXPECT(value.type == type && value.payload.uint32 == bits,
         "a record has the type and the number that were set",
         "type %u with the bits %08x had type %u with %08x", type, bits, value.type,
         value.payload.uint32);
}

void expect_text(const torvasin_value& value, const char* text, const char* when) {
  const step here("reading the text of a record");
  EXPECT(value.type == TORVASIN_TEXT && strcmp(value.payload.text, text) == 0,
         "a record has its text until it is set again or freed", "it differed %s", when);
}

// Sets a text whose original is then gone.
void set_text(torvasin_value* value, const char* text) {
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", text);
  CALL(torvasin_valueInitS, value, copy);
  memset(copy, '#', sizeof copy - 1);
  expect_text(*value, text, "when the caller's text was gone");
}

void take_texts(torvasin_value* value) {
  static char borrowed[] = "a text of the module";
  CALL(torvasin_valueInitTakeS, value, borrowed, 0);
  expect_text(*value, borrowed, "after torvasin_valueInitTakeS");
  auto* owned = static_cast<char*>(CALL(torvasin_malloc, sizeof borrowed));
  if (owned == nullptr) return;
  memcpy(owned, borrowed, sizeof borrowed);
  CALL(torvasin_valueInitTakeS, value, owned, 1);
  expect_text(*value, borrowed, "after torvasin_valueInitTakeS");
}

void check_values() {
  constexpr std::array texts = {"one", "", "a text that is longer", "in place of one", "%s"};
  constexpr size_t size = texts.size() * sizeof(torvasin_value);
  auto* values = static_cast<torvasin_value*>(resize(nullptr, size));
  if (values == nullptr) return;
  // The worst that memory can hold before its records are set is what looks like a text.
  memset(values, 0xA5, size);
  for (size_t i = 0; i < texts.size(); i++) values[i].type = TORVASIN_TEXT;
  CALL(torvasin_valueInitUInt32, &values[0], UINT32_MAX);
  CALL(torvasin_valueInitInt32, &values[1], -5);
  CALL(torvasin_valueInitFloat, &values[2], -1.5F);
  set_text(&values[3], "in new memory");
  take_texts(&values[4]);
  expect_number(values[0], TORVASIN_UINT32, 0xFFFFFFFF);
  expect_number(values[1], TORVASIN_INT32, 0xFFFFFFFB);
  expect_number(values[2], TORVASIN_FLOAT, 0xBFC00000);
  for (size_t i = 0; i < texts.size(); i++) set_text(&values[i], texts[i]);
  for (const size_t other : {1000 * size, size}) {
    values = static_cast<torvasin_value*>(resize(values, other));
    if (values == nullptr) return;
    // Records that may lie where these lay, with texts that may lie where theirs would if they
    // ended.
    auto* others = static_cast<torvasin_value*>(resize(nullptr, size));
    for (size_t i = 0; others != nullptr && i < texts.size(); i++) set_text(&others[i], "another");
    for (size_t i = 0; i < texts.size(); i++) expect_text(values[i], texts[i], "in a moved block");
    CALL(torvasin_free, others);
  }
  CALL(torvasin_valueInitInt32, &values[0], 5);
  expect_number(values[0], TORVASIN_INT32, 5);
  CALL(torvasin_free, values);
}

// ---- Lists -------------------------------------------------------------------------------------

const torvasin_value* look_up(const torvasin_key_value_list* list, const char* key) {
  const torvasin_value* value = nullptr;
  const char* text = nullptr;
  uint32_t number = 0;
  const int got = CALL(torvasin_keyValueListGet, list, key, &value);
  const int got_text = CALL(torvasin_keyValueListGetS, list, key, &text);
  const int got_number = CALL(torvasin_keyValueListGetIU, list, key, &number);
  const bool found = got == 0 && value != nullptr;
  if (!found) value = nullptr;
  const bool is_text = found && value->type == TORVASIN_TEXT;
  const bool is_number = found && value->type <= TORVASIN_INT32;
  EXPECT(found == (got == 0), "torvasin_keyValueListGet gives a value with 0",
         "for '%s' it gave none", key);
  EXPECT((got_text == 0) == is_text,
         "torvasin_keyValueListGetS returns 0 for every text and nothing else",
         "for '%s' it returned %d", key, got_text);
  EXPECT((got_number == 0) == is_number,
         "torvasin_keyValueListGetIU returns 0 for every integer and nothing else",
         "for '%s' it returned %d", key, got_number);
  EXPECT(!is_number || got_number != 0 || number == value->payload.uint32,
         "torvasin_keyValueListGetIU gives the 32 bits of the value", "for '%s' it gave %08x", key,
         number);
  EXPECT(!is_text || value->payload.text != nullptr, "a text is not null", "that of '%s' was", key);
  if (!is_text || value->payload.text == nullptr) return is_text ? nullptr : value;
  const step here("reading the text of a list");
  EXPECT(got_text != 0 || (text != nullptr && strcmp(text, value->payload.text) == 0),
         "torvasin_keyValueListGetS gives the text of the value", "for '%s' it gave another", key);
  return value;
}

void expect_absent(const torvasin_key_value_list* list, const char* key) {
  EXPECT(look_up(list, key) == nullptr, "a key that a list does not have is not found", "'%s' was",
         key);
}

}  // namespace torvasin_probe
