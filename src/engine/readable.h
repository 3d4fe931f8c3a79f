// Whether a configuration can be read.

#ifndef TORVASIN_ENGINE_READABLE_H
#define TORVASIN_ENGINE_READABLE_H

#include <string>

namespace torvasin_engine {

// A shell passes a configuration through a pipe, which can be read only once.
enum reading : bool { first_reading, another_reading };

// Says why a path gives no configuration, for people, or returns an empty text.
std::string file_fault(const std::string& path, reading which = first_reading);

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_READABLE_H
