// What torvasin_host and torvasin_config share: names for the numbers of the host interface, texts
// and tables for a terminal, and whether there is a configuration.

#ifndef TORVASIN_HOST_REPORT_H
#define TORVASIN_HOST_REPORT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "module/torvasin.h"

namespace torvasin_host {

using table_row = std::vector<std::string>;

// Prints rows of equally many cells to standard output, each column as wide as its longest cell,
// the first row as headings.
void print_table(const std::vector<table_row>& rows);

// A text with its control characters, and octets that are not UTF-8, escaped as "\n", "\x1b" or
// "\u200e"; so are quotation marks and backslashes.
std::string printable(std::string_view text);

// "uint", "int", "float" or "text".
const char* type_name(torvasin_value_type type);

// "fast" or "slow".
const char* speed_name(std::uint32_t speed);

// Why no configuration can be read from a path, or an empty text. Pipes are for shells.
std::string file_fault(const std::string& path);

// Prints a table of all meters: speed and type, whether it counts, what it means, and its value
// now, "-" when the system gives none.
void print_meters();

// Prints all meters as an ini file, a section for each, with what stays true on every machine.
void print_meters_as_ini();

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_REPORT_H
