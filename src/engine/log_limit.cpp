#include "engine/log_limit.h"

namespace torvasin_engine {
namespace {

constexpr unsigned most_lines_of_place = 20;  // in one tally_period
constexpr std::chrono::seconds tally_period{10};

}  // namespace

bool log_limit::admit(const log_record& record, clock::time_point now) {
  tally& place = tallies_[{record.source, record.line}];
  if (place.written == most_lines_of_place || (place.written > 0 && place.last == record.text)) {
    ++place.left_out;
    return false;
  }
  if (place.written++ == 0) {
    place.since = now;
    place.level = record.level;
  }
  place.last = record.text;
  return true;
}

void log_limit::write_counts(const report& report_one, clock::time_point now) {
  std::erase_if(tallies_, [&](const auto& entry) {
    const auto& [place, counted] = entry;
    if (now - counted.since < tally_period) return false;
    if (counted.left_out > 0) {
      report_one({counted.level, place.first, place.second, counted.last}, counted.left_out);
    }
    return true;
  });
}

}  // namespace torvasin_engine
