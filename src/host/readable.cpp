#include "host/readable.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace torvasin_host {

std::string file_fault(const std::string& path) {
  struct stat file{};
  if (stat(path.c_str(), &file) != 0 || access(path.c_str(), R_OK) != 0) return strerror(errno);
  if (S_ISDIR(file.st_mode)) return strerror(EISDIR);
  return S_ISREG(file.st_mode) || S_ISFIFO(file.st_mode) ? "" : "Not a file";
}

}  // namespace torvasin_host
