#include "agent/process.h"

#include <pthread.h>

#include <cstddef>
#include <new>
#include <set>

#include "agent/agent.h"
#include "agent/default_log.h"
#include "engine/log.h"
#include "engine/memory.h"

namespace torvasin_agent_library {
namespace {

using namespace torvasin_engine;

// Guarded by fork_lock. Never destroyed, because threads may outlive main.
struct process_state {
  std::mutex fork_lock;
  std::set<torvasin_agent*> agents;
  program_log log = nullptr;
  void* user = nullptr;
};
alignas(process_state) std::byte state_memory[sizeof(process_state)];
process_state& state = *new (state_memory) process_state;

void pass_to_program(const log_record& record, void* /*user*/) {
  const char* text = record.text.data();  // NOLINT(bugprone-suspicious-stringview-data-usage)
  state.log(record.level, record.source, record.line, text, state.user);  // ends with a zero
}

void hold_for_fork() {
  state.fork_lock.lock();
  for (torvasin_agent* agent : state.agents) agent->hold_for_fork();
}

void release_after_fork() {
  for (torvasin_agent* agent : state.agents) agent->release_after_fork();
  state.fork_lock.unlock();
}

// The child has only this thread. What the others were changing may be half changed.
void reset_in_child() {
  reset_log_in_child();
  reset_memory_in_child();
  reset_default_log_in_child();
  for (torvasin_agent* agent : state.agents) agent->reset_in_child();
  state.fork_lock.unlock();
}

// Takes effect once. Called under fork_lock.
void prepare() {
  static bool done = false;
  if (done) return;
  if (pthread_atfork(hold_for_fork, release_after_fork, reset_in_child) != 0) {
    throw std::bad_alloc();
  }
  log_to_standard_error();
  done = true;
}

}  // namespace

void set_program_log(program_log log, void* user, int lowest_level) {
  const fork_guard guard = hold_forks();
  prepare();
  set_log_sink(nullptr, nullptr);  // from here on nothing reads the next two
  state.log = log;
  state.user = user;
  set_log_level(lowest_level);
  if (log == nullptr) return log_to_standard_error();
  set_log_sink(pass_to_program, nullptr);
}

void enter_process(torvasin_agent* agent) {
  const fork_guard guard = hold_forks();
  prepare();
  state.agents.insert(agent);
}

void leave_process(torvasin_agent* agent) {
  const fork_guard guard = hold_forks();
  state.agents.erase(agent);
}

fork_guard hold_forks() {
  return fork_guard(state.fork_lock);
}

}  // namespace torvasin_agent_library
