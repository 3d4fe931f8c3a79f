#include "host/log_writer.h"

#include <fmt/format.h>
#include <pthread.h>
#include <spdlog/async.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include "host/printable.h"
#include "module/torvasin.h"

namespace torvasin_host {

using namespace torvasin_engine;

namespace {

constexpr std::size_t queue_lines = 4096;
constexpr std::chrono::milliseconds patience{500};

std::string head_of(const log_record& record) {
  const bool known = record.level > 0 && record.level < log_off;
  const auto* level = known ? log_level_names[static_cast<std::size_t>(record.level)] : "unknown";
  return fmt::format("{} {}:{}", level, record.source, record.line);
}

// Whether standard error is the journal; then JOURNAL_STREAM has its device and inode.
bool is_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat file{};
  return stream != nullptr && fstat(STDERR_FILENO, &file) == 0 &&
         stream == fmt::format("{}:{}", file.st_dev, file.st_ino);
}

// The priority of a line, by its level.
int priority_of(std::string_view line) {
  if (line.starts_with("trace")) return LOG_DEBUG;
  if (line.starts_with("warning")) return LOG_WARNING;
  if (line.starts_with("error")) return LOG_ERR;
  return line.starts_with("failure") ? LOG_CRIT : LOG_NOTICE;
}

}  // namespace

log_writer::log_writer()
    : journal_(is_journal()),
      pool_(std::make_shared<spdlog::details::thread_pool>(
          queue_lines, 1, [] { pthread_setname_np(pthread_self(), "log"); })),
      logger_(std::make_shared<spdlog::async_logger>(
          "", std::make_shared<spdlog::sinks::stderr_sink_mt>(), pool_,
          spdlog::async_overflow_policy::overrun_oldest)) {
  logger_->set_pattern(journal_ ? "%v" : "%Y-%m-%d %T.%e %v");
  set_log_sink(
      [](const log_record& record, void* self) { static_cast<log_writer*>(self)->take(record); },
      this);
}

bool log_writer::finish() {
  if (std::exchange(finished_, true)) return true;
  set_log_sink(nullptr, nullptr);
  write_counts(true);
  // The end of the pool writes the whole queue, and would wait for a stalled reader for ever.
  std::promise<void> promise;
  const std::future<void> written = promise.get_future();
  try {
    std::thread([this, promise = std::move(promise)]() mutable {
      pool_.reset();
      promise.set_value();
    }).detach();
  } catch (const std::system_error&) {  // no thread to wait for: give the pool's own the time
    std::this_thread::sleep_for(patience);
    return false;
  }
  return written.wait_for(patience) == std::future_status::ready;
}

void log_writer::write(std::string_view level, std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  const std::string priority = journal_ ? fmt::format("<{}>", priority_of(level)) : "";
  logger_->info("{}{} {}", priority, level, printable(text));
}

void log_writer::take(const log_record& record) {
  if (record.level > TORVASIN_LOG_TRACE) {
    const std::scoped_lock lock(mutex_);
    if (!limit_.admit(record)) return;
  }
  write(head_of(record), record.text);
}

void log_writer::write_counts(bool all) {
  const std::scoped_lock lock(mutex_);
  const auto report = [this](const log_record& last, unsigned left_out) {
    write(head_of(last), fmt::format("{} more lines like: {}", left_out, last.text));
  };
  limit_.write_counts(report, all);
  // As long as the queue is full another line would only drop one more.
  const std::size_t lost = pool_->overrun_counter();
  const bool room = pool_->queue_size() < queue_lines / 2 || all;
  if (lost == lost_ || !room) return;
  write("warning",
        fmt::format("{} lines of the log are lost, its reader is too slow", lost - lost_));
  lost_ = lost;
}

}  // namespace torvasin_host
