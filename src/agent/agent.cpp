#include "agent/agent.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
#include "module/snmp/mainsnmp.h"

using namespace torvasin_agent_library;
using std::string;
using torvasin_engine::log_capture;

namespace {

constexpr const char* default_conf_file = "snmpmanager.ini";

[[noreturn]] void refuse(const string& words) {
  throw std::runtime_error(words);
}

// Opened without waiting, for a pipe may have no writer yet.
void require_readable(const string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat status = {};
  int error = file < 0 || fstat(file, &status) != 0 ? errno : 0;
  if (error == 0 && S_ISDIR(status.st_mode)) error = EISDIR;
  if (file >= 0) close(file);
  if (error != 0) refuse(path + ": " + std::strerror(error));
}

string advice_for_bind(int error) {
  switch (error) {
    case EACCES:
      return ": a port below 1024 needs a privilege (CAP_NET_BIND_SERVICE); set another one with "
             "port in [General]";
    case EADDRINUSE:
      return ": another program or agent has this port; set another one with port in [General]";
    case EADDRNOTAVAIL:
      return ": this machine has no such address; set one of its own with ip in [General]";
    default:
      return "";
  }
}

// The module's last words with what to do about them.
string explained(const string& words) {
  int error = 0;
  unsigned item = 0;
  int name = 0;
  if (std::sscanf(words.c_str(), "error bind(%*[^)]) socker: %d", &error) == 1) {
    return words + advice_for_bind(error);
  }
  if (std::sscanf(words.c_str(), "error missing oid: %u %n", &item, &name) == 1 && name > 0) {
    return words + ": give it an oid in [ITEM_" + words.substr(static_cast<std::size_t>(name)) +
           "]";
  }
  return words.empty() ? "the module did not start" : words;
}

sockaddr_in address_of(int socket) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return address;
}

// Refuses an address that cannot be bound. The agent's own, which it gives back first, may be
// taken; but whether the process may still bind it shows here too.
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

// A configuration read into a record of its own, which no socket and no thread belongs to.
class trial_configuration {
 public:
  explicit trial_configuration(const string& name) : module_(std::make_unique<snmp_module>()) {
    module_->port = 161;
    std::strcpy(module_->ip, "127.0.0.1");
    module_->formula_vars = {"value", &module_->formula_value, TE_VARIABLE, nullptr};
    name.copy(context_.name, sizeof context_.name - 1);
    context_.private_data = module_.get();
  }
  trial_configuration(const trial_configuration&) = delete;
  trial_configuration& operator=(const trial_configuration&) = delete;
  ~trial_configuration() { release_items(module_.get()); }

  // Returns whether a start can use the file. A faulty line does not prevent it.
  bool read(const string& path) {
    parse_config_file(&context_, path.c_str());
    return module_->bindings == nullptr || link_snmp_items(module_.get()) == 0;
  }

  const snmp_module& module() const { return *module_; }

 private:
  std::unique_ptr<snmp_module> module_;
  torvasin_plugin_context context_ = {};
};

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
    refuse("this process was forked from the one in which the agent runs: create another agent");
  }
}

void torvasin_agent::set_fault(std::string_view words) {
  const std::scoped_lock lock(words_mutex);
  fault[words.copy(fault, sizeof fault - 1)] = '\0';
}

void torvasin_agent::reset_in_child() {
  new (&control) std::mutex;
  new (&publishing) std::mutex;
  new (&words_mutex) std::mutex;
  new (&settings_mutex) std::mutex;
  meters.reset_in_child();
  if (socket >= 0) close(socket.exchange(-1));
  if (active) of_parent = true;
  address[0] = '\0';
}

void torvasin_agent::start() {
  if (inside_collect()) refuse("start is called from inside collect");
  const std::scoped_lock lock(control);
  if (running) refuse("the agent is started already");
  require_readable(conf_file);
  begin();
}

void torvasin_agent::stop() {
  if (inside_collect()) refuse("stop is called from inside collect");
  const std::scoped_lock lock(control);
  if (running) end();
}

void torvasin_agent::reload() {
  if (inside_collect()) refuse("reload is called from inside collect");
  const std::scoped_lock lock(control);
  if (!running) refuse("the agent is not started");
  check_new_configuration();
  end();
  begin();
}

void torvasin_agent::publish() {
  if (inside_collect()) refuse("publish is called from inside collect");
  const std::scoped_lock lock(control);
  if (!running) refuse("the agent is not started");
  for (const int speed : {TORVASIN_FAST, TORVASIN_SLOW}) publish_speed(speed);
}

// What the trial logs would come a second time with the start, so it is logged only if there is
// none.
void torvasin_agent::check_new_configuration() const {
  require_readable(conf_file);
  log_capture lines(log_capture::hold);
  try {
    trial_configuration wanted(used.name);
    if (!wanted.read(conf_file)) refuse(explained(lines.last_words()));
    require_bindable(wanted.module(), socket);
  } catch (...) {
    lines.release();
    throw;
  }
}

// The socket is bound before the first publication and answers after it: what a client asks
// meanwhile waits in the socket.
void torvasin_agent::begin() {
  {
    const std::scoped_lock lock(settings_mutex);
    used = settings;
  }
  active = true;
  try {
    start_module();
  } catch (...) {
    active = false;
    throw;
  }
  running = true;
  try {
    for (const int speed : {TORVASIN_FAST, TORVASIN_SLOW}) publish_speed(speed);
    const log_capture lines(log_capture::pass);
    plugin_entry_0_6.startThread(&context);
    if (static_cast<snmp_module*>(context.private_data)->thread_created == 0) {
      refuse(explained(lines.last_words()));
    }
    thread.emplace("meters", used.fast_ms, used.slow_ms,
                   [this](int speed) { publish_speed(speed); });
  } catch (...) {
    end();
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

  const fork_guard forks = hold_forks();
  const log_capture lines(log_capture::pass);
  if (plugin_entry_0_6.startCycle(&context, &list) != 0) refuse(explained(lines.last_words()));
  socket = static_cast<snmp_module*>(context.private_data)->fd;
  const sockaddr_in bound = address_of(socket);
  char ip[IP_TEXT_SIZE];
  std::snprintf(address, sizeof address, "%s:%u", write_address(bound.sin_addr, ip),
                static_cast<unsigned>(ntohs(bound.sin_port)));
}

void torvasin_agent::end() {
  thread.reset();
  // Wakes the module's thread, which waits a second for a datagram: on Linux it gets an empty one
  // at once, whatever the call returns for a socket without a peer. It then sees its stop.
  shutdown(socket, SHUT_RD);
  plugin_entry_0_6.preStopCycle(&context);
  const fork_guard forks = hold_forks();
  socket = -1;
  plugin_entry_0_6.stopCycle(&context, 0);
  address[0] = '\0';
  running = false;
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
  }
  meters.with_list([&](const torvasin_key_value_list& list) { engine.publish(speed, list); });
}
