#include "agent/meters.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

namespace torvasin_agent_library {
namespace {

using std::string;
using std::string_view;

constexpr std::size_t most_name_octets = 127;  // the module cuts an item's meter there
constexpr std::size_t most_description_octets = 180;

bool is_control(char octet) {
  return (octet >= 0 && octet < ' ') || octet == '\x7f';
}

// Why an ini file could not give this name back, or an empty text. A ';' behind a blank begins a
// comment, and a value stands behind one.
string name_fault(string_view name) {
  if (name.empty()) return "a meter needs a name";
  if (name.size() > most_name_octets) return "the name of a meter has at most 127 octets";
  if (std::ranges::any_of(name, is_control)) return "the name of a meter has a control character";
  const string quoted = "the name of a meter, '" + string(name) + "', ";
  if (name.find(']') != string::npos) return quoted + "has a ']'";
  if (name.front() == ' ' || name.back() == ' ') return quoted + "begins or ends with a blank";
  if ((' ' + string(name)).find(" ;") != string::npos) {
    return quoted + "has a ';' at its beginning or behind a blank";
  }
  return "";
}

// A description as a value of an ini file can be: in one line that is not too long, without what
// begins a comment.
string as_ini_value(string_view description) {
  string value;
  for (const char octet : description) {
    const bool comment = octet == ';' && (value.empty() || value.back() == ' ');
    value += is_control(octet) ? ' ' : comment ? ',' : octet;
  }
  if (value.size() > most_description_octets) {
    std::size_t end = most_description_octets;
    while (end > 0 && (value[end] & '\xC0') == '\x80') --end;  // not inside a character of UTF-8
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
  if (std::ranges::find(meters_, added->name, [](const auto& each) -> const string& {
        return each->name;
      }) != meters_.end()) {
    throw std::runtime_error("there is a meter '" + added->name + "' already");
  }
  meters_.push_back(std::move(added));
}

void meter_store::refresh(meter& each) {
  if (each.type == TORVASIN_TEXT) {
    if (each.new_text.load(std::memory_order_relaxed) == nullptr) return;
    const std::unique_ptr<string> text(each.new_text.exchange(nullptr));
    list_.set(each.name, std::move(*text));
  } else if (each.is_set.load(std::memory_order_acquire)) {
    if (each.published == nullptr) each.published = list_.set(each.name, std::uint32_t{0});
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
  if (path == nullptr) throw std::runtime_error("no path to write the meters to");
  const auto fail = [&] { throw std::runtime_error(string(path) + ": " + std::strerror(errno)); };
  std::FILE* file = std::fopen(path, "we");
  if (file == nullptr) fail();
  const bool written = std::fwrite(all.data(), 1, all.size(), file) == all.size();
  if ((std::fclose(file) != 0) || !written) fail();
}

void meter_store::reset_in_child() {
  new (&mutex_) std::mutex;
}

}  // namespace torvasin_agent_library
