// Makes any text safe to show on a terminal and to write to a file of lines.

#ifndef TORVASIN_HOST_PRINTABLE_H
#define TORVASIN_HOST_PRINTABLE_H

#include <string>
#include <string_view>

namespace torvasin_host {

// Escapes control characters, and octets that are not UTF-8, as "\n", "\x1b" or "\u200e", and puts
// a backslash before quotation marks and backslashes.
std::string printable(std::string_view text);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_PRINTABLE_H
