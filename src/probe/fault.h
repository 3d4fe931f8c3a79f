// What the probe finds and how it says so. All of it may be used by any thread.

#ifndef TORVASIN_PROBE_FAULT_H
#define TORVASIN_PROBE_FAULT_H

#include <stddef.h>

#include <atomic>

#include "module/torvasin.h"

namespace torvasin_probe {

extern std::atomic<unsigned> checks;
extern std::atomic<unsigned> faults;

// Says a line on standard error and, unless its level is 0, in the host's log.
[[gnu::format(printf, 2, 3)]] void say(int level, const char* format, ...);

// Checks a sentence of the contract. When the host breaks it, says the first time what it did.
#define EXPECT(kept, contract, ...)                                                           \
  do {                                                                                        \
    static std::atomic<bool> said;                                                            \
    checks++;                                                                                 \
    if (kept) break;                                                                          \
    faults++;                                                                                 \
    if (!said.exchange(true)) say(TORVASIN_LOG_FAILURE, "FAULT: " contract ", " __VA_ARGS__); \
  } while (0)

// While it lives, its thread calls the host, or reads what the host keeps. `what` is a literal.
class step {
 public:
  explicit step(const char* what);
  step(const step&) = delete;
  step& operator=(const step&) = delete;
  ~step();

 private:
  size_t slot_;
};

// Calls a host function. The words of the call name it.
#define CALL(function, ...) \
  (static_cast<void>(step(#function "(" #__VA_ARGS__ ")")), function(__VA_ARGS__))

void pause_ms(long ms);
long milliseconds();  // since some fixed time

// From the first begin_watch to the last end_watch, a crash and a call that waits for seconds are
// faults, and the step of the thread is named. Each takes or ends one use.
void begin_watch();
void end_watch();

}  // namespace torvasin_probe

#endif  // TORVASIN_PROBE_FAULT_H
