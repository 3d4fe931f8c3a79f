#include "host/report.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <sstream>

#include "host/key_value_list.h"
#include "host/meters.h"

namespace torvasin_host {
namespace {

std::string value_text(const torvasin_value* value) {
  if (value == nullptr) return "-";
  std::ostringstream text;
  switch (value->type) {
    case TORVASIN_UINT32:
      text << value->payload.uint32;
      break;
    case TORVASIN_INT32:
      text << value->payload.int32;
      break;
    case TORVASIN_FLOAT:
      text << value->payload.float32;
      break;
    default:
      text << value->payload.text;
      break;
  }
  return text.str();
}

}  // namespace

void print_table(const std::vector<table_row>& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const table_row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const table_row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, ' ');
    }
    std::cout << line << '\n';
  }
}

const char* type_name(std::uint32_t type) {
  constexpr std::array names = {"uint", "int", "float", "text"};
  return type < names.size() ? names[type] : "unknown";
}

const char* speed_name(int speed) {
  return speed == TORVASIN_FAST ? "fast" : "slow";
}

void list_meters() {
  meter_sampler sampler;
  torvasin_key_value_list values;
  for (const int speed : {TORVASIN_SLOW, TORVASIN_FAST}) sampler.sample(speed, values);

  std::vector<table_row> rows = {{"METER", "SPEED", "TYPE", "COUNTS", "DESCRIPTION", "VALUE"}};
  for (const meter& each : all_meters()) {
    rows.push_back({each.name, speed_name(each.speed), type_name(each.type()),
                    each.counts ? "yes" : "no", each.description,
                    value_text(values.find(each.name))});
  }
  print_table(rows);
}

}  // namespace torvasin_host
