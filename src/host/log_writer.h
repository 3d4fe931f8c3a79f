// Writes the log of torvasin_host to standard error, each record as one line: time, level, place,
// text. Where standard error is systemd's journal, which has times of its own, a line begins with
// the priority of its level instead, as "<4>".
//
// A thread of its own writes, behind a queue of bounded length that drops its oldest line when it
// is full. So nobody who logs ever waits for the reader, and a reader that stalls or is gone costs
// lines and nothing else.
//
// Above the level trace, engine/log_limit.h limits what a place writes.
//
// Control characters, and octets that are not UTF-8, appear escaped as "\n", "\x1b" or "\u200e";
// so do quotes and backslashes.

#ifndef TORVASIN_HOST_LOG_WRITER_H
#define TORVASIN_HOST_LOG_WRITER_H

#include <spdlog/async_logger.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>

#include "engine/log.h"
#include "engine/log_limit.h"

namespace torvasin_host {

using torvasin_engine::log_record;

class log_writer {
 public:
  // Becomes the sink of the log.
  log_writer();
  log_writer(const log_writer&) = delete;  // the log knows its address
  log_writer& operator=(const log_writer&) = delete;

  ~log_writer() {
    if (!finish()) std::quick_exit(EXIT_FAILURE);
  }

  // Gives the log no sink, and writes what is left. Returns false when the reader does not take it
  // within half a second: a thread is left in a write that may never end, so the process has to end
  // by quick_exit. Does nothing when it is called again.
  bool finish();

  // Writes a line of the program's own, whatever the level of the log. From any thread.
  void write(std::string_view level, std::string_view text);

  // Writes one line for each place whose 10 seconds are over and that left out lines, and one for
  // the lines that the queue dropped. To be called about once a second.
  void write_counts() { write_counts(false); }

 private:
  void take(const log_record& record);
  void write_counts(bool all);

  const bool journal_;
  bool finished_ = false;
  std::shared_ptr<spdlog::details::thread_pool> pool_;
  std::shared_ptr<spdlog::async_logger> logger_;

  std::mutex mutex_;  // guards the next two
  torvasin_engine::log_limit limit_;
  std::size_t lost_ = 0;  // of the dropped lines, those reported
};

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LOG_WRITER_H
