#include "engine/log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "module/torvasin.h"

namespace torvasin_engine {
namespace {

constexpr std::size_t text_size = 4096;

std::atomic<int> lowest_level{TORVASIN_LOG_WARNING};

std::mutex sink_mutex;
log_sink current_sink = nullptr;
void* current_user = nullptr;

// In the memory that each thread has from its start, so that the first use in a thread neither
// waits nor fails, even in a library that was loaded late.
[[gnu::tls_model("initial-exec")]] thread_local log_capture* capture = nullptr;

bool is_logged(int level) {
  return level >= lowest_level.load(std::memory_order_relaxed);
}

void hand_over(const log_record& record) {
  const std::scoped_lock lock(sink_mutex);
  if (current_sink != nullptr) current_sink(record, current_user);
}

}  // namespace

void set_log_level(int level) {
  lowest_level.store(level, std::memory_order_relaxed);
}

void set_log_sink(log_sink sink, void* user) {
  const std::scoped_lock lock(sink_mutex);
  current_sink = sink;
  current_user = user;
}

log_capture::log_capture(handling lines) : holds_(lines == hold) {
  capture = this;
}

log_capture::~log_capture() {
  capture = nullptr;
}

bool log_capture::take(const log_record& record) {
  if (record.level >= TORVASIN_LOG_ERROR) last_words_ = record.text;
  if (holds_ && is_logged(record.level)) held_.push_back({record, std::string(record.text)});
  return holds_;
}

void log_capture::release() {
  for (line& each : std::exchange(held_, {})) {
    each.record.text = each.text;
    try {
      hand_over(each.record);
    } catch (...) {
      continue;  // this line is lost
    }
  }
}

void reset_log_in_child() {
  new (&sink_mutex) std::mutex;
}

}  // namespace torvasin_engine

using namespace torvasin_engine;

void torvasin_log(int level, const char* source, int line, int /*flag*/, const char* format, ...) {
  if (!is_logged(level) && (level < TORVASIN_LOG_ERROR || capture == nullptr)) return;

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
  const log_record record = {level, source, line, {text, length}};
  try {
    if (capture != nullptr && capture->take(record)) return;
    if (is_logged(level)) hand_over(record);
  } catch (...) {
    return;  // the line is lost: no exception may pass through the module
  }
}
