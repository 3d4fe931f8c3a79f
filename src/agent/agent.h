// An agent: the module together with an engine and meters of its own.
//
// Locks, in this order. start, stop, reload and publish hold `control`; every publication holds
// `publishing`. The lock of the meters is held while values go into the module, but not while
// collect runs, which may add meters. collect runs on the thread that holds `publishing`; there,
// the calls that would take one of the first two are refused.

#ifndef TORVASIN_AGENT_AGENT_H
#define TORVASIN_AGENT_AGENT_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "agent/meters.h"
#include "agent/torvasin_agent.h"
#include "engine/meter_engine.h"
#include "module/torvasin.h"

namespace torvasin_agent_library {

struct agent_settings {
  std::string name = "snmp";
  unsigned fast_ms = 1000;
  unsigned slow_ms = 10000;
  std::uint32_t affinity = 0;
  std::int32_t renice = 0;
  void (*collect)(torvasin_agent* agent, int speed, void* user) = nullptr;
  void* user = nullptr;
};

}  // namespace torvasin_agent_library

struct torvasin_agent {
  explicit torvasin_agent(const char* path);
  torvasin_agent(const torvasin_agent&) = delete;  // module and registry know its address
  torvasin_agent& operator=(const torvasin_agent&) = delete;
  ~torvasin_agent();  // of an agent that is stopped

  // These throw a std::exception whose text becomes the fault. They refuse to run inside collect.
  void start();
  void stop(const char* call = "stop");  // call: what to name in the refusal
  void reload();
  void publish();

  bool is_of_parent() const { return of_parent; }
  void refuse_in_child() const;  // throws if the parent had started the agent
  void set_fault(std::string_view words);

  // Called on the thread that forks, under fork_lock: before the fork, after it in the parent, and
  // after it in the child.
  void hold_for_fork();
  void release_after_fork();
  void reset_in_child();

  const std::string conf_file;
  torvasin_agent_library::meter_store meters;

  std::mutex settings_mutex;
  torvasin_agent_library::agent_settings settings;  // for the next start

  char fault[512] = "";  // written under words_mutex
  char address[24] = "";

 private:
  void begin();  // these two under control
  void end();
  void start_module();
  void refuse_inside_collect(const char* call) const;
  void check_new_configuration() const;
  void publish_speed(int speed);

  std::mutex control;
  std::mutex publishing;
  std::mutex words_mutex;

  torvasin_agent_library::agent_settings used;  // since the start
  torvasin_plugin_context context = {};
  torvasin_engine::meter_engine engine;
  std::optional<torvasin_engine::meter_thread> thread;
  bool running = false;                    // under control
  bool active = false;                     // the module is started; under control and fork_lock
  int socket = -1;                         // of the active module; as above
  std::atomic<bool> of_parent{false};      // in a forked child: was active in the parent
  std::atomic<std::thread::id> collector;  // the thread that is inside collect
};

#endif  // TORVASIN_AGENT_AGENT_H
