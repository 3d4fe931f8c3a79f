// The input of a fuzz target as a file in memory, under a name by which it can include itself.

#ifndef TORVASIN_FUZZ_INPUT_FILE_H
#define TORVASIN_FUZZ_INPUT_FILE_H

#include <ini.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cassert>
#include <cstring>

#include "module/snmp/mainsnmp.h"

inline constexpr int input_file = 100;
inline constexpr char input_path[] = "/proc/self/fd/100";

inline void write_input(const uint8_t* data, size_t size) {
  static const int input = dup2(memfd_create("input", 0), input_file);
  assert(ftruncate(input, 0) == 0 && pwrite(input, data, size, 0) == static_cast<ssize_t>(size));
}

// Only the input can be opened, because another path may lead to a device that never ends. A run
// opens it MAX_OPEN_FILES + 1 times at most: often enough to nest as deep as allowed, but not the
// MAX_FILES times that an input can include itself, which would be slow.
inline uint32_t readings;
inline bool may_open(const char* path) {
  return strcmp(path, input_path) == 0 && readings++ <= MAX_OPEN_FILES;
}

// The linker routes the module's calls here.
extern "C" int __real_ini_parse(const char* path, ini_handler handler, void* user);
extern "C" inline __attribute__((used)) int __wrap_ini_parse(const char* path, ini_handler handler,
                                                             void* user) {
  return may_open(path) ? __real_ini_parse(path, handler, user) : -1;
}

#endif  // TORVASIN_FUZZ_INPUT_FILE_H
