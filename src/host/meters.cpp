#include "host/meters.h"

#include <dirent.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>
#include <utility>

namespace torvasin_host {
namespace {

constexpr char network_file[] = "/proc/net/dev";

// The content of a file, read once per sample.
const std::string& text_of(meter_state& state, const char* path) {
  const auto [at, fresh] = state.texts.try_emplace(path);
  if (fresh) at->second = state.content(path);
  return at->second;
}

// A size in KiB from /proc/meminfo. A float has no upper limit here, and 24 significant bits.
template <const char* wanted>
std::optional<float> memory(meter_state& state) {
  std::istringstream lines(text_of(state, "/proc/meminfo"));
  std::string key;
  std::uint64_t kib = 0;
  while (lines >> key >> kib) {
    if (key == wanted) return static_cast<float>(kib);
    std::getline(lines, key);
  }
  return std::nullopt;
}

constexpr char available[] = "MemAvailable:";
constexpr char total[] = "MemTotal:";
constexpr char swap_free[] = "SwapFree:";

// Percent of the time since the previous reading; the first one covers the time since boot. Repeats
// the previous result if no time has passed, or if idle time fell, as time spent waiting for disks
// can.
std::optional<float> cpu_busy(meter_state& state) {
  std::istringstream numbers(text_of(state, "/proc/stat"));
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
  if (all <= all_before || idle < idle_before) return state.busy_percent;
  const auto idle_since = static_cast<float>(idle - idle_before);
  state.busy_percent =
      std::max(0.0F, 100 - 100 * idle_since / static_cast<float>(all - all_before));
  return state.busy_percent;
}

// What users other than root can still write.
std::optional<float> root_available(meter_state&) {
  std::error_code error;
  const auto space = std::filesystem::space("/", error);
  return error ? std::nullopt : std::optional(static_cast<float>(space.available >> 20));
}

using interface_map = std::map<std::string, meter_state::interface>;

// All interfaces except loopback, with the kinds known from the previous reading.
interface_map interfaces_in(std::string text, const interface_map& before) {
  std::ranges::replace(text, ':', ' ');  // it follows the name, with or without a blank
  std::istringstream lines(text);
  interface_map interfaces;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns(line);
    std::string name;
    traffic count;
    std::uint64_t unused = 0;
    columns >> name >> count.rx;
    for (int column = 1; column < 8; ++column) columns >> unused;
    if (!(columns >> count.tx) || name == "lo") continue;  // two lines are headings
    const auto known = before.find(name);
    interfaces[name] = {count, known != before.end() ? known->second.kind : link_kind::alone};
  }
  return interfaces;
}

// Adds the traffic since the previous reading. Octets that pass several interfaces count once: a
// machine with devices counts only those; any other counts the interfaces that do not stand on
// others. An interface counts from the reading that first sees it, so a renamed one does not count
// twice. One whose numbers fell was created anew, and counts from then on.
void count_traffic(meter_state& state) {
  const std::string& text = text_of(state, network_file);
  if (text.empty()) return;
  const interface_map before =
      std::exchange(state.interfaces, interfaces_in(text, state.interfaces));
  bool has_devices = false;
  for (auto& [name, link] : state.interfaces) {
    if (!before.contains(name)) link.kind = state.kind_of_link(name);
    has_devices |= link.kind == link_kind::physical;
  }
  const bool first = !state.network;
  traffic& sum = first ? state.network.emplace() : *state.network;
  for (auto& [name, link] : state.interfaces) {
    if (!has_devices) link.kind = state.kind_of_link(name);  // ports come and go
    if (link.kind != (has_devices ? link_kind::physical : link_kind::alone)) continue;
    const auto known = before.find(name);
    const traffic since = first                   ? traffic{}
                          : known != before.end() ? known->second.count
                                                  : link.count;
    if (link.count.rx >= since.rx) sum.rx += link.count.rx - since.rx;
    if (link.count.tx >= since.tx) sum.tx += link.count.tx - since.tx;
  }
}

// The low 32 bits of the sum, in units of 2^shift octets, so that the counter wraps.
template <std::uint64_t traffic::* direction, unsigned shift>
std::optional<std::uint32_t> network(meter_state& state) {
  if (!state.texts.contains(network_file)) count_traffic(state);
  if (state.texts[network_file].empty()) return std::nullopt;
  return static_cast<std::uint32_t>((*state.network).*direction >> shift);
}

// Columns of /proc/loadavg.
template <int column>
std::optional<float> load(meter_state& state) {
  std::istringstream numbers(text_of(state, "/proc/loadavg"));
  float number = 0;
  for (int at = 0; at <= column; ++at) numbers >> number;
  return numbers ? std::optional(number) : std::nullopt;
}

std::optional<std::int32_t> cpus(meter_state&) {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? std::optional(static_cast<std::int32_t>(count)) : std::nullopt;
}

std::optional<std::int32_t> uptime(meter_state& state) {
  std::istringstream numbers(text_of(state, "/proc/uptime"));
  double seconds = 0;
  return numbers >> seconds ? std::optional(static_cast<std::int32_t>(seconds)) : std::nullopt;
}

// Counts the directories of /proc whose name is a number. The kernel generates each entry as it is
// read, which takes 1.5 microseconds, so this meter is slow.
std::optional<std::int32_t> processes(meter_state&) {
  const std::unique_ptr<DIR, decltype([](DIR* directory) { closedir(directory); })> proc(
      opendir("/proc"));
  if (proc == nullptr) return std::nullopt;
  std::int32_t count = 0;
  while (const dirent* entry = readdir(proc.get())) {
    if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0) ++count;
  }
  return count;
}

