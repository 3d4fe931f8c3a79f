#include "host/log_line.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "host/meters.h"
#include "host/printable.h"

namespace torvasin_host {
namespace {

// systemd sets JOURNAL_STREAM to the device and inode of the journal's stream. A standard error
// that was redirected since has others.
bool is_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat file{};
  return stream != nullptr && fstat(STDERR_FILENO, &file) == 0 &&
         stream == fmt::format("{}:{}", file.st_dev, file.st_ino);
}

int priority_of(std::string_view head) {
  if (head.starts_with("trace")) return LOG_DEBUG;
  if (head.starts_with("warning")) return LOG_WARNING;
  if (head.starts_with("error")) return LOG_ERR;
  return head.starts_with("failure") ? LOG_CRIT : LOG_NOTICE;
}

}  // namespace

std::string log_line(std::string_view head, std::string_view text) {
  static const bool journal = is_journal();
  if (journal) return fmt::format("<{}>{} {}", priority_of(head), head, printable(text));
  std::timespec now{};
  std::timespec_get(&now, TIME_UTC);
  const std::tm local = local_time_at(now.tv_sec);
  return fmt::format("{:%F %T}.{:03} {:%z} {} {}", local, now.tv_nsec / 1'000'000, local, head,
                     printable(text));
}

}  // namespace torvasin_host
