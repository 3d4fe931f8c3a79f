// SIGTERM, SIGINT and SIGHUP, which the main thread takes one at a time. A signal stays ignored if
// the program was started with it ignored.

#ifndef TORVASIN_HOST_SIGNALS_H
#define TORVASIN_HOST_SIGNALS_H

#include <csignal>

namespace torvasin_host {

// Blocks them on this thread, and on every thread created afterwards.
void block_signals();

// Waits up to a second for a signal. Returns its number, or 0. SIGHUP asks for a reload; if it
// comes from a terminal that was closed, SIGTERM is returned instead. For the main thread, after
// block_signals.
int next_signal();

// While it exists, SIGTERM and SIGINT end the process at once, with status 0.
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
