// An agent: the module, an engine and meters of its own, from the start to the stop.
//
// Locks, in this order. `control` is held by a start, a stop, a reload and a publication of the
// program's; `publishing` by any publication. The lock of the meters is held while values go into
// the module, but not while collect runs, which may add meters. A collect runs on the thread that
// holds `publishing`, and takes neither of the first two: the calls that would are refused there.

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

  // These throw std::exception with the words for the fault. They refuse to run inside collect, and
  // in a forked child whose parent had started the agent.
  void start();
  void stop();
  void reload();
  void publish();

  bool inside_collect() const { return collector == std::this_thread::get_id(); }
  bool is_of_parent() const { return of_parent; }
  void refuse_in_child() const;
  void set_fault(std::string_view words);

  // In a forked child.
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
  std::atomic<bool> active{false};         // running, or about to: a fork leaves threads and locks
  std::atomic<bool> of_parent{false};      // in a forked child: was active there
  std::atomic<int> socket{-1};             // the module's; under fork_lock
  std::atomic<std::thread::id> collector;  // the thread that is inside collect
};

#endif  // TORVASIN_AGENT_AGENT_H
