// The input of a fuzz target as a file in memory, under a name that it can include itself by.

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

// A path may lead to a device that never ends, and k inclusions of itself are k^16 readings: only
// the input can be opened, so many times in a run.
inline uint32_t readings;
inline bool may_open(const char* path) {
  return strcmp(path, input_path) == 0 && readings++ <= MAX_OPEN_FILES;
}

// The module's calls come here.
extern "C" int __real_ini_parse(const char* path, ini_handler handler, void* user);
extern "C" inline __attribute__((used)) int __wrap_ini_parse(const char* path, ini_handler handler,
                                                             void* user) {
  return may_open(path) ? __real_ini_parse(path, handler, user) : -1;
}

#endif  // TORVASIN_FUZZ_INPUT_FILE_H
