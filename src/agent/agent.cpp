#include "agent/agent.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "agent/process.h"
#include "engine/log.h"
#include "engine/readable.h"
#include "module/snmp/mainsnmp.h"

using namespace torvasin_agent_library;
using std::string;
using torvasin_engine::log_capture;

namespace {

constexpr const char* default_conf_file = "snmpmanager.ini";

[[noreturn]] void refuse(const string& words) {
  throw std::runtime_error(words);
}

void require_readable(const string& path, torvasin_engine::reading which) {
  const string fault = torvasin_engine::file_fault(path, which);
  if (!fault.empty()) refuse(path + ": " + fault);
}

// The module starts without its file if it cannot open it.
void require_opened(const snmp_module& module, const string& path) {
  if (module.files_read == 0) refuse(path + ": cannot be opened; perhaps too many files are open");
}

// Holds back what its thread logs, and logs it at its end.
struct held_log : log_capture {
  held_log() : log_capture(hold) {}
  ~held_log() {
    if (is_needed) release();
  }
  bool is_needed = true;
};

string advice_for_bind(int error) {
  switch (error) {
    case EACCES:
      return ": a port below 1024 requires a privilege (CAP_NET_BIND_SERVICE); set another port in "
             "[General]";
    case EADDRINUSE:
      return ": another program or agent uses this port; set another port in [General]";
    case EADDRNOTAVAIL:
      return ": this machine does not have this address; set another ip in [General]";
    default:
      return "";
  }
}

// The module's last words, with advice.
string explained(const string& words) {
  int error = 0;
  unsigned item = 0;
  int name = 0;
  if (std::sscanf(words.c_str(), "error bind(%*[^)]) socker: %d", &error) == 1) {
    return words + advice_for_bind(error);
  }
  if (std::sscanf(words.c_str(), "error missing oid: %u %n", &item, &name) == 1 && name > 0) {
    return words + ": add an oid to [ITEM_" + words.substr(static_cast<std::size_t>(name)) + "]";
  }
  return words.empty() ? "the module did not start" : words;
}

sockaddr_in address_of(int socket) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return address;
}

// Refuses an address that cannot be bound. The agent's own is in use, but a reload gives it back
// first.
void require_bindable(const snmp_module& wanted, int running_socket) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(wanted.ip);
  address.sin_port = htons(wanted.port);
  const int trial = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool bound =
      trial >= 0 && bind(trial, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  const int error = errno;
  if (trial >= 0) close(trial);
  if (bound) return;

  const sockaddr_in own = address_of(running_socket);
  const in_addr_t ours = own.sin_addr.s_addr;
  const in_addr_t theirs = address.sin_addr.s_addr;
  const bool overlaps = ours == theirs || ours == INADDR_ANY || theirs == INADDR_ANY;
  if (error == EADDRINUSE && own.sin_port == address.sin_port && overlaps) return;
  refuse("cannot bind " + string(wanted.ip) + ":" + std::to_string(wanted.port) + ": " +
         std::strerror(error) + advice_for_bind(error));
}

using trial_module = std::unique_ptr<snmp_module, decltype([](snmp_module* module) {
                                       release_items(module);
                                       delete module;
                                     })>;

}  // namespace

torvasin_agent::torvasin_agent(const char* path)
    : conf_file(path != nullptr ? path : default_conf_file) {
  enter_process(this);
}

torvasin_agent::~torvasin_agent() {
  leave_process(this);
}

void torvasin_agent::refuse_in_child() const {
  if (of_parent) {
    refuse("this process was forked from the one that started the agent; create another agent");
  }
}

void torvasin_agent::set_fault(std::string_view words) {
  const std::scoped_lock lock(words_mutex);
  fault[words.copy(fault, sizeof fault - 1)] = '\0';
}

// A child can use only agents that are not active. The meters of an active one are not locked here:
// a publication holds them, and may wait for the program's log function.
void torvasin_agent::hold_for_fork() {
  settings_mutex.lock();
  if (!active) meters.lock();
}

void torvasin_agent::release_after_fork() {
  if (!active) meters.unlock();
  settings_mutex.unlock();
}

void torvasin_agent::reset_in_child() {
  release_after_fork();
  new (&control) std::mutex;
  new (&publishing) std::mutex;
  new (&words_mutex) std::mutex;
  if (active && !of_parent) {
    close(socket);
    of_parent = true;
  }
  address[0] = '\0';
}

void torvasin_agent::refuse_inside_collect(const char* call) const {
  if (collector == std::this_thread::get_id()) {
    refuse(string(call) + " cannot be called from inside collect");
  }
}

