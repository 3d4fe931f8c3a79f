#include "host/meters.h"

#include <algorithm>
#include <iterator>
#include <span>

#include "config/config.h"

namespace torvasin_config {
namespace {

using std::string_view;

constexpr std::uint32_t no_type = UINT32_MAX;

// The keys whose value is one of a few words. The index of a word is its number.
constexpr string_view speeds[] = {"slow", "fast"};
constexpr string_view types[] = {"uint", "int", "float", "text"};
constexpr string_view answers[] = {"no", "yes"};
constexpr struct {
  string_view name;
  std::span<const string_view> words;
  std::uint32_t listed_meter::* number;
} keys[] = {{"speed", speeds, &listed_meter::speed},
            {"type", types, &listed_meter::type},
            {"counts", answers, &listed_meter::counts}};

void take_meter_key(listed_meter& meter, const ini_line& line, const reporter& report) {
  report.warn_if_repeated();
  if (line.key == string_view("description")) return void(meter.description = line.value);
  for (const auto& [name, words, number] : keys) {
    if (name != line.key) continue;
    const auto at = std::ranges::find(words, line.value);
    meter.*number = static_cast<std::uint32_t>(at - words.begin());
    if (at != words.end()) return;
    return report.error("{} is not one of {}", in_quotes(line.value), fmt::join(words, ", "));
  }
  report.error("unknown key; the keys are speed, type, counts, description");
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
  std::string fault = read_ini(path, found, [&](const ini_line& line) {
    if (line.key == nullptr) {
      if (const listed_meter* same = list.find(line.written)) {
        reporter{found, line.at, label_of(line.written)}.error("already listed at {}",
                                                               found.text(same->at));
      }
      list.all.push_back({std::string(line.written), line.at, any_speed, no_type, 0, ""});
    } else if (list.all.empty()) {
      reporter{found, line.at, ""}.error("{} comes before the first [section]",
                                         in_quotes(line.key));
    } else {
      take_meter_key(list.all.back(), line, {found, line.at, label_of(line.written, line.key)});
    }
  });
  for (const listed_meter& meter : list.all) {
    if (meter.type != no_type) continue;
    reporter{found, meter.at, label_of(meter.name)}.error("no type; the types are {}",
                                                          fmt::join(types, ", "));
  }
  return fault;
}

}  // namespace torvasin_config
