#include "probe/fault.h"

#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <array>

namespace torvasin_probe {

std::atomic<unsigned> checks;
std::atomic<unsigned> faults;

namespace {

constexpr char log_source[] = "src/probe/fault";

// What a thread is doing.
struct step_slot {
  std::atomic<bool> taken;
  std::atomic<pthread_t> thread;
  std::atomic<const char*> what;  // null when there is nothing to tell
  std::atomic<long> since;
};
std::array<step_slot, 32> steps;

constexpr std::array crashes = {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGFPE};
std::array<struct sigaction, crashes.size()> former_actions;

void restore_actions() {
  for (size_t i = 0; i < crashes.size(); i++) sigaction(crashes[i], &former_actions[i], nullptr);
}

// Names the call and gives the signal back. Calls what is async-signal-safe only.
void on_crash(int signal, siginfo_t* info, void*) {
  const auto put = [](const char* text) { return write(STDERR_FILENO, text, strlen(text)) >= 0; };
  for (const step_slot& slot : steps) {
    const char* what = slot.what;
    if (what == nullptr || slot.thread != pthread_self()) continue;
    put("probe: FAULT: no host function crashes, the host crashed in ") && put(what) && put("\n");
  }
  restore_actions();
  if (info->si_code <= 0) raise(signal);  // one that was sent does not come again by itself
}

void find_waiting_calls() {
  constexpr long too_long = 3000;
  for (step_slot& slot : steps) {
    const char* what = slot.what;
    if (what == nullptr || milliseconds() - slot.since < too_long) continue;
    slot.what = nullptr;
    faults++;
    say(0, "FAULT: a host function does not wait, the host spent seconds in %s", what);
  }
}

std::atomic<int> watched;  // instances
pthread_t watcher;

void* watch(void*) {
  for (; watched > 0; pause_ms(100)) find_waiting_calls();
  return nullptr;
}

}  // namespace

void say(int level, const char* format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  dprintf(STDERR_FILENO, "probe: %s\n", line);
  if (level != 0) torvasin_log(level, log_source, __LINE__, 1, "probe: %s", line);
}

step::step(const char* what) : slot_(0) {
  while (slot_ < steps.size() && steps[slot_].taken.exchange(true)) slot_++;
  if (slot_ == steps.size()) return;
  steps[slot_].thread = pthread_self();
  steps[slot_].since = milliseconds();
  steps[slot_].what = what;
}

step::~step() {
  if (slot_ == steps.size()) return;
  steps[slot_].what = nullptr;
  steps[slot_].taken = false;
}

void pause_ms(long ms) {
  const timespec time = {ms / 1000, ms % 1000 * 1'000'000};
  nanosleep(&time, nullptr);
}

long milliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

void begin_watch() {
  if (watched++ > 0) return;
  struct sigaction action = {};
  action.sa_sigaction = on_crash;
  action.sa_flags = SA_SIGINFO;
  for (size_t i = 0; i < crashes.size(); i++) sigaction(crashes[i], &action, &former_actions[i]);
  sigset_t all;  // the host need not have blocked its signals yet
  sigset_t former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  pthread_create(&watcher, nullptr, watch, nullptr);
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

void end_watch() {
  if (--watched > 0) return;
  pthread_join(watcher, nullptr);
  restore_actions();
}

}  // namespace torvasin_probe
