#include "host/meters.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string_view>

namespace torvasin_host {
namespace {

constexpr auto rest_of_line = std::numeric_limits<std::streamsize>::max();

// A size in KiB from /proc/meminfo; more than 32 bits of them (4 TiB) reads as the largest number.
std::optional<std::uint32_t> memory_kib(std::string_view wanted) {
  std::ifstream file("/proc/meminfo");
  std::string key;
  std::uint64_t kib = 0;
  while (file >> key >> kib) {
    if (key == wanted) return static_cast<std::uint32_t>(std::min<std::uint64_t>(kib, UINT32_MAX));
    file.ignore(rest_of_line, '\n');
  }
  return std::nullopt;
}

std::optional<std::uint32_t> memory_total(meter_state&) {
  return memory_kib("MemTotal:");
}

std::optional<std::uint32_t> memory_available(meter_state&) {
  return memory_kib("MemAvailable:");
}

std::optional<std::int32_t> memory_available_change(meter_state& state) {
  const auto now = memory_kib("MemAvailable:");
  if (!now) return std::nullopt;
  const std::uint32_t before = state.available_kib.value_or(*now);
  state.available_kib = now;
  return static_cast<std::int32_t>(*now - before);
}

// Columns of an interface's line in /proc/net/dev, after its name.
constexpr std::size_t rx_octets = 0;
constexpr std::size_t tx_octets = 8;

// The sum of a column over all interfaces: its low 32 bits, as of a counter that wraps.
template <std::size_t column>
std::optional<std::uint32_t> network_octets(meter_state&) {
  std::ifstream file("/proc/net/dev");
  std::string line;
  std::uint64_t sum = 0;
  bool found = false;
  while (std::getline(file, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;  // the two lines of headings
    std::istringstream numbers(line.substr(colon + 1));
    std::uint64_t number = 0;
    for (std::size_t at = 0; at <= column; ++at) numbers >> number;
    if (!numbers) continue;
    sum += number;
    found = true;
  }
  return found ? std::optional(static_cast<std::uint32_t>(sum)) : std::nullopt;
}

template <std::size_t index>
std::optional<float> load(meter_state&) {
  std::array<double, 3> loads{};
  const int count = getloadavg(loads.data(), static_cast<int>(loads.size()));
  if (count <= static_cast<int>(index)) return std::nullopt;
  return static_cast<float>(loads[index]);
}

std::optional<std::uint32_t> cpus(meter_state&) {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? std::optional(static_cast<std::uint32_t>(count)) : std::nullopt;
}

std::optional<std::uint32_t> uptime(meter_state&) {
  struct sysinfo info {};
  if (sysinfo(&info) != 0) return std::nullopt;
  return static_cast<std::uint32_t>(info.uptime);
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

std::optional<std::string> hostname(meter_state&) {
  utsname system{};
  return uname(&system) == 0 ? std::optional<std::string>(system.nodename) : std::nullopt;
}

std::optional<std::string> kernel(meter_state&) {
  utsname system{};
  return uname(&system) == 0 ? std::optional<std::string>(system.release) : std::nullopt;
}

constexpr auto table = std::to_array<meter>({
    {"memory.available_change_kib", TORVASIN_FAST, false,
     "change of the available memory since the reading before, KiB", memory_available_change},
    {"memory.available_kib", TORVASIN_FAST, false, "memory available to new programs, KiB",
     memory_available},
    {"memory.total_kib", TORVASIN_SLOW, false, "memory of the machine, KiB", memory_total},
    {"network.rx_octets", TORVASIN_FAST, true, "octets received on all interfaces, modulo 2^32",
     network_octets<rx_octets>},
    {"network.tx_octets", TORVASIN_FAST, true, "octets sent on all interfaces, modulo 2^32",
     network_octets<tx_octets>},
    {"system.cpus", TORVASIN_SLOW, false, "processors on line", cpus},
    {"system.hostname", TORVASIN_SLOW, false, "name of the machine", hostname},
    {"system.kernel", TORVASIN_SLOW, false, "release of the kernel", kernel},
    {"system.load1", TORVASIN_FAST, false, "load average of the last minute", load<0>},
    {"system.load15", TORVASIN_SLOW, false, "load average of the last 15 minutes", load<2>},
    {"system.load5", TORVASIN_FAST, false, "load average of the last 5 minutes", load<1>},
    {"system.local_time", TORVASIN_FAST, false, "local time, ISO 8601, to the second", local_time},
    {"system.processes", TORVASIN_FAST, false, "processes that exist", processes},
    {"system.uptime_seconds", TORVASIN_FAST, false, "time since the machine started, seconds",
     uptime},
    {"system.utc_offset_seconds", TORVASIN_SLOW, false, "local time minus UTC, seconds",
     utc_offset},
});

constexpr bool precedes(const meter& left, const meter& right) {
  return std::string_view(left.name) < right.name;
}
static_assert(std::is_sorted(table.begin(), table.end(), precedes));

}  // namespace

std::span<const meter> all_meters() {
  return table;
}

void meter_sampler::sample(int speed, torvasin_key_value_list& list) {
  for (const meter& each : table) {
    if (each.speed != speed) continue;
    std::visit(
        [&](auto read) {
          if (const auto value = read(state_)) list.set(each.name, *value);
        },
        each.read);
  }
}

}  // namespace torvasin_host
