#include "host/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <initializer_list>

namespace torvasin_host {
namespace {

constexpr std::timespec patience = {1, 0};

// The signals that are not ignored. nohup, and "&" in a script, start programs with some ignored.
sigset_t heeded(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    struct sigaction action{};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&set, signal);
  }
  return set;
}

void handle(const sigset_t& signals, void (*handler)(int)) {
  for (const int signal : {SIGTERM, SIGINT}) {
    if (sigismember(&signals, signal) == 1) std::signal(signal, handler);
  }
}

bool has_terminal() {
  const int fd = open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC);
  return fd >= 0 && close(fd) == 0;
}

bool had_terminal = false;

// When a terminal closes, the kernel signals the processes in its foreground, and the shell signals
// the others.
bool is_hang_up(const siginfo_t& info) {
  return info.si_code == SI_KERNEL || (had_terminal && info.si_pid == getsid(0) && !has_terminal());
}

}  // namespace

void block_signals() {
  had_terminal = has_terminal();
  const sigset_t signals = heeded({SIGTERM, SIGINT, SIGHUP});
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int next_signal() {
  const sigset_t signals = heeded({SIGTERM, SIGINT, SIGHUP});
  siginfo_t info{};
  const int signal = std::max(0, sigtimedwait(&signals, &info, &patience));
  return signal == SIGHUP && is_hang_up(info) ? SIGTERM : signal;
}

ended_by_signals::ended_by_signals() {
  const sigset_t signals = heeded({SIGTERM, SIGINT});
  handle(signals, [](int) { _exit(EXIT_SUCCESS); });
  pthread_sigmask(SIG_UNBLOCK, &signals, &before_);
}

ended_by_signals::~ended_by_signals() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  handle(heeded({SIGTERM, SIGINT}), SIG_DFL);
}

}  // namespace torvasin_host
