// The meter engine: keeps the meter callbacks of modules, calls them with new values, and runs the
// threads that sample the meters. A plug-in context refers to it as its engine. Implements
// torvasin_engine_addCallbackMeterManager and torvasin_engine_rmCallbackMeterManager of
// module/torvasin.h.

#ifndef TORVASIN_ENGINE_METER_ENGINE_H
#define TORVASIN_ENGINE_METER_ENGINE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "engine/key_value_list.h"
#include "module/torvasin.h"

namespace torvasin_engine {

// Fills an empty list with the current values of a speed. Each meter thread calls its own copy,
// always for the same speed. If it throws an exception, that is logged and nothing is published.
using meter_source = std::function<void(int speed, torvasin_key_value_list& list)>;

// Publishes the meters of a speed.
using meter_publisher = std::function<void(int speed)>;

// Calls a publisher and logs the exception that it throws.
void publish_meters(const meter_publisher& publisher, int speed);

// A thread that publishes each speed once per period, beginning after the first period.
class meter_thread {
 public:
  // The name has at most 15 characters. Periods are in milliseconds; a speed with period 0 is not
  // published. The thread blocks the signals that others send. Throws std::system_error if it
  // cannot start.
  meter_thread(const char* name, unsigned fast_ms, unsigned slow_ms, meter_publisher publisher);

  // Ends the thread at once, or after the publication in progress.
  ~meter_thread() = default;

 private:
  std::condition_variable_any stopped_;
  std::jthread thread_;  // the last member: it uses the other
};

class meter_engine {
 public:
  meter_engine() = default;
  meter_engine(const meter_engine&) = delete;
  meter_engine& operator=(const meter_engine&) = delete;

  // Adds a callback for a speed. Returns its handle, which no later registration gets again, or
  // null if the speed is unknown or the callback null. From any thread.
  void* add_callback(int speed, torvasin_meter_callback callback, void* user);

  // Removes a callback and waits until no call of it is in progress, so the callback itself must
  // not call this. Ignores null and unknown handles. From any thread.
  void remove_callback(void* handle);

  // Calls every callback of the speed on this thread. Several threads may publish at once. The
  // engine is not locked during a call, so callbacks may add and remove others.
  void publish(int speed, const torvasin_key_value_list& list);

  std::size_t registrations() const;

  // Samples and publishes both speeds, then starts the threads meters-fast and meters-slow, which
  // do so once per period, in milliseconds. Throws std::system_error if a thread cannot start.
  void start(unsigned fast_ms, unsigned slow_ms, const meter_source& source);

  // Ends the threads without waiting for their periods. One thread calls start and stop.
  void stop() { threads_.clear(); }

 private:
  struct registration {
    int speed;
    torvasin_meter_callback callback;
    void* user;
    unsigned calls = 0;    // in progress; the record stays in the map while there are any
    bool leaving = false;  // being removed; gets no new calls
  };

  mutable std::mutex mutex_;  // guards registrations_
  std::condition_variable idle_;
  std::map<std::uintptr_t, registration> registrations_;  // by handle
  std::uintptr_t last_id_ = 0;

  std::vector<std::unique_ptr<meter_thread>> threads_;  // last, because they use the other members
};

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_METER_ENGINE_H
