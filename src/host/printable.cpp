#include "host/printable.h"

#include <fmt/format.h>

namespace torvasin_host {

std::string printable(std::string_view text) {
  const std::string quoted = fmt::format("{:?}", text);  // between quotation marks
  return quoted.substr(1, quoted.size() - 2);
}

}  // namespace torvasin_host
