#include "agent/default_log.h"

#include <poll.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>

#include "engine/log_limit.h"
#include "module/torvasin.h"

namespace torvasin_agent_library {
namespace {

using namespace torvasin_engine;

// Under the log's lock. Never destroyed: threads may log until the process ends.
alignas(log_limit) std::byte limit_memory[sizeof(log_limit)];
log_limit& limit = *new (limit_memory) log_limit;

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

// Drops a line for which there is no room at once, or whose reader is gone: a write would wait, or
// end the program with SIGPIPE. A pipe that poll calls ready takes PIPE_BUF octets.
void write_line(const log_record& record, std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  const bool known = record.level > 0 && record.level < log_off;
  std::string line = "torvasin_agent: ";
  line += known ? log_level_names[static_cast<std::size_t>(record.level)] : "unknown";
  line += ' ';
  line += record.source;
  line += ':' + std::to_string(record.line) + ' ' + printable(text);
  if (line.size() >= PIPE_BUF) line.resize(PIPE_BUF - 1);
  line += '\n';
  pollfd ready = {STDERR_FILENO, POLLOUT, 0};
  if (poll(&ready, 1, 0) != 1 || ready.revents != POLLOUT) return;
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

void write_to_standard_error(const log_record& record, void* /*user*/) {
  limit.write_counts([](const log_record& last, unsigned left_out) {
    write_line(last, std::to_string(left_out) + " more lines like: " + std::string(last.text));
  });
  if (record.level == TORVASIN_LOG_TRACE || limit.admit(record)) write_line(record, record.text);
}

void reset_default_log_in_child() {
  new (limit_memory) log_limit;
}

}  // namespace torvasin_agent_library
