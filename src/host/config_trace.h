// Learns from a module's log what it makes of a configuration, included files and cut names and
// all, by starting and stopping it.

#ifndef TORVASIN_HOST_CONFIG_TRACE_H
#define TORVASIN_HOST_CONFIG_TRACE_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/plugin.h"

namespace torvasin_host {

struct module_message {
  int level;  // enum torvasin_log_level, a warning or higher
  std::string text;
};

// A key line as the module took it.
struct config_line {
  std::string section;
  std::string key;
  std::string value;
  bool refused;  // the module reported it and went on without it
};

struct config_trace {
  std::int32_t status = 0;               // of startCycle
  std::vector<module_message> messages;  // of the reading and what follows it in startCycle
  std::vector<config_line> lines;        // in the order of the reading
  std::vector<std::string> included;     // paths of the other files, each once
};

// Runs the module's startCycle and stopCycle, never its thread, with a configuration text, whose
// address and port give way to one on loopback that the system picks: a running agent is not
// disturbed. Messages call the text `name`. Included paths are relative to the working directory.
//
// A module must be loaded and not be running. Throws std::system_error without memory for the text.
// Takes the log's sink and level, and leaves both as they are at first.
config_trace trace_configuration(plugin& module, const std::string& text, const std::string& name);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_CONFIG_TRACE_H
