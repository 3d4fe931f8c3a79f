// What the tests share besides the client: the captured log, and small helpers.

#ifndef TORVASIN_TESTS_SUPPORT_H
#define TORVASIN_TESTS_SUPPORT_H

#include <algorithm>
#include <mutex>

#include "client.h"
#include "engine/log.h"
#include "module/snmp/snmp/snmp_msg_protocol.h"

inline std::string repeated(size_t times, const std::string& text) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

// As the agent's record, but entries beyond the count hold small numbers instead of 0: no lookup may depend on them.
inline snmp_oid oid_of(const object_id& oid) {
  static uint32_t unused = 0;
  snmp_oid record = {{}, oid.size()};
  std::ranges::fill(record.subid, unused++ % 8);
  std::ranges::copy(oid, record.subid);
  return record;
}

// Captures the log, at all levels, from its construction to its destruction.
class captured_log {
 public:
  captured_log() {
    torvasin_engine::set_log_level(0);
    const auto keep = [](const torvasin_engine::log_record& record, void* self) {
      auto* log = static_cast<captured_log*>(self);
      const std::lock_guard guard(log->mutex_);
      log->lines_.emplace_back(record.level, record.source, record.text);
    };
    torvasin_engine::set_log_sink(keep, this);
  }
  ~captured_log() { torvasin_engine::set_log_sink(nullptr, nullptr); }

  // The lines of this level and above since the last call, each as "level text\n" or "level source: text\n".
  std::string take(int least_level = 2, bool with_source = false) {
    const std::lock_guard guard(mutex_);
    std::string taken;
    for (const auto& [level, source, text] : std::exchange(lines_, {})) {
      if (level >= least_level) taken += std::to_string(level) + " " + (with_source ? source + ": " : "") + text + "\n";
    }
    return taken;
  }
  bool has(int level, const std::string& text) {  // among the lines not yet taken
    const std::lock_guard guard(mutex_);
    return std::ranges::any_of(lines_, [&](const auto& one) { return get<0>(one) == level && get<2>(one) == text; });
  }

 private:
  std::mutex mutex_;
  std::vector<std::tuple<int, std::string, std::string>> lines_;  // not yet taken
};

#endif  // TORVASIN_TESTS_SUPPORT_H
