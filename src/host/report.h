// What the program prints: tables, and names for the numbers of the host interface.

#ifndef TORVASIN_HOST_REPORT_H
#define TORVASIN_HOST_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace torvasin_host {

using table_row = std::vector<std::string>;

// Prints rows of equally many cells to standard output, each column as wide as its longest cell,
// the first row as headings.
void print_table(const std::vector<table_row>& rows);

// "uint", "int", "float", "text" or "unknown".
const char* type_name(std::uint32_t type);

// "fast" or "slow".
const char* speed_name(int speed);

// Prints every meter: its speed and type, whether it counts, what it means, and its value
// now, "-" when the system gives none.
void list_meters();

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_REPORT_H
