#include "host/service.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef TORVASIN_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "engine/key_value_list.h"
#include "host/meters.h"
#include "host/printable.h"
#include "host/readable.h"

namespace torvasin_host {

using namespace torvasin_engine;

namespace {

constexpr std::timespec count_interval = {1, 0};

// Those that the program was not started to ignore, as nohup and the "&" of a script have it.
sigset_t kept_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction action{};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&signals, signal);
  }
  return signals;
}

// Tells systemd, if it has started the program: sd_notify(3) has the words.
void notify([[maybe_unused]] const std::string& state) {
#ifdef TORVASIN_SYSTEMD
  sd_notify(0, state.c_str());
#endif
}

using number_set = std::set<int>;

number_set without(const number_set& all, const number_set& some) {
  number_set rest;
  std::set_difference(all.begin(), all.end(), some.begin(), some.end(),
                      std::inserter(rest, rest.end()));
  return rest;
}

// The entries of a directory of /proc that are named by numbers.
number_set numbers_in(const char* directory) {
  number_set numbers;
  std::error_code error;
  for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
       at.increment(error)) {
    const std::string name = at->path().filename();
    int number = 0;
    std::from_chars(name.data(), name.data() + name.size(), number);
    numbers.insert(number);
  }
  return numbers;
}

number_set threads() {
  return numbers_in("/proc/self/task");
}

std::optional<sockaddr_in> udp_address(int fd) {
  int type = 0;
  socklen_t size = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_DGRAM) return {};
  sockaddr_in address{};
  size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return address.sin_family == AF_INET ? std::optional(address) : std::nullopt;
}

number_set udp_sockets() {
  number_set sockets = numbers_in("/proc/self/fd");
  std::erase_if(sockets, [](int fd) { return !udp_address(fd); });
  return sockets;
}

// Where sockets are bound: only they tell, when a configuration leaves the choice of the port to
// the system.
std::string addresses(const number_set& sockets) {
  std::string all;
  for (const int fd : sockets) {
    const sockaddr_in address = *udp_address(fd);
    char text[INET_ADDRSTRLEN];
    all += fmt::format("{}{}:{}", all.empty() ? "" : ", ",
                       inet_ntop(AF_INET, &address.sin_addr, text, sizeof text),
                       ntohs(address.sin_port));
  }
  return all.empty() ? "no UDP socket" : all;
}

// A module changes the niceness of its own thread and may keep quiet about a refusal. Niceness is a
// thread's own on Linux, so a thread that is thrown away can try first.
std::string renice_fault(std::int32_t renice) {
  int refused = 0;
  std::thread([&] {
    errno = 0;
    if (nice(renice) == -1) refused = errno;
  }).join();
  return refused != 0 ? strerror(refused) : "";
}

// Returns the next of the kept signals.
int wait_for_signal(log_writer& writer) {
  const sigset_t signals = kept_signals();
  for (;;) {
    const int signal = sigtimedwait(&signals, nullptr, &count_interval);
    if (signal > 0) return signal;
    writer.write_counts();
  }
}

// The list that a module is started with.
void fill(torvasin_key_value_list& list, const options& given) {
  list.set("conf_file", given.conf_file);
  if (given.affinity) list.set("affinity", *given.affinity);
  if (given.renice) list.set("renice", *given.renice);
}

// Starts module and meters. Returns where they answer. Throws std::runtime_error.
std::string start(const options& given, const torvasin_key_value_list& list, plugin& module,
                  meter_engine& engine) {
  const number_set sockets_before = udp_sockets();
  const number_set threads_before = threads();
  const std::int32_t status = module.start(list);
  if (status != 0) {
    throw std::runtime_error(fmt::format("the module did not start, status {}", status));
  }
  // An entry that starts a thread has no status.
  const number_set threads_now = threads();
  if (!threads_now.empty() && without(threads_now, threads_before).empty()) {
    throw std::runtime_error("the module started no thread to answer with");
  }
  engine.start(given.fast_ms, given.slow_ms,
               [state = meter_state()](int speed, torvasin_key_value_list& values) mutable {
                 sample_meters(speed, state, values);
               });
  return fmt::format("module {} {} answers on {}", given.name, module.version(),
                     addresses(without(udp_sockets(), sockets_before)));
}

}  // namespace

void keep_signals() {
  const sigset_t signals = kept_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

exit_status run_module(const options& given, plugin& module, meter_engine& engine,
                       log_writer& writer) {
  const auto say = [&](std::string_view level, const std::string& text) {
    if (given.log_level < log_off) writer.write(level, text);
  };
  const auto fail = [&](const std::string& reason) {
    writer.write("failure", reason);
    notify("STATUS=" + printable(reason));
  };
  // The module first: as long as it runs it may count on its meters. The engine's threads must be
  // gone before the library is, with any callback that it left behind.
  const auto stop = [&] {
    module.stop();
    engine.stop();
  };
  int signal = 0;
  try {
    torvasin_key_value_list list;
    fill(list, given);
    const std::string fault = given.renice ? renice_fault(*given.renice) : "";
    if (!fault.empty()) {
      say("failure", fmt::format("cannot change the nice value by {}: {}", *given.renice, fault));
    }
    do {
      const std::string unreadable = file_fault(given.conf_file);
      if (!unreadable.empty()) {
        fail(fmt::format("cannot read {}: {}", given.conf_file, unreadable));
        return signal == 0 ? exit_usage : exit_failure;
      }
      const std::string started = start(given, list, module, engine);
      say("notice", started);
      notify("READY=1\nSTATUS=" + started);
      signal = wait_for_signal(writer);
      notify(signal == SIGHUP ? "RELOADING=1" : "STOPPING=1");
      stop();
      const std::string stopped = fmt::format("module {} stopped", given.name);
      say("notice", stopped);
      notify("STATUS=" + stopped);
    } while (signal == SIGHUP);
  } catch (const std::exception& error) {
    fail(error.what());
    stop();
    return exit_failure;
  }
  return exit_good;
}

}  // namespace torvasin_host
