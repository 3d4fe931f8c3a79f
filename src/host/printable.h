// Texts that hold anything, made fit for a terminal and for a file of lines.

#ifndef TORVASIN_HOST_PRINTABLE_H
#define TORVASIN_HOST_PRINTABLE_H

#include <string>
#include <string_view>

namespace torvasin_host {

// A text with its control characters, and octets that are not UTF-8, escaped as "\n", "\x1b" or
// "\u200e"; so are quotation marks and backslashes.
std::string printable(std::string_view text);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_PRINTABLE_H
