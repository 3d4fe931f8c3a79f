// The form of a line in torvasin_host's log.

#ifndef TORVASIN_HOST_LOG_LINE_H
#define TORVASIN_HOST_LOG_LINE_H

#include <string>
#include <string_view>

namespace torvasin_host {

// A torvasin_engine::stderr_log::line_maker: local time with its UTC offset, head and text. The
// journal of systemd keeps its own times: if standard error is the journal, the line begins with
// the priority of its level instead, as "<4>". printable.h escapes the text.
std::string log_line(std::string_view head, std::string_view text);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LOG_LINE_H
