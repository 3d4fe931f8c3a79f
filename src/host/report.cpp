#include "host/report.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "host/meters.h"

namespace torvasin_host {

void print_table(const std::vector<table_row>& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const table_row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  widths.back() = 0;
  for (const table_row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      std::cout << fmt::format("{}{:<{}}", i > 0 ? "  " : "", row[i], widths[i]);
    }
    std::cout << '\n';
  }
}

std::string printable(std::string_view text) {
  const std::string quoted = fmt::format("{:?}", text);  // between quotation marks
  return quoted.substr(1, quoted.size() - 2);
}

const char* type_name(torvasin_value_type type) {
  constexpr const char* names[] = {"uint", "int", "float", "text"};
  return names[type];
}

const char* speed_name(std::uint32_t speed) {
  return speed == TORVASIN_FAST ? "fast" : "slow";
}

std::string file_fault(const std::string& path) {
  struct stat file{};
  if (stat(path.c_str(), &file) != 0 || access(path.c_str(), R_OK) != 0) return strerror(errno);
  if (S_ISDIR(file.st_mode)) return strerror(EISDIR);
  return S_ISREG(file.st_mode) || S_ISFIFO(file.st_mode) ? "" : "Not a file";
}

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
