// Tables for a terminal.

#ifndef TORVASIN_HOST_TABLE_H
#define TORVASIN_HOST_TABLE_H

#include <string>
#include <vector>

namespace torvasin_host {

using table_row = std::vector<std::string>;

// Prints rows of equally many cells to standard output, each column as wide as its longest cell,
// the first row as headings.
void print_table(const std::vector<table_row>& rows);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_TABLE_H
