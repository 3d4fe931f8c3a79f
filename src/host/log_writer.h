// Writes the log of torvasin_host to standard error, each record as one line: time, level, place,
// text. Where standard error is systemd's journal, which has times of its own, a line begins with
// the priority of its level instead, as "<4>".
//
// A thread of its own writes, behind a queue of bounded length that drops its oldest line when it
// is full. So nobody who logs ever waits for the reader, and a reader that stalls or is gone costs
// lines and nothing else.
//
// A place is a statement that logs. Above the level trace a place writes no line that repeats its
// last one, and no more than 20 lines in 10 seconds; the others are counted, so that a flood of bad
// datagrams does not fill a disk.
//
// Control characters, and octets that are not UTF-8, appear escaped as "\n", "\x1b" or "\u200e";
// so do quotes and backslashes.

#ifndef TORVASIN_HOST_LOG_WRITER_H
#define TORVASIN_HOST_LOG_WRITER_H

#include <spdlog/async_logger.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "engine/log.h"

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
  void write_counts() { write_counts(std::chrono::steady_clock::now() - tally_period); }

 private:
  using clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds tally_period{10};

  struct tally {
    clock::time_point since = clock::now();
    std::string head;  // level and place, as a line has them
    std::string last;  // text of the last line that was written
    unsigned written = 0;
    unsigned left_out = 0;
  };

  void take(const log_record& record);
  bool admit(tally& place, const log_record& record);
  void write_counts(clock::time_point until);

  const bool journal_;
  bool finished_ = false;
  std::shared_ptr<spdlog::details::thread_pool> pool_;
  std::shared_ptr<spdlog::async_logger> logger_;

  std::mutex mutex_;                                      // guards the next one
  std::map<std::pair<const char*, int>, tally> tallies_;  // by source and line
  std::size_t lost_ = 0;                                  // of the dropped lines, those reported
};

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LOG_WRITER_H
