// The engine's log. Implements torvasin_log of module/torvasin.h, callable from any thread. A line
// whose level is too low costs one atomic load. Any other is formatted on the stack, cut to 4 KiB
// with "..." at its end, and passed to the sink. Without a sink it is dropped.

#ifndef TORVASIN_ENGINE_LOG_H
#define TORVASIN_ENGINE_LOG_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace torvasin_engine {

// Above every enum torvasin_log_level. As the lowest level, it silences the log.
constexpr int log_off = 5;

// By level; there is no level 0.
inline constexpr std::array log_level_names = {"", "trace", "warning", "error", "failure", "off"};

struct log_record {
  int level;              // enum torvasin_log_level
  const char* source;     // path of the emitting code, without its extension
  int line;               // its source line
  std::string_view text;  // formatted, before a zero; valid only during the call of the sink
};

// Called for one record at a time, on the thread that logs. It must not log. If it throws, the
// record is lost: the caller may be a module, which no exception can pass.
using log_sink = void (*)(const log_record& record, void* user);

// Sets the lowest level that is logged; initially 2, warnings.
void set_log_level(int level);

// Replaces the sink. Once it returns, the old one is not called any more. Null, as initially: none.
void set_log_sink(log_sink sink, void* user);

// Captures what its own thread logs while it exists. At most one per thread.
class log_capture {
 public:
  // What happens to the lines: the sink gets them at once, or not before release.
  enum handling : bool { pass, hold };

  explicit log_capture(handling lines);
  log_capture(const log_capture&) = delete;  // the log knows its address
  log_capture& operator=(const log_capture&) = delete;
  ~log_capture();

  // The text of the latest line of level error or above, whatever the level of the log. Empty if
  // there was none.
  const std::string& last_words() const { return last_words_; }

  // Passes the held lines to the sink. Lines logged later are held again.
  void release();

  // Called by the log. Returns whether the line is held.
  bool take(const log_record& record);

 private:
  struct line {
    log_record record;
    std::string text;
  };
  const bool holds_;
  std::string last_words_;
  std::vector<line> held_;
};

// For a forked child: resets a lock that another thread of the parent may have held.
void reset_log_in_child();

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_LOG_H
