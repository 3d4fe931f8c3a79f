// SIGTERM, SIGINT and SIGHUP, which the main thread takes one at a time. One that the program was
// started to ignore stays ignored.

#ifndef TORVASIN_HOST_SIGNALS_H
#define TORVASIN_HOST_SIGNALS_H

#include <csignal>

namespace torvasin_host {

// Blocks them here, and in every thread that is made later.
void block_signals();

// Waits for one, a second at most. Returns its number, or 0. SIGHUP asks for a reload; when a
// terminal is closed, it counts as SIGTERM. For the main thread, after block_signals.
int next_signal();

// While it exists, SIGTERM and SIGINT end the process at once, with the status 0.
class ended_by_signals {
 public:
  ended_by_signals();
  ended_by_signals(const ended_by_signals&) = delete;
  ended_by_signals& operator=(const ended_by_signals&) = delete;
  ~ended_by_signals();

 private:
  sigset_t before_{};
};

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_SIGNALS_H
