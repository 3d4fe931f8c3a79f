#include "host/log.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "host/export.h"
#include "module/torvasin.h"

namespace torvasin_host {
namespace {

constexpr std::size_t text_size = 4096;
constexpr std::size_t prefix_size = 512;

constexpr std::array level_names = {"", "trace", "warning", "error", "failure"};

const char* level_name(int level) {
  const bool known = level > 0 && level < static_cast<int>(level_names.size());
  return known ? level_names[static_cast<std::size_t>(level)] : "unknown";
}

std::string_view format_prefix(const log_record& record, char (&prefix)[prefix_size]) {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  const std::size_t stamp_length = std::strftime(stamp, sizeof stamp, "%F %T", &local);
  const int length = std::snprintf(prefix, sizeof prefix, "%.*s.%03ld %s %s:%d ",
                                   static_cast<int>(stamp_length), stamp, now.tv_nsec / 1'000'000,
                                   level_name(record.level), record.source, record.line);
  return {prefix, std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof prefix - 1)};
}

iovec part_of(std::string_view text) {
  return {const_cast<char*>(text.data()), text.size()};
}

void write_line(const log_record& record, void*) {
  char prefix[prefix_size];
  std::string_view text = record.text;
  if (text.ends_with('\n')) text.remove_suffix(1);
  // One system call, so that lines of several threads and processes do not mix.
  const iovec parts[] = {part_of(format_prefix(record, prefix)), part_of(text), part_of("\n")};
  [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, std::size(parts));
}

std::atomic<int> lowest_level{TORVASIN_LOG_WARNING};

std::mutex sink_mutex;
log_sink current_sink = write_line;
void* current_user = nullptr;

}  // namespace

void set_log_level(int level) {
  lowest_level.store(level, std::memory_order_relaxed);
}

void set_log_sink(log_sink sink, void* user) {
  const std::scoped_lock lock(sink_mutex);
  current_sink = sink != nullptr ? sink : write_line;
  current_user = user;
}

}  // namespace torvasin_host

using namespace torvasin_host;

TORVASIN_HOST_EXPORT void torvasin_log(int level, const char* source, int line, int flag,
                                       const char* format, ...) {
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
  current_sink({level, source, line, flag, {text, length}}, current_user);
}
