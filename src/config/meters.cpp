#include "host/meters.h"

#include <algorithm>
#include <iterator>
#include <span>

#include "config/config.h"

namespace torvasin_config {
namespace {

using std::string_view;

constexpr std::uint32_t missing = UINT32_MAX;

// A key whose value is one of a few words, in the order of their numbers.
constexpr string_view speeds[] = {"slow", "fast"};
constexpr string_view types[] = {"uint", "int", "float", "text"};
constexpr string_view answers[] = {"no", "yes"};
constexpr struct {
  string_view key;
  std::span<const string_view> words;
  std::uint32_t listed_meter::* number;
} choices[] = {{"speed", speeds, &listed_meter::speed},
               {"type", types, &listed_meter::type},
               {"counts", answers, &listed_meter::counts}};

void take_key(listed_meter& meter, const ini_line& line, findings& found) {
  if (line.key == string_view("description")) return void(meter.description = line.value);
  const std::string label = fmt::format("[{}] {} = {}", printable(meter.name), printable(line.key),
                                        printable(line.value));
  for (const auto& [key, words, number] : choices) {
    if (key != line.key) continue;
    meter.*number =
        static_cast<std::uint32_t>(std::ranges::find(words, line.value) - words.begin());
    if (meter.*number < words.size()) return;
    return found.add(line.at, error, "{} is refused: write {}", label, fmt::join(words, ", "));
  }
  found.add(line.at, error, "{}: there is no such key: write speed, type, counts or description",
            label);
}

}  // namespace

const listed_meter* meter_list::find(string_view name) const {
  const auto at = std::ranges::find(all, name, &listed_meter::name);
  return at != all.end() ? &*at : nullptr;
}

meter_list own_meters() {
  meter_list list = {true, true, {}};
  for (const torvasin_host::meter& each : torvasin_host::all_meters()) {
    list.all.push_back({each.name, {}, each.speed, each.type(), each.counts, each.description});
  }
  return list;
}

std::string read_meters(const std::string& path, findings& found, meter_list& list) {
  list = {true, false, {}};
  const std::string fault = read_ini(path, found, [&](const ini_line& line) {
    if (line.key == nullptr) {
      if (const listed_meter* same = list.find(line.written)) {
        found.add(line.at, error, "[{}] is at {} already", printable(line.written),
                  found.text(same->at));
      }
      list.all.push_back({line.written, line.at, missing, missing, 0, ""});
    } else if (list.all.empty()) {
      found.add(line.at, error, "a key before the first section, which is to name a meter");
    } else {
      take_key(list.all.back(), line, found);
    }
  });
  for (const listed_meter& meter : list.all) {
    for (const auto& [key, words, number] : choices) {
      if (meter.*number != missing) continue;
      found.add(meter.at, error, "[{}] has no {}: write {}", printable(meter.name), key,
                fmt::join(words, ", "));
    }
  }
  return fault;
}

}  // namespace torvasin_config
