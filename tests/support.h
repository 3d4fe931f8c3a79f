// What the tests share beside the client: the captured log, and small conveniences.

#ifndef TORVASIN_TESTS_SUPPORT_H
#define TORVASIN_TESTS_SUPPORT_H

#include <mutex>
#include <string>
#include <vector>

#include "client.h"
#include "host/log.h"
#include "module/snmp/snmp/snmp_msg_protocol.h"

std::string repeated(size_t times, const std::string& text);
snmp_oid oid_of(const object_id& oid);  // as the agent's record; entries beyond the count hold anything

// Captures the log, all levels of it, from its construction to its destruction.
class captured_log {
 public:
  captured_log();
  ~captured_log() { torvasin_host::set_log_sink(nullptr, nullptr); }

  // The lines since the last call of this level and above, each as "level text\n".
  std::string take(int least_level = 2);
  bool has(int level, const std::string& text);  // among the lines not yet taken

 private:
  std::mutex mutex_;
  std::vector<std::pair<int, std::string>> lines_;  // not yet taken
};

#endif  // TORVASIN_TESTS_SUPPORT_H
