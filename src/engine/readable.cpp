#include "engine/readable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace torvasin_engine {

// Nothing is opened: the writer of a pipe would take a reader that is gone at once for the one it
// waits for.
std::string file_fault(const std::string& path, reading which) {
  struct stat file{};
  if (stat(path.c_str(), &file) != 0 || faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) {
    return strerror(errno);
  }
  if (S_ISREG(file.st_mode)) return "";
  if (S_ISDIR(file.st_mode)) return strerror(EISDIR);
  if (!S_ISFIFO(file.st_mode)) return "Not a file";
  return which == first_reading ? "" : "Not a regular file";
}

}  // namespace torvasin_engine
