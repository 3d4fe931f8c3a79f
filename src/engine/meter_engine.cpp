#include "engine/meter_engine.h"

#include <pthread.h>

#include <algorithm>
#include <exception>
#include <new>
#include <system_error>

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
  // Another removal of the same handle may erase the record meanwhile: it is looked up anew.
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
  // The record of a call in progress is never erased, and the lock is held again before the loop
  // leaves it: the iteration survives additions and removals during the call.
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

void meter_engine::start(unsigned fast_ms, unsigned slow_ms, const meter_source& source) {
  stop();
  const auto start_one = [&](int speed, unsigned period_ms) {
    const std::chrono::milliseconds period(period_ms);
    publish_values(speed, source);
    threads_.emplace_back(
        [=, this](const std::stop_token& stop) { run(stop, speed, period, source); });
  };
  try {
    start_one(TORVASIN_FAST, fast_ms);
    start_one(TORVASIN_SLOW, slow_ms);
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "no thread for the meters");
  }
}

void meter_engine::publish_values(int speed, const meter_source& source) {
  try {
    torvasin_key_value_list list;
    source(speed, list);
    publish(speed, list);
  } catch (const std::exception& error) {
    torvasin_log(TORVASIN_LOG_FAILURE, "src/engine/meter_engine", __LINE__, 1,
                 "meters cannot be read: %s", error.what());
  }
}

void meter_engine::run(const std::stop_token& stop, int speed, std::chrono::milliseconds period,
                       const meter_source& source) {
  using clock = std::chrono::steady_clock;
  pthread_setname_np(pthread_self(), speed == TORVASIN_FAST ? "meters-fast" : "meters-slow");

  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable_any stopped;
  auto next = clock::now();
  for (;;) {
    next = std::max(next + period, clock::now());  // periods missed are not made up for
    stopped.wait_until(lock, stop, next, [] { return false; });
    if (stop.stop_requested()) return;
    publish_values(speed, source);
  }
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
