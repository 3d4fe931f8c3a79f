#include "engine/stderr_log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "module/torvasin.h"

namespace torvasin_engine {
namespace {

// Returns how many octets standard error takes without waiting. A terminal that poll calls ready
// may have room for four octets, so pipes and terminals are opened anew: O_NONBLOCK on the
// description that other processes share would be theirs too. Where that is refused, as with
// another user's terminal, poll has to do. It also tells that a reader is gone, before SIGPIPE
// does.
std::size_t write_at_once(std::string_view line) {
  struct stat file{};
  fstat(STDERR_FILENO, &file);
  const bool may_wait = S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode);
  const int own =
      may_wait ? open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1;
  pollfd output = {own >= 0 ? own : STDERR_FILENO, POLLOUT, 0};
  ssize_t taken = 0;
  if (poll(&output, 1, 0) == 1 && output.revents == POLLOUT) {
    taken = S_ISSOCK(file.st_mode)
                ? send(output.fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                : ::write(output.fd, line.data(), line.size());
  }
  if (own >= 0) close(own);
  return taken > 0 ? static_cast<std::size_t>(taken) : 0;
}

std::string head_of(const log_record& record) {
  const bool known = record.level > 0 && record.level < log_off;
  const char* level = known ? log_level_names[static_cast<std::size_t>(record.level)] : "unknown";
  return std::string(level) + ' ' + record.source + ':' + std::to_string(record.line);
}

}  // namespace

stderr_log::~stderr_log() {
  set_log_sink(nullptr, nullptr);
  const std::scoped_lock lock(mutex_);
  report_counts(log_limit::clock::time_point::max());
}

void stderr_log::become_sink() {
  set_log_sink(
      [](const log_record& record, void* self) { static_cast<stderr_log*>(self)->take(record); },
      this);
}

void stderr_log::write(std::string_view head, std::string_view text) {
  const std::scoped_lock lock(mutex_);
  write_or_lose(head, text);
}

void stderr_log::write_counts() {
  const std::scoped_lock lock(mutex_);
  report_counts(log_limit::clock::now());
}

void stderr_log::take(const log_record& record) {
  const std::scoped_lock lock(mutex_);
  report_counts(log_limit::clock::now());
  if (record.level == TORVASIN_LOG_TRACE || limit_.admit(record)) {
    write_or_lose(head_of(record), record.text);
  }
}

void stderr_log::report_counts(log_limit::clock::time_point now) {
  const auto report = [this](const log_record& last, unsigned left_out) {
    write_or_lose(head_of(last),
                  std::to_string(left_out) + " more lines like: " + std::string(last.text));
  };
  limit_.write_counts(report, now);
  if (lost_ > 0 && put("warning", "log lines lost because standard error did not take them: " +
                                      std::to_string(lost_))) {
    lost_ = 0;
  }
}

void stderr_log::write_or_lose(std::string_view head, std::string_view text) {
  if (!put(head, text)) ++lost_;
}

bool stderr_log::put(std::string_view head, std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  std::string line = (cut_ ? "\n" : "") + make_(head, text);
  if (line.size() >= PIPE_BUF) line.replace(PIPE_BUF - 4, std::string::npos, "...");
  line += '\n';
  const std::size_t taken = write_at_once(line);
  if (taken > 0) cut_ = taken < line.size();
  return taken == line.size();
}

}  // namespace torvasin_engine
