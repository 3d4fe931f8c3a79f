#include "host/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>

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

}  // namespace torvasin_host
