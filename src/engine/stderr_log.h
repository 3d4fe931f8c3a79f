// Writes the log to standard error, each record as one line. No caller ever waits for a reader: a
// line that a pipe, a socket or a terminal does not take at once is lost, and a later line tells
// how many were. A file on a disk takes a line into the page cache; the call waits as long as the
// kernel holds back writes to that disk.
//
// log_limit.h limits what a place writes, except at the level trace.

#ifndef TORVASIN_ENGINE_STDERR_LOG_H
#define TORVASIN_ENGINE_STDERR_LOG_H

#include <mutex>
#include <string>
#include <string_view>

#include "engine/log.h"
#include "engine/log_limit.h"

namespace torvasin_engine {

class stderr_log {
 public:
  // Makes a line, without its line feed. The head is "LEVEL PLACE:LINE", or the level alone of a
  // line that the program writes itself. The text can contain any octets. A line that is longer
  // than a pipe takes in one piece, 4 KiB, is cut.
  using line_maker = std::string (*)(std::string_view head, std::string_view text);

  explicit stderr_log(line_maker make) : make_(make) {}
  stderr_log(const stderr_log&) = delete;  // the log knows its address
  stderr_log& operator=(const stderr_log&) = delete;

  // Leaves the log without a sink, and writes the counts of all places.
  ~stderr_log();

  // Takes all that is logged from now on.
  void become_sink();

  // Writes a line whatever the level of the log. From any thread.
  void write(std::string_view head, std::string_view text);

  // Tells of lost lines, and of places whose 10 seconds are over. To be called about once a second;
  // without calls, the next record that is logged does the same.
  void write_counts();

 private:
  void take(const log_record& record);
  void report_counts(log_limit::clock::time_point now);
  void write_or_lose(std::string_view head, std::string_view text);
  bool put(std::string_view head, std::string_view text);

  const line_maker make_;
  std::mutex mutex_;  // guards the rest
  log_limit limit_;
  unsigned lost_ = 0;  // lines, since the last one that told of them
  bool cut_ = false;   // the last octet written does not end a line
};

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_STDERR_LOG_H
