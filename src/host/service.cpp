#include "host/service.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "host/key_value_list.h"
#include "host/meters.h"
#include "host/report.h"

namespace torvasin_host {
namespace {

constexpr std::timespec count_interval = {1, 0};

sigset_t kept_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

// Where the UDP sockets of this process are bound: only they tell, when a configuration leaves the
// choice of the port to the system.
std::string udp_addresses() {
  std::string all;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const std::string name = entry.path().filename();
    int fd = -1;
    int type = 0;
    socklen_t size = sizeof type;
    std::from_chars(name.data(), name.data() + name.size(), fd);
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_DGRAM) continue;
    sockaddr_in address{};
    size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    if (address.sin_family != AF_INET) continue;
    char text[INET_ADDRSTRLEN];
    all += fmt::format("{}{} port {}", all.empty() ? "" : ", ",
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
  const auto fail = [&writer](const std::string& text) {
    writer.write("failure", text);
    return exit_failure;
  };
  torvasin_key_value_list list;
  list.set("conf_file", given.conf_file);
  if (given.affinity) list.set("affinity", *given.affinity);
  if (given.renice) {
    list.set("renice", *given.renice);
    const std::string fault = renice_fault(*given.renice);
    if (!fault.empty()) {
      say("failure", fmt::format("cannot change the nice value by {}: {}", *given.renice, fault));
    }
  }
  int signal = 0;
  do {
    const std::string fault = file_fault(given.conf_file);
    if (!fault.empty()) {
      fail(fmt::format("cannot read {}: {}", given.conf_file, fault));
      return signal == 0 ? exit_usage : exit_failure;
    }
    const std::int32_t status = module.start(list);
    if (status != 0) return fail(fmt::format("the module did not start, status {}", status));
    engine.start(given.fast_ms, given.slow_ms,
                 [state = meter_state()](int speed, torvasin_key_value_list& values) mutable {
                   sample_meters(speed, state, values);
                 });
    say("notice",
        fmt::format("module {} {} answers on {}", given.name, module.version(), udp_addresses()));
    signal = wait_for_signal(writer);
    // The module first: as long as it runs it may count on its meters. The engine's threads must
    // be gone before the library is, with any callback that it left behind.
    module.stop();
    engine.stop();
    say("notice", fmt::format("module {} stopped", given.name));
  } while (signal == SIGHUP);
  return exit_good;
}

}  // namespace torvasin_host
