// The form of a line in torvasin_host's log.

#ifndef TORVASIN_HOST_LOG_LINE_H
#define TORVASIN_HOST_LOG_LINE_H

#include <string>
#include <string_view>

namespace torvasin_host {

// A torvasin_engine::stderr_log::line_maker: puts the time before the head. Where standard error is
// systemd's journal, which has times of its own, the priority of the level stands there instead, as
// "<4>". The text is escaped as printable.h says.
std::string log_line(std::string_view head, std::string_view text);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LOG_LINE_H
