#include "host/meters.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <utility>

namespace torvasin_host {
namespace {

// More than 32 bits, as 4 TiB have in KiB, read as the largest number.
std::uint32_t clamped(std::uint64_t number) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(number, UINT32_MAX));
}

// A size in KiB from /proc/meminfo.
std::optional<std::uint32_t> memory_kib(const meter_state& state, std::string_view wanted) {
  std::istringstream lines(state.content("/proc/meminfo"));
  std::string key;
  std::uint64_t kib = 0;
  while (lines >> key >> kib) {
    if (key == wanted) return clamped(kib);
    std::getline(lines, key);
  }
  return std::nullopt;
}

// The meter of such a size.
template <const char* wanted>
std::optional<std::uint32_t> memory(meter_state& state) {
  return memory_kib(state, wanted);
}

constexpr char available[] = "MemAvailable:";
constexpr char total[] = "MemTotal:";
constexpr char swap_free[] = "SwapFree:";

std::optional<std::int32_t> available_change(meter_state& state) {
  const auto now = memory_kib(state, available);
  if (!now) return std::nullopt;
  const std::uint32_t before = std::exchange(state.available_kib, now).value_or(*now);
  return static_cast<std::int32_t>(*now - before);
}

// Percent of the time since the reading before, at first since the machine started.
std::optional<float> cpu_busy(meter_state& state) {
  std::istringstream numbers(state.content("/proc/stat"));
  std::string key;
  numbers >> key;
  std::uint64_t all = 0;
  std::uint64_t idle = 0;
  // user nice system idle iowait irq softirq steal; what follows is part of user.
  for (int column = 0; column < 8; ++column) {
    std::uint64_t ticks = 0;
    if (!(numbers >> ticks)) return std::nullopt;
    all += ticks;
    if (column == 3 || column == 4) idle += ticks;
  }
  const std::uint64_t all_before = std::exchange(state.all_ticks, all);
  const std::uint64_t idle_before = std::exchange(state.idle_ticks, idle);
  if (all <= all_before || idle < idle_before) return std::nullopt;  // iowait can fall
  const auto idle_since = static_cast<float>(idle - idle_before);
  return std::max(0.0F, 100 - 100 * idle_since / static_cast<float>(all - all_before));
}

// What users other than root can still write there.
std::optional<std::uint32_t> root_available(meter_state&) {
  std::error_code error;
  const auto space = std::filesystem::space("/", error);
  return error ? std::nullopt : std::optional(clamped(space.available >> 20));
}

// Columns of an interface's line in /proc/net/dev, after its name.
constexpr std::size_t rx_octets = 0;
constexpr std::size_t tx_octets = 8;

