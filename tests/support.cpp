#include "support.h"

#include <algorithm>

std::string repeated(size_t times, const std::string& text) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

snmp_oid oid_of(const object_id& oid) {
  static uint32_t unused = 0;
  snmp_oid record = {{}, oid.size()};
  std::ranges::fill(record.subid, unused++);
  std::ranges::copy(oid, record.subid);
  return record;
}

captured_log::captured_log() {
  torvasin_host::set_log_level(1);
  const auto keep = [](const torvasin_host::log_record& record, void* self) {
    auto* log = static_cast<captured_log*>(self);
    const std::lock_guard guard(log->mutex_);
    log->lines_.emplace_back(record.level, record.text);
  };
  torvasin_host::set_log_sink(keep, this);
}

std::string captured_log::take(int least_level) {
  const std::lock_guard guard(mutex_);
  std::string taken;
  for (const auto& [level, text] : lines_) {
    if (level >= least_level) taken += std::to_string(level) + " " + text + "\n";
  }
  lines_.clear();
  return taken;
}

bool captured_log::has(int level, const std::string& text) {
  const std::lock_guard guard(mutex_);
  return std::ranges::count(lines_, std::pair(level, text)) > 0;
}
