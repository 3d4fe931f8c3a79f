#include "agent/default_log.h"

#include <cstddef>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>

#include "engine/stderr_log.h"

namespace torvasin_agent_library {
namespace {

using namespace torvasin_engine;

// Returns the length of the character of UTF-8 at the start of a text, or 0 where there is none or
// it is a control character.
std::size_t printable_length(std::string_view text) {
  const auto octet = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  if (octet(0) < 0x80) return octet(0) >= ' ' && octet(0) != 0x7F ? 1 : 0;
  const std::size_t length = octet(0) >= 0xF0 ? 4 : octet(0) >= 0xE0 ? 3 : 2;
  if (text.size() < length) return 0;
  unsigned long point = octet(0) & (0xFFu >> (length + 1));
  for (std::size_t i = 1; i < length; i++) {
    if ((octet(i) & 0xC0) != 0x80) return 0;
    point = point << 6 | (octet(i) & 0x3F);
  }
  constexpr unsigned long least[] = {0, 0, 0xA0, 0x800, 0x10000};  // below 0xA0: controls
  const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
  return octet(0) < 0xF5 && point >= least[length] && point <= 0x10FFFF && !surrogate ? length : 0;
}

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    std::size_t length = printable_length(text);
    if (length == 0) {
      length = 1;
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text[0]));
      shown += escaped;
    } else {
      shown += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return shown;
}

std::string default_line(std::string_view head, std::string_view text) {
  return "torvasin_agent: " + std::string(head) + ' ' + printable(text);
}

// Never destroyed: threads may log until the process ends.
alignas(stderr_log) std::byte log_memory[sizeof(stderr_log)];
stderr_log& log = *new (log_memory) stderr_log(default_line);

}  // namespace

void log_to_standard_error() {
  log.become_sink();
}

void reset_default_log_in_child() {
  new (log_memory) stderr_log(default_line);
}

}  // namespace torvasin_agent_library
