// The host's meters: readings of this machine, each in exactly one of the two sets, fast and slow.

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

// The content of a file, empty when it cannot be read.
std::string file_content(const char* path);

// What a network interface stands on: a device of the machine, nothing (a tunnel, one end of a veth
// pair), or other interfaces (a bridge with ports, a bond, a VLAN).
enum class link_kind { physical, alone, stacked };

// The kind of an interface as /sys/class/net has it now; alone, when it does not have the name.
link_kind system_link_kind(const std::string& name);

struct traffic {
  std::uint64_t rx = 0;  // octets
  std::uint64_t tx = 0;
};

// Where readers find what the system says, and what they keep from one reading to the next. A
// counter goes on as long as its state is kept.
struct meter_state {
  std::string (*content)(const char* path) = file_content;
  link_kind (*kind_of_link)(const std::string& name) = system_link_kind;

  std::map<std::string, std::string> texts;  // the files read for this sample, by path

  std::uint64_t all_ticks = 0;  // of cpu.busy_percent alone, like the next two
  std::uint64_t idle_ticks = 0;
  std::optional<float> busy_percent;

  struct interface {
    traffic count;
    link_kind kind;
  };
  std::map<std::string, interface> interfaces;  // those of the last reading, but for loopback
  std::optional<traffic> network;               // the sum of the network meters

  std::set<std::string_view> silent;  // names of the meters that gave no value last time
};

// Local time, in the zone that the machine has now.
std::tm local_time_at(std::time_t time);

// Takes a reading, or none when the system does not give one.
template <typename value_type>
using meter_reader = std::optional<value_type> (*)(meter_state& state);

// A counter only ever grows, and starts again from 0 after 2^32 - 1. It is the only kind that is
// unsigned: an unsigned item is a Counter32, of which a monitoring system computes a rate.
enum meter_kind : bool { gauge = false, counter = true };

struct meter {
  const char* name;         // the key in a list
  torvasin_speed speed;     // the set it lives in
  meter_kind counts;        // converts to whether it is a counter
  const char* description;  // one line, with the unit
  // In the order of the tags, so that the kind of the reader tells the tag.
  std::variant<meter_reader<std::uint32_t>, meter_reader<std::int32_t>, meter_reader<float>,
               meter_reader<std::string>>
      read;

  constexpr torvasin_value_type type() const {
    return static_cast<torvasin_value_type>(read.index());
  }
};

// The words for a type, "uint", "int", "float" or "text", and for a speed, "fast" or "slow".
const char* type_name(torvasin_value_type type);
const char* speed_name(std::uint32_t speed);

// Every meter, in the order of the names. Lives for ever.
std::span<const meter> all_meters();

// Sets the keys of all meters of a speed in the list; a reading that fails leaves its key as it
// was, so that it is missing from an empty list. The log has a warning when a meter first gives no
// value, and another when it gives one again. A state belongs to one speed, and to one thread at a
// time.
void sample_meters(int speed, meter_state& state, torvasin_key_value_list& list);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_METERS_H
