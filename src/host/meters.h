// The host's meters: readings of this machine, each in exactly one of the two sets, fast and slow.

#ifndef TORVASIN_HOST_METERS_H
#define TORVASIN_HOST_METERS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "engine/key_value_list.h"
#include "module/torvasin.h"

namespace torvasin_host {

// The content of a file, empty when it cannot be read.
std::string file_content(const char* path);

// Where readers find the system's texts, and what they keep from one reading to the next.
struct meter_state {
  std::string (*content)(const char* path) = file_content;
  std::optional<std::uint32_t> available_kib;  // of memory.available_change_kib alone
  std::uint64_t all_ticks = 0;                 // of cpu.busy_percent alone, like the next one
  std::uint64_t idle_ticks = 0;
};

// Takes a reading, or none when the system does not give one.
template <typename value_type>
using meter_reader = std::optional<value_type> (*)(meter_state& state);

// A counter only ever grows, and starts again from 0 after 2^32 - 1.
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

// Every meter, in the order of the names. Lives for ever.
std::span<const meter> all_meters();

// Sets the keys of all meters of a speed in the list; a reading that fails leaves its key as it
// was, so that it is missing from an empty list. A state belongs to one speed and thread.
void sample_meters(int speed, meter_state& state, torvasin_key_value_list& list);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_METERS_H
