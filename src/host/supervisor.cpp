#include "host/supervisor.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef TORVASIN_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "engine/key_value_list.h"
#include "engine/log.h"
#include "engine/readable.h"
#include "host/meters.h"
#include "host/printable.h"
#include "host/signals.h"

namespace torvasin_host {

using namespace torvasin_engine;

namespace {

// Informs systemd, if it started the program. sd_notify(3) defines the states.
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

// The entries of a directory of /proc whose names are numbers.
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

// Where sockets are bound. The configuration does not tell if it leaves the port to the system.
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

// A module changes the niceness of its own thread, and may not report a refusal. On Linux each
// thread has its own niceness, so a thread that ends at once can try first.
std::string renice_fault(std::int32_t renice) {
  int refused = 0;
  std::thread([&] {
    errno = 0;
    if (nice(renice) == -1) refused = errno;
  }).join();
  return refused != 0 ? strerror(refused) : "";
}

using kept_file = std::unique_ptr<std::FILE, decltype([](std::FILE* file) { std::fclose(file); })>;

std::string path_of(const kept_file& file) {
  return fmt::format("/proc/self/fd/{}", fileno(file.get()));
}

bool is_regular(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error);
}

// Copies a regular file into memory. Returns null for any other.
kept_file keep(const std::string& path) {
  if (!is_regular(path)) return nullptr;
  kept_file copy(fdopen(memfd_create("running", MFD_CLOEXEC), "w"));
  const std::string content = file_content(path.c_str());
  const bool whole = copy != nullptr &&
                     std::fwrite(content.data(), 1, content.size(), copy.get()) == content.size() &&
                     std::fflush(copy.get()) == 0 && access(path_of(copy).c_str(), R_OK) == 0;
  return whole ? std::move(copy) : nullptr;
}

class supervisor {
 public:
  supervisor(const options& given, plugin& module, meter_engine& engine, stderr_log& log)
      : given_(given), module_(module), engine_(engine), log_(log) {}
  supervisor(const supervisor&) = delete;
  supervisor& operator=(const supervisor&) = delete;
  ~supervisor() { stop(); }

  exit_status run();

 private:
  void say(std::string_view level, const std::string& text) {
    if (given_.log_level < log_off) log_.write(level, text);
  }
  void fail(const std::string& reason) {
    log_.write("failure", reason);
    notify("STATUS=" + printable(reason));
  }
  std::string start(const std::string& conf_file);
  void stop();
  bool may_reload();
  std::string restart();

  const options& given_;
  plugin& module_;
  meter_engine& engine_;
  stderr_log& log_;
  std::array<meter_state, 2> meters_;  // by speed; kept over reloads, so that counters continue
  kept_file running_;                  // the configuration that the module runs with
};

// Starts module and meters. Returns the notice that says where they answer. Throws
// std::runtime_error.
std::string supervisor::start(const std::string& conf_file) {
  torvasin_key_value_list list;
  list.set("conf_file", conf_file);
  if (given_.affinity) list.set("affinity", *given_.affinity);
  if (given_.renice) list.set("renice", *given_.renice);
  const number_set sockets_before = udp_sockets();
  {
    const ended_by_signals now;  // the module may wait for a pipe that nobody writes to
    const log_capture reason(log_capture::pass);
    const std::int32_t status = module_.start_cycle(list);
    if (status != 0) {
      throw std::runtime_error(fmt::format("the module did not start, status {}{}{}", status,
                                           reason.last_words().empty() ? "" : ": ",
                                           reason.last_words()));
    }
  }
  // Publishes before the module answers, so that no client sees first values.
  engine_.start(given_.fast_ms, given_.slow_ms, [this](int speed, torvasin_key_value_list& values) {
    sample_meters(speed, meters_.at(static_cast<std::size_t>(speed)), values);
  });
  // startThread returns no status, so look for a new thread.
  const number_set threads_before = threads();
  module_.start_thread();
  const number_set threads_now = threads();
  if (!threads_now.empty() && without(threads_now, threads_before).empty()) {
    throw std::runtime_error("the module started no thread to answer with");
  }
  return fmt::format("module {} {} answers on {}", given_.name, module_.version(),
                     addresses(without(udp_sockets(), sockets_before)));
}

// Stops the module first: it relies on its meters while it runs. The engine's threads must end
// before the library is unloaded, because the module may have left callbacks behind.
void supervisor::stop() {
  module_.stop();
  engine_.stop();
}

// Whether the configuration can be read again. A pipe cannot: the start has emptied it.
bool supervisor::may_reload() {
  const std::string fault = file_fault(given_.conf_file, another_reading);
  if (fault.empty()) return true;
  fail(fmt::format("not reloaded: cannot read {}: {}", given_.conf_file, fault));
  return false;
}

// Starts again for a reload: with the file as it is now or, if that fails, as it was before.
std::string supervisor::restart() {
  kept_file next = keep(given_.conf_file);
  try {
    std::string started = start(given_.conf_file);
    running_ = std::move(next);
    return started;
  } catch (const std::runtime_error& error) {
    stop();
    if (running_ == nullptr) throw;
    fail(error.what());
    return fmt::format("{} as before the reload, which failed: {}", start(path_of(running_)),
                       error.what());
  }
}

exit_status supervisor::run() {
  const std::string unreadable = file_fault(given_.conf_file);
  if (!unreadable.empty()) {
    fail(fmt::format("cannot read {}: {}", given_.conf_file, unreadable));
    return exit_usage;
  }
  try {
    const std::string fault = given_.renice ? renice_fault(*given_.renice) : "";
    if (!fault.empty()) {
      say("failure", fmt::format("cannot change the nice value by {}: {}", *given_.renice, fault));
    }
    running_ = keep(given_.conf_file);
    for (std::string started = start(given_.conf_file);; started = restart()) {
      say("notice", started);
      notify("READY=1\nSTATUS=" + printable(started));
      int signal = 0;
      do {
        signal = next_signal();
        if (signal == 0) log_.write_counts();
      } while (signal == 0 || (signal == SIGHUP && !may_reload()));
      notify(signal == SIGHUP ? "RELOADING=1" : "STOPPING=1");
      stop();
      const std::string stopped = fmt::format("module {} stopped", given_.name);
      say("notice", stopped);
      notify("STATUS=" + stopped);
      if (signal != SIGHUP) return exit_good;
    }
  } catch (const std::exception& error) {
    fail(error.what());
    return exit_failure;
  }
}

}  // namespace

exit_status run_module(const options& given, plugin& module, meter_engine& engine,
                       stderr_log& log) {
  return supervisor(given, module, engine, log).run();
}

}  // namespace torvasin_host
