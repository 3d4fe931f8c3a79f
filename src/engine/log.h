// The engine's log. Implements torvasin_log of module/torvasin.h, callable from any thread: a line
// whose level is too low is dropped at the price of one atomic load, any other is formatted on the
// stack, cut to 4 KiB with "..." at its end, and handed to the sink. Without a sink it is dropped.

#ifndef TORVASIN_ENGINE_LOG_H
#define TORVASIN_ENGINE_LOG_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace torvasin_engine {

// Above every enum torvasin_log_level: as the lowest level, it silences the log.
constexpr int log_off = 5;

// By level; there is no level 0.
inline constexpr std::array log_level_names = {"", "trace", "warning", "error", "failure", "off"};

struct log_record {
  int level;              // enum torvasin_log_level
  const char* source;     // path of the emitting code, without its extension
  int line;               // its source line
  std::string_view text;  // formatted, before a zero; valid only during the call of the sink
};

// Called for one record at a time, on the thread that logs. It must not log itself. If it throws,
// the record is lost: the frames below may be a module's, which no exception can pass.
using log_sink = void (*)(const log_record& record, void* user);

// The lowest level that is logged, 2 (warnings) at first.
void set_log_level(int level);

// Replaces the sink; once it returns, the old one is not called any more. Null: there is none, as
// at first.
void set_log_sink(log_sink sink, void* user);

// Notes what its own thread logs while it exists. One may exist for a thread at a time.
class log_capture {
 public:
  // What to do with the lines: hand them over as ever, or keep them back.
  enum handling : bool { pass, hold };

  explicit log_capture(handling lines);
  log_capture(const log_capture&) = delete;  // the log knows its address
  log_capture& operator=(const log_capture&) = delete;
  ~log_capture();

  // The text of the latest line of the level error or above, whatever the level of the log, or an
  // empty text.
  const std::string& last_words() const { return last_words_; }

  // Hands over what was held. It holds what comes later.
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

// In a forked child: forgets a lock that a thread of the parent may have held.
void reset_log_in_child();

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_LOG_H