void torvasin_agent::start() {
  refuse_inside_collect("start");
  const std::scoped_lock lock(control);
  if (running) refuse("the agent is already started");
  require_readable(conf_file, torvasin_engine::first_reading);
  begin();
}

void torvasin_agent::stop(const char* call) {
  refuse_inside_collect(call);
  const std::scoped_lock lock(control);
  if (running) end();
}

void torvasin_agent::reload() {
  refuse_inside_collect("reload");
  const std::scoped_lock lock(control);
  if (!running) refuse("the agent is not started");
  check_new_configuration();
  end();
  begin();
}

void torvasin_agent::publish() {
  refuse_inside_collect("publish");
  const std::scoped_lock lock(control);
  if (!running) refuse("the agent is not started");
  for (const int speed : {TORVASIN_FAST, TORVASIN_SLOW}) publish_speed(speed);
}

// Reads the file as a start would, into a record without socket and thread. The start will log the
// same lines, so they are logged here only if there is none.
void torvasin_agent::check_new_configuration() const {
  require_readable(conf_file, torvasin_engine::another_reading);
  held_log lines;
  const trial_module wanted(new snmp_module);
  init_snmp_module(wanted.get());
  torvasin_plugin_context trial = context;
  trial.private_data = wanted.get();
  parse_config_file(&trial, conf_file.c_str());
  require_opened(*wanted, conf_file);
  if (wanted->bindings != nullptr && link_snmp_items(wanted.get()) != 0) {
    refuse(explained(lines.last_words()));
  }
  require_bindable(*wanted, socket);
  lines.is_needed = false;
}

// The socket is bound before the first publication and answered after it. Requests that arrive in
// between wait in the socket.
void torvasin_agent::begin() {
  {
    const std::scoped_lock lock(settings_mutex);
    used = settings;
  }
  start_module();
  running = true;
  try {
    require_opened(*static_cast<snmp_module*>(context.private_data), conf_file);
    for (const int speed : {TORVASIN_FAST, TORVASIN_SLOW}) publish_speed(speed);
    const log_capture lines(log_capture::pass);
    plugin_entry_0_6.startThread(&context);
    if (static_cast<snmp_module*>(context.private_data)->thread_created == 0) {
      refuse(explained(lines.last_words()));
    }
    thread.emplace("meters", used.fast_ms, used.slow_ms,
                   [this](int speed) { publish_speed(speed); });
  } catch (...) {
    if (!of_parent) end();
    throw;
  }
}

void torvasin_agent::start_module() {
  torvasin_key_value_list list;
  list.set("conf_file", conf_file);
  list.set("affinity", used.affinity);
  list.set("renice", used.renice);
  context = {};
  used.name.copy(context.name, sizeof context.name - 1);
  context.engine = &engine;

  const held_log lines;  // which outlives the guard
  const fork_guard forks = hold_forks();
  active = plugin_entry_0_6.startCycle(&context, &list) == 0;
  if (!active) refuse(explained(lines.last_words()));
  socket = static_cast<snmp_module*>(context.private_data)->fd;
  const sockaddr_in bound = address_of(socket);
  char ip[IP_TEXT_SIZE];
  std::snprintf(address, sizeof address, "%s:%u", write_address(bound.sin_addr, ip),
                static_cast<unsigned>(ntohs(bound.sin_port)));
}

void torvasin_agent::end() {
  thread.reset();
  // The module's thread waits up to a second for a datagram. On Linux, shutdown ends this wait at
  // once, although the call itself fails for a socket without a peer.
  shutdown(socket, SHUT_RD);
  plugin_entry_0_6.preStopCycle(&context);
  running = false;
  const held_log lines;
  const fork_guard forks = hold_forks();
  plugin_entry_0_6.stopCycle(&context, 0);
  address[0] = '\0';
  active = false;
}

void torvasin_agent::publish_speed(int speed) {
  const std::scoped_lock lock(publishing);
  if (used.collect != nullptr) {
    const struct collecting {
      explicit collecting(std::atomic<std::thread::id>& set) : thread(set) {
        thread = std::this_thread::get_id();
      }
      ~collecting() { thread = std::thread::id(); }
      std::atomic<std::thread::id>& thread;
    } inside(collector);
    used.collect(this, speed, used.user);
    refuse_in_child();  // collect forked, and this is the child
  }
  meters.with_list([&](const torvasin_key_value_list& list) { engine.publish(speed, list); });
}
