// The command line of torvasin_host.

#ifndef TORVASIN_HOST_OPTIONS_H
#define TORVASIN_HOST_OPTIONS_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "module/torvasin.h"

namespace torvasin_host {

struct options {
  std::string module;  // path; if empty, the module installed with the program
  std::string conf_file = "snmpmanager.ini";
  std::optional<std::uint32_t> affinity;
  std::optional<std::int32_t> renice;
  std::string name = "snmp";
  unsigned fast_ms = 1000;
  unsigned slow_ms = 10000;
  int log_level = TORVASIN_LOG_WARNING;  // or log_off
  bool version = false;
  std::string list_meters;  // "table" or "ini"; if empty, no list is wanted
};

// Exit statuses of the program.
enum exit_status { exit_good = 0, exit_failure = 1, exit_usage = 2 };

struct usage_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reads the command line. Returns false if it printed the help, so that nothing is left to do.
// Throws usage_error.
bool parse_options(int argc, const char* const* argv, options& parsed);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_OPTIONS_H
