#include "host/listing.h"

#include <fmt/format.h>

#include <iostream>
#include <string>
#include <variant>
#include <vector>

#include "host/meters.h"
#include "host/table.h"

namespace torvasin_host {

void print_meters() {
  meter_state state;
  const auto value_now = [&state](auto read) {
    const auto value = read(state);
    return value ? fmt::format("{}", *value) : "-";
  };
  std::vector<table_row> rows = {{"METER", "SPEED", "TYPE", "COUNTS", "DESCRIPTION", "VALUE"}};
  for (const meter& each : all_meters()) {
    rows.push_back({each.name, speed_name(each.speed), type_name(each.type()),
                    each.counts ? "yes" : "no", each.description,
                    std::visit(value_now, each.read)});
  }
  print_table(rows);
}

void print_meters_as_ini() {
  const char* blank_line = "";
  for (const meter& each : all_meters()) {
    std::cout << fmt::format("{}[{}]\nspeed = {}\ntype = {}\n{}description = {}\n", blank_line,
                             each.name, speed_name(each.speed), type_name(each.type()),
                             each.counts ? "counts = yes\n" : "", each.description);
    blank_line = "\n";
  }
}

}  // namespace torvasin_host
