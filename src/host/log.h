// The host's log. Implements torvasin_log of module/torvasin.h, callable from any thread: a line
// whose level is too low is dropped at the price of one atomic load, any other is formatted on the
// stack, cut to 4 KiB with "..." at its end, and handed to the sink.

#ifndef TORVASIN_HOST_LOG_H
#define TORVASIN_HOST_LOG_H

#include <string_view>

namespace torvasin_host {

struct log_record {
  int level;              // enum torvasin_log_level
  const char* source;     // path of the emitting code, without its extension
  int line;               // its source line
  int flag;               // as the caller gave it
  std::string_view text;  // formatted; valid only during the call of the sink
};

// Called for one record at a time, on the thread that logs. It must not log itself.
using log_sink = void (*)(const log_record& record, void* user);

// The lowest level that is logged, 2 (warnings) at first; 5 silences the log.
void set_log_level(int level);

// Replaces the sink; once it returns, the old one is not called any more. Null brings the first one
// back, which writes each record as one line to standard error.
void set_log_sink(log_sink sink, void* user);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LOG_H
