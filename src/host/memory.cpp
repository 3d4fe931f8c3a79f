#include "host/memory.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "module/torvasin.h"

namespace torvasin_host {
namespace {

using owned_text = std::unique_ptr<char, decltype([](char* text) { std::free(text); })>;

constexpr int fresh_pattern = 0xA5;

// Blocks from this size on have pages of their own, which the system moves without copying: a table
// that grows by one entry at a time would otherwise be copied as often as it has entries.
constexpr int paged_block = 128 * 1024;
const int paged_block_is_set = mallopt(M_MMAP_THRESHOLD, paged_block);

// Blocks are counted but not listed: a list of them would keep a leak checker from seeing leaks.
std::atomic<std::size_t> live_blocks{0};
std::atomic<std::uint64_t> allocation_calls{0};

std::mutex texts_mutex;
std::map<std::uintptr_t, owned_text> texts;  // by the address of the record

std::uintptr_t address_of(const void* memory) {
  return reinterpret_cast<std::uintptr_t>(memory);
}

// Not inlined: the bytes past the requested size are ours too, as malloc_usable_size tells, but a
// compiler that sees the malloc would take writing them for an overflow.
[[gnu::noinline]] void fill(void* memory, std::size_t begin, std::size_t end) {
  if (begin < end) std::memset(static_cast<char*>(memory) + begin, fresh_pattern, end - begin);
}

void* allocate(std::size_t size) {
  void* memory = std::malloc(std::max<std::size_t>(size, 1));
  if (memory == nullptr) return nullptr;
  fill(memory, 0, malloc_usable_size(memory));
  ++live_blocks;
  return memory;
}

// Takes the texts of the records in the block `from` to the same offsets of the block `to`, as far
// as its size allows, and releases the others. With a `to` of 0 it releases them all. The caller
// holds the lock from before the block moves: its old address may be another block's at once.
void move_texts(std::uintptr_t from, std::size_t from_size, std::uintptr_t to,
                std::size_t to_size) {
  auto at = texts.lower_bound(from);
  while (at != texts.end() && at->first < from + from_size) {
    auto node = texts.extract(at++);
    const std::size_t offset = node.key() - from;
    if (to == 0 || offset + sizeof(torvasin_value) > to_size) continue;
    node.key() = to + offset;
    texts.erase(node.key());  // left by a record in memory that was not this allocator's
    texts.insert(std::move(node));
  }
}

void release(void* block) {
  const std::scoped_lock lock(texts_mutex);
  move_texts(address_of(block), malloc_usable_size(block), 0, 0);
  std::free(block);
  --live_blocks;
}

// Moves the block in any case, so that nobody comes to rely on its staying. Null without memory.
void* move_small(void* block, std::size_t old_size, std::size_t size) {
  void* moved = allocate(size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, std::min(old_size, size));
  std::free(block);
  --live_blocks;
  return moved;
}

void* move_paged(void* block, std::size_t old_size, std::size_t size) {
  void* moved = std::realloc(block, size);
  if (moved != nullptr) fill(moved, old_size, malloc_usable_size(moved));
  return moved;
}

// Sets a record, and makes `text`, or nothing when it is null, what it owns; frees what it owned
// before.
void set_value(torvasin_value* record, const torvasin_value& value, owned_text text = nullptr) {
  const std::scoped_lock lock(texts_mutex);
  texts.erase(address_of(record));
  if (text != nullptr) texts.emplace(address_of(record), std::move(text));
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
  return {live_blocks, texts.size(), allocation_calls};
}

void release_all_texts() {
  const std::scoped_lock lock(texts_mutex);
  texts.clear();
}

}  // namespace torvasin_host

using namespace torvasin_host;

void* torvasin_malloc(std::size_t size) {
  ++allocation_calls;
  return allocate(size);
}

void* torvasin_realloc(void* memory, std::size_t size) {
  ++allocation_calls;
  if (memory == nullptr) return allocate(size);
  const std::scoped_lock lock(texts_mutex);
  const std::uintptr_t old = address_of(memory);
  const std::size_t old_size = malloc_usable_size(memory);
  const bool paged = std::min(old_size, size) >= paged_block;
  void* moved = (paged ? move_paged : move_small)(memory, old_size, size);
  const std::uintptr_t now = address_of(moved);
  if (now != 0 && (now != old || size < old_size)) move_texts(old, old_size, now, size);
  return moved;
}

void torvasin_free(void* memory) {
  if (memory != nullptr) release(memory);
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
