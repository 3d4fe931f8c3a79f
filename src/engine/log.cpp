#include "engine/log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "module/torvasin.h"

namespace torvasin_engine {
namespace {

constexpr std::size_t text_size = 4096;

std::atomic<int> lowest_level{TORVASIN_LOG_WARNING};

std::mutex sink_mutex;
log_sink current_sink = nullptr;
void* current_user = nullptr;

}  // namespace

void set_log_level(int level) {
  lowest_level.store(level, std::memory_order_relaxed);
}

void set_log_sink(log_sink sink, void* user) {
  const std::scoped_lock lock(sink_mutex);
  current_sink = sink;
  current_user = user;
}

}  // namespace torvasin_engine

using namespace torvasin_engine;

void torvasin_log(int level, const char* source, int line, int /*flag*/, const char* format, ...) {
  if (level < lowest_level.load(std::memory_order_relaxed)) return;

  char text[text_size];
  std::va_list arguments;
  va_start(arguments, format);
  const int result = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);

  auto length = static_cast<std::size_t>(std::max(result, 0));
  if (length >= sizeof text) {
    length = sizeof text - 1;
    std::memcpy(text + length - 3, "...", 3);  // NOLINT(bugprone-not-null-terminated-result)
  }
  const std::scoped_lock lock(sink_mutex);
  if (current_sink == nullptr) return;
  try {
    current_sink({level, source, line, {text, length}}, current_user);
  } catch (...) {
    return;  // the line is lost: nothing may pass through the module's frames
  }
}
