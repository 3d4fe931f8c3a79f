// The host's meters: readings of this machine. Each is either fast or slow.

#ifndef TORVASIN_HOST_METERS_H
#define TORVASIN_HOST_METERS_H

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "engine/key_value_list.h"
#include "module/torvasin.h"

namespace torvasin_host {

// The content of a file, or an empty text if it cannot be read.
std::string file_content(const char* path);

// What a network interface stands on: a device of the machine, nothing (a tunnel, one end of a veth
// pair), or other interfaces (a bridge with ports, a bond, a VLAN).
enum class link_kind { physical, alone, stacked };

// The kind of an interface according to /sys/class/net; alone if there is no such interface.
link_kind system_link_kind(const std::string& name);

struct traffic {
  std::uint64_t rx = 0;  // octets
  std::uint64_t tx = 0;
};

// The sources that readers read, and what they remember from one reading to the next. A counter
// continues as long as its state exists.
struct meter_state {
  std::string (*content)(const char* path) = file_content;
  link_kind (*kind_of_link)(const std::string& name) = system_link_kind;

  std::map<std::string, std::string> texts;  // the files read for this sample, by path

  std::uint64_t all_ticks = 0;  // these three belong to cpu.busy_percent
  std::uint64_t idle_ticks = 0;
  std::optional<float> busy_percent;

  struct interface {
    traffic count;
    link_kind kind;
  };
  std::map<std::string, interface> interfaces;  // of the last reading, without loopback
  std::optional<traffic> network;               // the sum of the network meters

  std::set<std::string_view> silent;  // names of the meters that could not be read last time
};

// Local time, in the machine's current time zone.
std::tm local_time_at(std::time_t time);

// Takes a reading. Returns nothing if the system does not provide it.
template <typename value_type>
using meter_reader = std::optional<value_type> (*)(meter_state& state);

// A counter only grows, and wraps to 0 after 2^32 - 1. No other kind is unsigned: an unsigned item
// is a Counter32, and monitoring systems compute its rate.
enum meter_kind : bool { gauge = false, counter = true };

struct meter {
  const char* name;         // the key in a list
  torvasin_speed speed;     // the set it lives in
  meter_kind counts;        // true if it is a counter
  const char* description;  // one line, with the unit
  // In the order of the tags: the index of the reader is the tag.
  std::variant<meter_reader<std::uint32_t>, meter_reader<std::int32_t>, meter_reader<float>,
               meter_reader<std::string>>
      read;

  constexpr torvasin_value_type type() const {
    return static_cast<torvasin_value_type>(read.index());
  }
};

// The name of a type ("uint", "int", "float" or "text") and of a speed ("fast" or "slow").
const char* type_name(torvasin_value_type type);
const char* speed_name(std::uint32_t speed);

// All meters, sorted by name, in static storage.
std::span<const meter> all_meters();

// Sets the keys of all meters of a speed in the list. If a meter cannot be read, its key stays as
// it was or, in a new list, missing. Logs a warning when a meter stops giving values, and another
// when it resumes. A state belongs to one speed, and to one thread at a time.
void sample_meters(int speed, meter_state& state, torvasin_key_value_list& list);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_METERS_H
