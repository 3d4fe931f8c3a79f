#include "engine/memory.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "module/torvasin.h"

namespace torvasin_engine {
namespace {

using owned_text = std::unique_ptr<char, decltype([](char* text) { std::free(text); })>;

// Blocks are only counted: a leak checker would not report a block that a list refers to.
std::atomic<std::size_t> live_blocks{0};

using text_map = std::map<std::uintptr_t, owned_text>;  // by the address of the record

std::mutex texts_mutex;
alignas(text_map) std::byte texts_memory[sizeof(text_map)];
text_map& texts =
    *new (texts_memory) text_map;  // never destroyed, because threads may outlive main

std::uintptr_t address_of(const void* memory) {
  return reinterpret_cast<std::uintptr_t>(memory);
}

// Moves the texts of the records in the block `from` to the same offsets in the block `to`, as far
// as its size allows, and frees the others.
void move_texts(std::uintptr_t from, std::size_t from_size, std::uintptr_t to,
                std::size_t to_size) {
  auto at = texts.lower_bound(from);
  while (at != texts.end() && at->first < from + from_size) {
    auto node = texts.extract(at++);
    const std::size_t offset = node.key() - from;
    if (offset + sizeof(torvasin_value) > to_size) continue;
    node.key() = to + offset;
    texts.insert(std::move(node));
  }
}

// Sets a record and frees the text that it owned. If a text is given, the record now owns it.
// Modules are compiled without exceptions, so none may escape.
void set_value(torvasin_value* record, torvasin_value value, owned_text text = nullptr) {
  const std::scoped_lock lock(texts_mutex);
  texts.erase(address_of(record));
  try {
    if (text != nullptr) texts.emplace(address_of(record), std::move(text));
  } catch (const std::bad_alloc&) {
    value.payload.text = "";
  }
  *record = value;
}

bool owns_text(const torvasin_value* record, const char* text) {
  const std::scoped_lock lock(texts_mutex);
  const auto at = texts.find(address_of(record));
  return at != texts.end() && at->second.get() == text;
}

torvasin_value text_value(const char* text) {
  return {TORVASIN_TEXT, {.text = text != nullptr ? text : ""}};
}

}  // namespace

memory_stats get_memory_stats() {
  const std::scoped_lock lock(texts_mutex);
  return {live_blocks, texts.size()};
}

void release_all_texts() {
  const std::scoped_lock lock(texts_mutex);
  texts.clear();
}

void reset_memory_in_child() {
  new (&texts_mutex) std::mutex;
  new (texts_memory) text_map;
}

}  // namespace torvasin_engine

using namespace torvasin_engine;

void* torvasin_malloc(std::size_t size) {
  return torvasin_realloc(nullptr, size);
}

// Locks before the block moves, because another thread may get its old address at once.
void* torvasin_realloc(void* memory, std::size_t size) {
  const std::scoped_lock lock(texts_mutex);
  const std::uintptr_t old = address_of(memory);
  const std::size_t old_size = malloc_usable_size(memory);
  void* block = std::realloc(memory, size);
  if (block == nullptr) return nullptr;
  if (memory == nullptr) ++live_blocks;
  if (address_of(block) != old || size < old_size) {
    move_texts(old, old_size, address_of(block), size);
  }
  return block;
}

void torvasin_free(void* memory) {
  if (memory == nullptr) return;
  const std::scoped_lock lock(texts_mutex);
  move_texts(address_of(memory), malloc_usable_size(memory), 0, 0);
  std::free(memory);
  --live_blocks;
}

void torvasin_valueInitUInt32(torvasin_value* value, std::uint32_t number) {
  set_value(value, {TORVASIN_UINT32, {.uint32 = number}});
}

void torvasin_valueInitInt32(torvasin_value* value, std::int32_t number) {
  set_value(value, {TORVASIN_INT32, {.int32 = number}});
}

void torvasin_valueInitFloat(torvasin_value* value, float number) {
  set_value(value, {TORVASIN_FLOAT, {.float32 = number}});
}

void torvasin_valueInitS(torvasin_value* value, const char* text) {
  owned_text copy(text != nullptr ? strdup(text) : nullptr);
  const torvasin_value kept = text_value(copy.get());
  set_value(value, kept, std::move(copy));
}

void torvasin_valueInitTakeS(torvasin_value* value, char* text, int owned) {
  if (owns_text(value, text)) {
    *value = text_value(text);
    return;
  }
  const bool taken = owned != 0 && text != nullptr;
  if (taken) --live_blocks;
  set_value(value, text_value(text), owned_text(taken ? text : nullptr));
}