std::optional<std::string> local_time(meter_state&) {
  const std::tm now = local_time_at(std::time(nullptr));
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%FT%T%z", &now);
  return length > 0 ? std::optional(std::string(text, length)) : std::nullopt;
}

std::optional<std::int32_t> utc_offset(meter_state&) {
  return static_cast<std::int32_t>(local_time_at(std::time(nullptr)).tm_gmtoff);
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
    {"memory.available_kib", fast, gauge, "memory available to new programs, KiB",
     memory<available>},
    {"memory.total_kib", slow, gauge, "memory of the machine, KiB", memory<total>},
    {"network.rx_kib", fast, counter, "KiB received from the network, modulo 2^32",
     network<&traffic::rx, 10>},
    {"network.rx_octets", fast, counter, "octets received from the network, modulo 2^32",
     network<&traffic::rx, 0>},
    {"network.tx_kib", fast, counter, "KiB sent to the network, modulo 2^32",
     network<&traffic::tx, 10>},
    {"network.tx_octets", fast, counter, "octets sent to the network, modulo 2^32",
     network<&traffic::tx, 0>},
    {"swap.free_kib", slow, gauge, "swap space that is free, KiB", memory<swap_free>},
    {"system.cpus", slow, gauge, "processors on line", cpus},
    {"system.description", slow, gauge, "system, name, kernel and machine, as uname -snrvm",
     description},
    {"system.hostname", slow, gauge, "name of the machine", system_name<&utsname::nodename>},
    {"system.kernel", slow, gauge, "release of the kernel", system_name<&utsname::release>},
    {"system.load1", fast, gauge, "load average of the last minute", load<0>},
    {"system.load15", slow, gauge, "load average of the last 15 minutes", load<2>},
    {"system.load5", fast, gauge, "load average of the last 5 minutes", load<1>},
    {"system.local_time", fast, gauge, "local time, ISO 8601, to the second", local_time},
    {"system.processes", slow, gauge, "processes that exist", processes},
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

std::tm local_time_at(std::time_t time) {
  std::tm local{};
  tzset();  // notices a changed zone; localtime_r need not
  localtime_r(&time, &local);
  return local;
}

const char* type_name(torvasin_value_type type) {
  constexpr const char* names[] = {"uint", "int", "float", "text"};
  return names[type];
}

const char* speed_name(std::uint32_t speed) {
  return speed == TORVASIN_FAST ? "fast" : "slow";
}

std::span<const meter> all_meters() {
  return table;
}

link_kind system_link_kind(const std::string& name) {
  const std::filesystem::path directory = "/sys/class/net/" + name;
  std::error_code error;
  for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
       at.increment(error)) {
    if (at->path().filename().native().starts_with("lower_")) return link_kind::stacked;
  }
  return exists(directory / "device", error) ? link_kind::physical : link_kind::alone;
}

void sample_meters(int speed, meter_state& state, torvasin_key_value_list& list) {
  state.texts.clear();
  for (const meter& each : table) {
    if (each.speed != speed) continue;
    const auto take = [&](auto read) {
      const auto value = read(state);
      if (value) list.set(each.name, *value);
      return value.has_value();
    };
    const bool silent = !std::visit(take, each.read);
    const bool was_silent = state.silent.erase(each.name) > 0;
    if (silent) state.silent.insert(each.name);
    if (silent == was_silent) continue;
    torvasin_log(TORVASIN_LOG_WARNING, "src/host/meters", __LINE__, 1, "meter %s gives %s",
                 each.name, silent ? "no value: its item keeps the last one" : "values again");
  }
}

}  // namespace torvasin_host
