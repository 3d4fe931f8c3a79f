// Keeps a flood of bad datagrams from filling a disk. A place is a statement that logs: in 10
// seconds it writes at most 20 lines, and none that repeats its last one. The others are counted.
// Not safe for several threads at once.

#ifndef TORVASIN_ENGINE_LOG_LIMIT_H
#define TORVASIN_ENGINE_LOG_LIMIT_H

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "engine/log.h"

namespace torvasin_engine {

class log_limit {
 public:
  // Receives the last line that a place wrote, and how many more it left out.
  using report = std::function<void(const log_record& last, unsigned left_out)>;

  using clock = std::chrono::steady_clock;

  // Whether to write a line.
  bool admit(const log_record& record, clock::time_point now = clock::now());

  // Reports the places whose 10 seconds are over, and forgets them.
  void write_counts(const report& report_one, clock::time_point now = clock::now());

 private:
  struct tally {
    clock::time_point since;
    int level = 0;
    std::string last;  // text of the last line that was written
    unsigned written = 0;
    unsigned left_out = 0;
  };

  std::map<std::pair<const char*, int>, tally> tallies_;  // by source and line
};

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_LOG_LIMIT_H
