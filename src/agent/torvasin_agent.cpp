// The functions of torvasin_agent.h. They let no exception out and accept null pointers.

#include "agent/torvasin_agent.h"

#include <pthread.h>

#include <bit>
#include <exception>
#include <new>

#include "agent/agent.h"
#include "agent/process.h"

namespace {

using torvasin_agent_library::agent_settings;

// Runs a call that can fail and sets the fault. Returns whether the call succeeded. If its thread
// is cancelled meanwhile, it ends later, because no exception may unwind it here.
template <typename function>
bool succeeds(torvasin_agent* agent, const function& call) noexcept {
  if (agent == nullptr) return false;
  bool success = false;
  int cancelling;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelling);
  try {
    agent->refuse_in_child();
    call();
    agent->set_fault("");
    success = true;
  } catch (const std::bad_alloc&) {
    agent->set_fault("out of memory");
  } catch (const std::exception& error) {
    agent->set_fault(error.what());
  } catch (...) {
    agent->set_fault("collect threw an unknown exception");
  }
  pthread_setcancelstate(cancelling, nullptr);
  return success;
}

int status(bool success) {
  return success ? 0 : -1;
}

template <typename kind>
kind* add_meter(torvasin_agent* agent, const char* name, const char* description) noexcept {
  kind* added = nullptr;
  succeeds(agent, [&] { added = agent->meters.add<kind>(name, description); });
  return added;
}

template <typename function>
void change(torvasin_agent* agent, const function& setting) noexcept {
  if (agent == nullptr || agent->is_of_parent()) return;
  const std::scoped_lock lock(agent->settings_mutex);
  try {
    setting(agent->settings);
  } catch (const std::exception&) {
    return;  // out of memory: the setting stays
  }
}

}  // namespace

torvasin_agent* torvasin_agent_create(const char* conf_file) {
  try {
    return new torvasin_agent(conf_file);
  } catch (const std::exception&) {
    return nullptr;
  }
}

// In a forked child the agent stays allocated, because threads of the parent may hold its locks.
void torvasin_agent_destroy(torvasin_agent* agent) {
  if (succeeds(agent, [&] { agent->stop("destroy"); })) delete agent;
}

int torvasin_agent_start(torvasin_agent* agent) {
  return status(succeeds(agent, [&] { agent->start(); }));
}

int torvasin_agent_stop(torvasin_agent* agent) {
  return status(succeeds(agent, [&] { agent->stop(); }));
}

int torvasin_agent_reload(torvasin_agent* agent) {
  return status(succeeds(agent, [&] { agent->reload(); }));
}

int torvasin_agent_publish(torvasin_agent* agent) {
  return status(succeeds(agent, [&] { agent->publish(); }));
}

int torvasin_agent_write_meters(torvasin_agent* agent, const char* path) {
  return status(succeeds(agent, [&] { agent->meters.write(path); }));
}

const char* torvasin_agent_fault(const torvasin_agent* agent) {
  return agent != nullptr ? agent->fault : "there is no agent";
}

const char* torvasin_agent_address(const torvasin_agent* agent) {
  return agent != nullptr ? agent->address : "";
}

void torvasin_agent_set_name(torvasin_agent* agent, const char* name) {
  change(agent, [&](agent_settings& all) { all.name = name != nullptr ? name : ""; });
}

void torvasin_agent_set_periods(torvasin_agent* agent, unsigned fast_ms, unsigned slow_ms) {
  change(agent, [&](agent_settings& all) {
    all.fast_ms = fast_ms;
    all.slow_ms = slow_ms;
  });
}

void torvasin_agent_set_affinity(torvasin_agent* agent, std::uint32_t processors) {
  change(agent, [&](agent_settings& all) { all.affinity = processors; });
}

void torvasin_agent_set_renice(torvasin_agent* agent, std::int32_t renice) {
  change(agent, [&](agent_settings& all) { all.renice = renice; });
}

void torvasin_agent_set_collect(torvasin_agent* agent,
                                void (*collect)(torvasin_agent* agent, int speed, void* user),
                                void* user) {
  change(agent, [&](agent_settings& all) {
    all.collect = collect;
    all.user = user;
  });
}

torvasin_counter* torvasin_agent_counter(torvasin_agent* agent, const char* name,
                                         const char* description) {
  return add_meter<torvasin_counter>(agent, name, description);
}

torvasin_gauge* torvasin_agent_gauge(torvasin_agent* agent, const char* name,
                                     const char* description) {
  return add_meter<torvasin_gauge>(agent, name, description);
}

torvasin_real* torvasin_agent_real(torvasin_agent* agent, const char* name,
                                   const char* description) {
  return add_meter<torvasin_real>(agent, name, description);
}

torvasin_text* torvasin_agent_text(torvasin_agent* agent, const char* name,
                                   const char* description) {
  return add_meter<torvasin_text>(agent, name, description);
}

void torvasin_counter_add(torvasin_counter* counter, std::uint32_t number) {
  if (counter != nullptr) counter->add_bits(number);
}

void torvasin_counter_set(torvasin_counter* counter, std::uint32_t number) {
  if (counter != nullptr) counter->set_bits(number);
}

void torvasin_gauge_set(torvasin_gauge* gauge, std::int32_t number) {
  if (gauge != nullptr) gauge->set_bits(static_cast<std::uint32_t>(number));
}

void torvasin_gauge_add(torvasin_gauge* gauge, std::int32_t number) {
  if (gauge != nullptr) gauge->add_bits(static_cast<std::uint32_t>(number));
}

void torvasin_real_set(torvasin_real* real, float number) {
  if (real != nullptr) real->set_bits(std::bit_cast<std::uint32_t>(number));
}

void torvasin_text_set(torvasin_text* text, const char* value) {
  if (text == nullptr) return;
  try {
    text->set_text(std::make_unique<std::string>(value != nullptr ? value : ""));
  } catch (const std::exception&) {
    return;  // out of memory: the previous one stays
  }
}

void torvasin_agent_set_log(torvasin_agent_library::program_log log, void* user, int lowest_level) {
  try {
    torvasin_agent_library::set_program_log(log, user, lowest_level);
  } catch (const std::exception&) {
    return;  // out of memory: the log stays as it is
  }
}
