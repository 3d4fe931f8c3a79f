#include "engine/meter_engine.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

namespace torvasin_engine {

void* meter_engine::add_callback(int speed, torvasin_meter_callback callback, void* user) {
  if ((speed != TORVASIN_SLOW && speed != TORVASIN_FAST) || callback == nullptr) return nullptr;
  const std::scoped_lock lock(mutex_);
  registrations_.emplace(++last_id_, registration{speed, callback, user});
  return reinterpret_cast<void*>(last_id_);  // NOLINT(performance-no-int-to-ptr): never followed
}

void meter_engine::remove_callback(void* handle) {
  const auto id = reinterpret_cast<std::uintptr_t>(handle);
  std::unique_lock lock(mutex_);
  // Looked up anew each time, because another thread may remove the same handle meanwhile.
  idle_.wait(lock, [&] {
    const auto at = registrations_.find(id);
    if (at == registrations_.end()) return true;
    at->second.leaving = true;
    return at->second.calls == 0;
  });
  registrations_.erase(id);
}

void meter_engine::publish(int speed, const torvasin_key_value_list& list) {
  std::unique_lock lock(mutex_);
  // Additions and removals during a call do not disturb the iteration: the record of a call in
  // progress is never erased, and the loop moves on only under the lock.
  for (auto& [id, record] : registrations_) {
    if (record.speed != speed || record.leaving) continue;
    ++record.calls;
    lock.unlock();
    record.callback(&list, record.user);
    lock.lock();
    if (--record.calls == 0 && record.leaving) idle_.notify_all();
  }
}

std::size_t meter_engine::registrations() const {
  const std::scoped_lock lock(mutex_);
  return registrations_.size();
}

void publish_meters(const meter_publisher& publisher, int speed) {
  const auto fail = [](const char* reason) {
    torvasin_log(TORVASIN_LOG_FAILURE, "src/engine/meter_engine", __LINE__, 1,
                 "meters cannot be read: %s", reason);
  };
  try {
    publisher(speed);
  } catch (const std::exception& error) {
    fail(error.what());
  } catch (...) {
    fail("unknown exception");
  }
}

namespace {

using clock = std::chrono::steady_clock;

struct schedule {
  int speed;
  std::chrono::milliseconds period;
  clock::time_point next;
};

// While one exists, this thread and those that it starts block the signals that others send, but
// not those that an instruction causes.
class signals_blocked {
 public:
  signals_blocked() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
      sigdelset(&signals, fault);
    }
    pthread_sigmask(SIG_SETMASK, &signals, &before_);
  }
  signals_blocked(const signals_blocked&) = delete;
  signals_blocked& operator=(const signals_blocked&) = delete;
  ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

// Takes no memory of its own: without it, the process would end here.
void run(const std::stop_token& stop, std::condition_variable_any& stopped,
         std::vector<schedule>& speeds, const meter_publisher& publisher) {
  std::mutex mutex;
  std::unique_lock lock(mutex);
  for (;;) {
    schedule& due = *std::ranges::min_element(speeds, {}, &schedule::next);
    stopped.wait_until(lock, stop, due.next, [] { return false; });
    if (stop.stop_requested()) return;
    publish_meters(publisher, due.speed);
    due.next = std::max(due.next + due.period, clock::now());  // missed periods are skipped
  }
}

}  // namespace

meter_thread::meter_thread(const char* name, unsigned fast_ms, unsigned slow_ms,
                           meter_publisher publisher) {
  std::vector<schedule> speeds;
  for (const auto& [speed, ms] : {std::pair(TORVASIN_FAST, fast_ms), {TORVASIN_SLOW, slow_ms}}) {
    const std::chrono::milliseconds period(ms);
    if (ms > 0) speeds.push_back({speed, period, clock::now() + period});
  }
  if (speeds.empty()) return;
  const signals_blocked blocked;
  try {
    thread_ = std::jthread(
        [this, speeds, publisher = std::move(publisher)](const std::stop_token& stop) mutable {
          run(stop, stopped_, speeds, publisher);
        });
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "no thread for the meters");
  }
  pthread_setname_np(thread_.native_handle(), name);
}

void meter_engine::start(unsigned fast_ms, unsigned slow_ms, const meter_source& source) {
  stop();
  const auto start_one = [&](const char* name, int speed, unsigned fast, unsigned slow) {
    meter_publisher publisher = [this, source](int speed_due) {
      torvasin_key_value_list list;
      source(speed_due, list);
      publish(speed_due, list);
    };
    publish_meters(publisher, speed);
    threads_.push_back(std::make_unique<meter_thread>(name, fast, slow, std::move(publisher)));
  };
  start_one("meters-fast", TORVASIN_FAST, fast_ms, 0);
  start_one("meters-slow", TORVASIN_SLOW, 0, slow_ms);
}

}  // namespace torvasin_engine

using torvasin_engine::meter_engine;

void* torvasin_engine_addCallbackMeterManager(void* engine, int speed,
                                              torvasin_meter_callback callback, void* user) {
  if (engine == nullptr) return nullptr;
  try {
    return static_cast<meter_engine*>(engine)->add_callback(speed, callback, user);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void torvasin_engine_rmCallbackMeterManager(void* engine, void* registration) {
  if (engine != nullptr) static_cast<meter_engine*>(engine)->remove_callback(registration);
}
