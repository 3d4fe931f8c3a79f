// The meters of an agent: values that any thread sets, and the list that the agent publishes.

#ifndef TORVASIN_AGENT_METERS_H
#define TORVASIN_AGENT_METERS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "agent/torvasin_agent.h"
#include "engine/key_value_list.h"

namespace torvasin_agent_library {

// One meter. Setting its value takes no lock: a signal handler may set a number, and a forked child
// finds no lock that a thread of the parent held.
struct meter {
  explicit meter(torvasin_value_type of_type, bool counting = false)
      : type(of_type), counts(counting), is_set(counting) {}
  meter(const meter&) = delete;  // the program has its address
  meter& operator=(const meter&) = delete;
  virtual ~meter() { delete new_text.load(); }

  void set_bits(std::uint32_t number) {
    bits.store(number, std::memory_order_relaxed);
    is_set.store(true, std::memory_order_release);
  }
  void add_bits(std::uint32_t number) {
    bits.fetch_add(number, std::memory_order_relaxed);
    is_set.store(true, std::memory_order_release);
  }
  void set_text(std::unique_ptr<std::string> text) { delete new_text.exchange(text.release()); }

  const torvasin_value_type type;
  const bool counts;
  std::string name;
  std::string description;
  torvasin_value* published = nullptr;  // its record in the list

  std::atomic<std::uint32_t> bits{0};  // of a number, as in the value's payload
  std::atomic<bool> is_set;
  std::atomic<std::string*> new_text{nullptr};  // owned: set, but not yet in the list
};

static_assert(std::atomic<std::uint32_t>::is_always_lock_free &&
                  std::atomic<bool>::is_always_lock_free,
              "a number may be set in a signal handler");

class meter_store {
 public:
  // Adds a meter and returns it. Throws std::runtime_error with the reason if it refuses the name.
  template <typename kind>
  kind* add(const char* name, const char* description) {
    auto added = std::make_unique<kind>();
    kind* handle = added.get();
    keep(std::move(added), name, description);
    return handle;
  }

  // Puts the current values into the list and passes it to publish. Additions wait meanwhile.
  template <typename function>
  void with_list(const function& publish) {
    const std::scoped_lock lock(mutex_);
    for (const auto& each : meters_) refresh(*each);
    publish(list_);
  }

  // Writes the list of meters in ini form. Throws std::runtime_error.
  void write(const char* path) const;

  // Locks out additions and publications: around a fork.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  void keep(std::unique_ptr<meter> added, const char* name, const char* description);
  void refresh(meter& each);

  mutable std::mutex mutex_;  // guards the members below, but not the values of meters
  std::vector<std::unique_ptr<meter>> meters_;
  torvasin_key_value_list list_;  // has a record for each meter
};

}  // namespace torvasin_agent_library

struct torvasin_counter final : torvasin_agent_library::meter {
  torvasin_counter() : meter(TORVASIN_UINT32, true) {}
};
struct torvasin_gauge final : torvasin_agent_library::meter {
  torvasin_gauge() : meter(TORVASIN_INT32) {}
};
struct torvasin_real final : torvasin_agent_library::meter {
  torvasin_real() : meter(TORVASIN_FLOAT) {}
};
struct torvasin_text final : torvasin_agent_library::meter {
  torvasin_text() : meter(TORVASIN_TEXT) {}
};

#endif  // TORVASIN_AGENT_METERS_H
