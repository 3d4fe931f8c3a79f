// Whether there is a configuration.

#ifndef TORVASIN_HOST_READABLE_H
#define TORVASIN_HOST_READABLE_H

#include <string>

namespace torvasin_host {

// Why no configuration can be read from a path, or an empty text. Pipes are for shells.
std::string file_fault(const std::string& path);

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_READABLE_H
