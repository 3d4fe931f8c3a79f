// The duties of a host that a module can observe, and what the probe has seen of each. Also what
// each thread is doing, so that reports of a crash or a wait say where. Any thread may use it.

#ifndef TORVASIN_PROBE_DUTIES_H
#define TORVASIN_PROBE_DUTIES_H

#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "module/torvasin.h"

namespace torvasin_probe {

#define TORVASIN_LOCK_WORDS                                        \
  "No host function except torvasin_engine_rmCallbackMeterManager" \
  " may take a lock that the host holds during a callback"

// Each row: an id, and the words of torvasin.h that state the duty.
#define TORVASIN_DUTIES(DUTY)                                                              \
  DUTY(returns, "It must return: no exception or longjmp may leave it")                    \
  DUTY(waits, "the function must not wait")                                                \
  DUTY(lock, TORVASIN_LOCK_WORDS)                                                          \
  DUTY(log_lock, TORVASIN_LOCK_WORDS)                                                      \
  DUTY(calls, "It must not call an entry or a callback")                                   \
  DUTY(threads, "Several threads may call it at once if several run entries or callbacks") \
  DUTY(aligned, "Blocks are aligned like those of malloc")                                 \
  DUTY(blocks, "belong to the module until it frees them")                                 \
  DUTY(content, "The content is kept up to the smaller of the two sizes")                  \
  DUTY(grows, "with null it does the same as torvasin_malloc")                             \
  DUTY(refusal, "When the result is null, the old block is unchanged")                     \
  DUTY(moves, "the texts of the torvasin_value records in it stay valid")                  \
  DUTY(records, "Reading the record gives the same value until it is set again")           \
  DUTY(copies, "InitS copies the text, which the caller may free afterwards")              \
  DUTY(borrowed, "the host does not write to it")                                          \
  DUTY(keys, "They compare keys octet by octet")                                           \
  DUTY(get, "they set the out-parameter and return 0")                                     \
  DUTY(get_text, "GetS: TORVASIN_TEXT only")                                               \
  DUTY(get_number, "GetIU: TORVASIN_UINT32, and TORVASIN_INT32 with the same 32 bits")     \
  DUTY(texts, "their texts are never null")                                                \
  DUTY(unchanged, "the host keeps the list, its values and their texts unchanged")         \
  DUTY(list, "The host calls it with a list, which must not be null")                      \
  DUTY(user, "user is what was registered with it")                                        \
  DUTY(fast, "the host keeps calling the callback until it calls preStopCycle")            \
  DUTY(slow, "the host keeps calling the callback until it calls preStopCycle")            \
  DUTY(others, "Removes a registration of this engine; others stay")                       \
  DUTY(idle, "Waits until no call for this registration is in progress")                   \
  DUTY(after, "none begins afterwards")                                                    \
  DUTY(anew, "The same callback may be registered again later")                            \
  DUTY(name, "for messages; NUL-terminated")                                               \
  DUTY(address, "every entry gets this address")                                           \
  DUTY(context, "the host changes neither name nor engine nor private_data")               \
  DUTY(single, "The host calls the entries of one instance one at a time")                 \
  DUTY(order, "The order is startCycle, startThread, preStopCycle, stopCycle")             \
  DUTY(stopped, "startThread may be left out, the others may not")

#define TORVASIN_DUTY_ID(id, words) duty_##id,
enum duty : size_t { TORVASIN_DUTIES(TORVASIN_DUTY_ID) };
#define TORVASIN_DUTY_ROW(id, words) {#id, words},
constexpr const char* duties[][2] = {TORVASIN_DUTIES(TORVASIN_DUTY_ROW)};

// Callbacks use this order: a stronger one would order the host's threads where the host does not,
// and so hide its races from a sanitizer.
constexpr auto relaxed = std::memory_order_relaxed;

// Times are those of milliseconds().
struct thread_state {
  std::atomic<const char*> what;  // what the thread is doing, a literal; null in the probe's code
  std::atomic<long> since;        // when that began, or when the last step inside it ended
  std::atomic<duty> on_crash;     // the duty that a crash breaks
  std::atomic<long> given_up;     // when a callback gave up waiting for the end of this step
  bool is_watch;
  std::atomic<bool> taken;  // by a thread
};
inline std::array<thread_state, 1024> states;  // threads above 1024 at a time share the last one

[[gnu::tls_model("initial-exec")]] inline thread_local thread_state* mine;

inline thread_state& this_thread() {
  using taken = std::unique_ptr<thread_state, decltype([](auto* one) { one->taken = false; })>;
  static thread_local const taken one(
      std::find_if(states.begin(), states.end() - 1,
                   [](auto& state) { return !state.taken.exchange(true, relaxed); }));
  return *(mine = one.get());
}

inline long milliseconds() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

enum verdict { not_tried, kept, broken };
inline std::array<std::atomic<verdict>, std::size(duties)> verdicts;
inline std::atomic<bool> news;
inline std::atomic<int> started_instances;  // torvasin_log may be called while this is above 0

void log(int level, const char* text, int line = __builtin_LINE());

// Prints a line on standard error, and logs it to the host if the level is not 0.
[[gnu::format(printf, 2, 3)]] inline void say(int level, const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  dprintf(STDERR_FILENO, "probe: %s\n", line);
  if (level != 0 && started_instances > 0 && !this_thread().is_watch) log(level, line);
}

// Records that the host kept or broke a duty. Returns the row of a duty broken for the first time,
// otherwise null.
inline const char* const* judge(duty one, bool keeps) {
  verdict former = not_tried;
  auto& now = verdicts[one];
  const bool first = keeps ? now.compare_exchange_strong(former, kept, relaxed)
                           : now.exchange(broken, relaxed) != broken;
  if (first) news.store(true, relaxed);
  return first && !keeps ? duties[one] : nullptr;
}

// Judges a duty. When it is broken for the first time, says its words, "but" and what was seen.
#define EXPECT(one, keeps, seen, ...)                               \
  if (const auto* row = judge(one, keeps))                          \
  say(TORVASIN_LOG_FAILURE, "FAULT: %s: \"%s\", but " seen, row[0], \
      row[1] __VA_OPT__(, ) __VA_ARGS__)

// Lists the duties as kept, broken or not tried, unless nothing changed since the last list.
// Returns whether any is broken.
inline bool report_duties() {
  constexpr std::array titles = {"not tried", "kept", "broken"};
  std::array<int, titles.size()> counts = {};
  std::array<std::string, titles.size()> ids;
  const bool quiet = !news.exchange(false);
  for (size_t i = 0; i < std::size(duties); i++) {
    const verdict now = verdicts[i];
    if (!quiet) say(0, "%-9s %s: \"%s\"", titles[now], duties[i][0], duties[i][1]);
    ids[now].append(counts[now]++ == 0 ? ": " : ", ").append(duties[i][0]);
  }
  if (quiet) return counts[broken] > 0;
  say(TORVASIN_LOG_WARNING, "%d duties kept, %d broken%s; %d not tried%s", counts[kept],
      counts[broken], ids[broken].c_str(), counts[not_tried], ids[not_tried].c_str());
  return counts[broken] > 0;
}

// What its thread does while this object exists. `slow` counts the calls of a function that is slow
// so far; a quick call sets it far below 0.
struct step {
  explicit step(const char* what, duty on_crash, std::atomic<int>* slow = nullptr)
      : state(this_thread()), outer(state.what), slow_calls(slow) {
    state.on_crash.store(on_crash, relaxed);
    state.since.store(milliseconds(), relaxed);
    state.what.store(what, std::memory_order_release);  // the watch reads it before `since`
  }
  ~step() {
    const long now = milliseconds();
    const char* what = state.what.exchange(outer, std::memory_order_release);
    const bool quick = now - state.since.exchange(now, relaxed) < 20;
    if (slow_calls == nullptr) return;
    judge(duty_returns, true);
    if (quick) judge(duty_waits, true), slow_calls->store(-1'000'000'000, relaxed);
    // A busy machine alone does not slow down all of the first five calls.
    const bool all_slow = slow_calls->fetch_add(1, relaxed) == 4;
    if (all_slow) EXPECT(duty_waits, false, "20 ms passed each time %s", what);
    const bool until_given_up = now - state.given_up.exchange(0, relaxed) < 500;
    const duty lock = strstr(what, "_log") != nullptr ? duty_log_lock : duty_lock;
    if (until_given_up) EXPECT(lock, false, "until a callback ended, a thread was stuck %s", what);
  }
  thread_state& state;
  const char* const outer;
  std::atomic<int>* const slow_calls;
};

// Calls a host function. The literal of CALL_OF says what is special about the call.
#define CALL(function, ...) CALL_OF("", function, __VA_ARGS__)
#define CALL_OF(special, function, ...)                                                    \
  (static_cast<void>(step("in " #function special, duty_returns, &slow_calls<&function>)), \
   function(__VA_ARGS__))
template <auto function>
inline std::atomic<int> slow_calls;

inline void log(int level, const char* text, int line) {
  static std::array<std::atomic<int>, TORVASIN_LOG_FAILURE + 1> slow;
  const step here("in torvasin_log", duty_returns, &slow[static_cast<size_t>(level)]);
  torvasin_log(level, "src/probe/probe", line, 1, "probe: %s", text);
}

// Starts a thread that handles none of the host's signals.
inline std::thread start_thread(void (*run)(void*), void* user) {
  sigset_t all, former;
  sigfillset(&all);
  for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&all, own);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  std::thread thread(run, user);
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  return thread;
}

constexpr std::array crashes = {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGFPE};
inline std::array<struct sigaction, crashes.size()> former_actions;

// Prints what the thread was doing, and restores the host's handlers. Calls only async-signal-safe
// functions.
inline void on_crash(int signal, siginfo_t* info, void*) {
  const char* what = mine != nullptr ? mine->what.load() : nullptr;
  const auto& row = duties[mine != nullptr ? mine->on_crash.load() : duty_returns];
  for (const char* text :
       {"probe: FAULT: ", row[0], ": \"", row[1], "\", but it crashed ", what, "\n"}) {
    if (what == nullptr || write(STDERR_FILENO, text, strlen(text)) < 0) break;
  }
  for (size_t i = 0; i < crashes.size(); i++) sigaction(crashes[i], &former_actions[i], nullptr);
  if (info->si_code <= 0) raise(signal);  // one that was sent does not recur by itself
}

inline const auto is_removal = [](const char* what) { return strstr(what, "_rmC") != nullptr; };

inline void watch(void*) {
  for (this_thread().is_watch = true;; usleep(100'000)) {
    for (const thread_state& one : states) {
      const char* what = one.what;
      const long passed = milliseconds() - one.since;
      if (what == nullptr || passed < (is_removal(what) ? 10'000 : 3000)) continue;
      EXPECT(duty_waits, false, "%ld ms passed %s", passed, what);
    }
  }
}

// For the end of a callback: waits until the host functions that other threads are in return, up to
// two seconds. One that returns only after the callback gave up and ended was waiting for a lock
// that the host holds during callbacks.
inline void outlast_calls() {
  for (thread_state& one : states) {
    const long limit = milliseconds() + 2000;
    const char* what = one.what.load(relaxed);
    const long since = one.since.load(relaxed);
    while (what != nullptr && !is_removal(what) && one.what.load(relaxed) == what &&
           one.since.load(relaxed) == since) {
      if (milliseconds() > limit) return one.given_up.store(limit, relaxed);
      usleep(1000);
    }
  }
}

// From now until the process ends, reports crashes and calls that take seconds.
inline void begin_watch() {
  struct sigaction action = {};
  action.sa_sigaction = on_crash;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  for (size_t i = 0; i < crashes.size(); i++) sigaction(crashes[i], &action, &former_actions[i]);
  start_thread(watch, nullptr).detach();
}

}  // namespace torvasin_probe

#endif  // TORVASIN_PROBE_DUTIES_H