// The sum of a column over all interfaces but loopback: its low 32 bits, as of a counter that
// wraps.
template <std::size_t column>
std::optional<std::uint32_t> network(meter_state& state) {
  std::istringstream lines(state.content("/proc/net/dev"));
  std::string line;
  std::uint64_t sum = 0;
  bool known = false;
  while (std::getline(lines, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;  // the two lines of headings
    known = true;
    if (line.substr(0, colon).ends_with(" lo")) continue;
    std::istringstream numbers(line.substr(colon + 1));
    std::uint64_t number = 0;
    for (std::size_t at = 0; at <= column; ++at) numbers >> number;
    if (numbers) sum += number;
  }
  return known ? std::optional(static_cast<std::uint32_t>(sum)) : std::nullopt;
}

// Columns of /proc/loadavg.
template <int column>
std::optional<float> load(meter_state& state) {
  std::istringstream numbers(state.content("/proc/loadavg"));
  float number = 0;
  for (int at = 0; at <= column; ++at) numbers >> number;
  return numbers ? std::optional(number) : std::nullopt;
}

std::optional<std::uint32_t> cpus(meter_state&) {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? std::optional(static_cast<std::uint32_t>(count)) : std::nullopt;
}

std::optional<std::uint32_t> uptime(meter_state& state) {
  std::istringstream numbers(state.content("/proc/uptime"));
  double seconds = 0;
  return numbers >> seconds ? std::optional(static_cast<std::uint32_t>(seconds)) : std::nullopt;
}

// Processes are the directories of /proc that are named by a number.
std::optional<std::uint32_t> processes(meter_state&) {
  std::error_code error;
  std::uint32_t count = 0;
  for (std::filesystem::directory_iterator at("/proc", error), end; !error && at != end;
       at.increment(error)) {
    if (std::isdigit(static_cast<unsigned char>(at->path().filename().native()[0]))) ++count;
  }
  return error ? std::nullopt : std::optional(count);
}

std::tm local_now() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

std::optional<std::string> local_time(meter_state&) {
  const std::tm now = local_now();
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%FT%T%z", &now);
  return length > 0 ? std::optional(std::string(text, length)) : std::nullopt;
}

std::optional<std::int32_t> utc_offset(meter_state&) {
  return static_cast<std::int32_t>(local_now().tm_gmtoff);
}

std::optional<std::string> description(meter_state&) {
  utsname system{};
  if (uname(&system) != 0) return std::nullopt;
  std::string text = system.sysname;
  for (const char* part : {system.nodename, system.release, system.version, system.machine}) {
    text.append(" ").append(part);
  }
  return text;
}

template <auto part>
std::optional<std::string> system_name(meter_state&) {
  utsname system{};
  return uname(&system) == 0 ? std::optional<std::string>(system.*part) : std::nullopt;
}

constexpr auto fast = TORVASIN_FAST;
constexpr auto slow = TORVASIN_SLOW;

constexpr auto table = std::to_array<meter>({
    {"cpu.busy_percent", slow, gauge, "busy time of all processors, percent", cpu_busy},
    {"filesystem.root_available_mib", slow, gauge, "space left to users below /, MiB",
     root_available},
    {"memory.available_change_kib", fast, gauge,
     "change of the available memory since the reading before, KiB", available_change},
    {"memory.available_kib", fast, gauge, "memory available to new programs, KiB",
     memory<available>},
    {"memory.total_kib", slow, gauge, "memory of the machine, KiB", memory<total>},
    {"network.rx_octets", fast, counter,
     "octets received on all interfaces but loopback, modulo 2^32", network<rx_octets>},
    {"network.tx_octets", fast, counter, "octets sent on all interfaces but loopback, modulo 2^32",
     network<tx_octets>},
    {"swap.free_kib", slow, gauge, "swap space that is free, KiB", memory<swap_free>},
    {"system.cpus", slow, gauge, "processors on line", cpus},
    {"system.description", slow, gauge, "system, name, kernel and architecture, as uname -a",
     description},
    {"system.hostname", slow, gauge, "name of the machine", system_name<&utsname::nodename>},
    {"system.kernel", slow, gauge, "release of the kernel", system_name<&utsname::release>},
    {"system.load1", fast, gauge, "load average of the last minute", load<0>},
    {"system.load15", slow, gauge, "load average of the last 15 minutes", load<2>},
    {"system.load5", fast, gauge, "load average of the last 5 minutes", load<1>},
    {"system.local_time", fast, gauge, "local time, ISO 8601, to the second", local_time},
    {"system.processes", fast, gauge, "processes that exist", processes},
    {"system.uptime_seconds", fast, gauge, "time since the machine started, seconds", uptime},
    {"system.utc_offset_seconds", slow, gauge, "local time minus UTC, seconds", utc_offset},
});

constexpr bool precedes(const meter& left, const meter& right) {
  return std::string_view(left.name) < right.name;
}
static_assert(std::is_sorted(table.begin(), table.end(), precedes));

}  // namespace

std::string file_content(const char* path) {
  const std::ifstream file(path);
  return (std::ostringstream() << file.rdbuf()).str();
}

std::span<const meter> all_meters() {
  return table;
}

void sample_meters(int speed, meter_state& state, torvasin_key_value_list& list) {
  for (const meter& each : table) {
    if (each.speed != speed) continue;
    const auto take = [&](auto read) {
      if (const auto value = read(state)) list.set(each.name, *value);
    };
    std::visit(take, each.read);
  }
}

}  // namespace torvasin_host
