#include "agent/meters.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace torvasin_agent_library {
namespace {

using std::string;
using std::string_view;

constexpr std::size_t most_name_octets = 127;  // an item of the module holds no more
constexpr std::size_t most_description_octets = 180;
constexpr std::uint32_t not_set = UINT32_MAX;  // tags a value that the module is to ignore

bool is_control(char octet) {
  return (octet >= 0 && octet < ' ') || octet == '\x7f';
}

// Returns why an ini file cannot hold a name, or an empty text. There, a ';' after a blank begins a
// comment, and a value follows a blank.
string name_fault(string_view name) {
  if (name.empty()) return "a meter needs a name";
  if (name.size() > most_name_octets) return "a meter's name has at most 127 octets";
  if (std::ranges::any_of(name, is_control)) return "a meter's name contains a control character";
  const string quoted = "a meter's name, '" + string(name) + "', ";
  if (name.find(']') != string::npos) return quoted + "contains a ']'";
  if (name.front() == ' ' || name.back() == ' ') return quoted + "begins or ends with a blank";
  if ((' ' + string(name)).find(" ;") != string::npos) {
    return quoted + "has a ';' at its beginning or after a blank";
  }
  return "";
}

// Fits a description into one line of an ini file: replaces control characters and semicolons that
// would begin a comment, and cuts what is too long.
string as_ini_value(string_view description) {
  string value;
  for (const char octet : description) {
    const bool comment = octet == ';' && (value.empty() || value.back() == ' ');
    value += is_control(octet) ? ' ' : comment ? ',' : octet;
  }
  if (value.size() > most_description_octets) {
    std::size_t end = most_description_octets;
    while (end > 0 && (value[end] & '\xC0') == '\x80') --end;  // not within a UTF-8 character
    value.resize(end);
  }
  return value;
}

torvasin_value value_of(torvasin_value_type type, std::uint32_t bits) {
  switch (type) {
    case TORVASIN_INT32:
      return {type, {.int32 = static_cast<std::int32_t>(bits)}};
    case TORVASIN_FLOAT:
      return {type, {.float32 = std::bit_cast<float>(bits)}};
    default:
      return {type, {.uint32 = bits}};
  }
}

}  // namespace

void meter_store::keep(std::unique_ptr<meter> added, const char* name, const char* description) {
  added->name = name != nullptr ? name : "";
  added->description = description != nullptr ? description : "";
  const string fault = name_fault(added->name);
  if (!fault.empty()) throw std::runtime_error(fault);
  const std::scoped_lock lock(mutex_);
  if (list_.find(added->name) != nullptr) {
    throw std::runtime_error("there is already a meter '" + added->name + "'");
  }
  meters_.push_back(std::move(added));
  try {
    meter& last = *meters_.back();
    last.published = list_.set(last.name, std::uint32_t{0});
    last.published->type = not_set;
  } catch (...) {
    meters_.pop_back();
    throw;
  }
}

void meter_store::refresh(meter& each) {
  if (each.type == TORVASIN_TEXT) {
    if (each.new_text.load(std::memory_order_relaxed) == nullptr) return;
    const std::unique_ptr<string> text(each.new_text.exchange(nullptr));
    list_.set(each.name, std::move(*text));
  } else if (each.is_set.load(std::memory_order_acquire)) {
    *each.published = value_of(each.type, each.bits.load(std::memory_order_relaxed));
  }
}

void meter_store::write(const char* path) const {
  constexpr const char* types[] = {"uint", "int", "float", "text"};
  string all;
  {
    const std::scoped_lock lock(mutex_);
    for (const auto& each : meters_) {
      all += (all.empty() ? "[" : "\n[") + each->name + "]\ntype = " + types[each->type] + '\n';
      if (each->counts) all += "counts = yes\n";
      all += "description = " + as_ini_value(each->description) + '\n';
    }
  }
  if (path == nullptr) throw std::runtime_error("write_meters needs a path");
  const auto fail = [&] { throw std::runtime_error(string(path) + ": " + std::strerror(errno)); };
  std::FILE* file = std::fopen(path, "we");
  if (file == nullptr) fail();
  const bool written = std::fwrite(all.data(), 1, all.size(), file) == all.size();
  if ((std::fclose(file) != 0) || !written) fail();
}

}  // namespace torvasin_agent_library
