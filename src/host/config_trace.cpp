#include "host/config_trace.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "host/key_value_list.h"
#include "host/log.h"

namespace torvasin_host {
namespace {

using std::string_view;

// A later key overrides an earlier one.
constexpr string_view overrides = "\n[General]\nip = 127.0.0.1\nport = 0\n";
constexpr std::size_t override_lines = 2;

// A file in memory, which nobody has to remove, with a path of this process' own.
class memory_file {
 public:
  explicit memory_file(const std::string& text) : descriptor_(memfd_create("check", MFD_CLOEXEC)) {
    if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "memory file");
    std::ofstream file(path());
    if (!(file << text << overrides << std::flush)) {
      close(descriptor_);
      throw std::system_error(ENOSPC, std::generic_category(), "memory file");
    }
  }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;
  ~memory_file() { close(descriptor_); }

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

struct traced_line {
  std::string text;  // "SECTION, KEY, VALUE"
  bool refused;
};

// Collects the module's messages while it exists.
class collector {
 public:
  explicit collector(string_view module_name)
      : prefix_("ini_handler_cb(" + std::string(module_name) + ", ") {
    set_log_level(TORVASIN_LOG_TRACE);
    set_log_sink(
        [](const log_record& record, void* self) { static_cast<collector*>(self)->take(record); },
        this);
  }
  collector(const collector&) = delete;
  collector& operator=(const collector&) = delete;
  ~collector() {
    set_log_sink(nullptr, nullptr);
    set_log_level(TORVASIN_LOG_WARNING);
  }

  std::vector<module_message> messages;
  std::vector<traced_line> lines;
  std::set<std::string> files;

 private:
  void take(const log_record& record) {
    constexpr string_view parsing = "parsing ";
    if (record.level > TORVASIN_LOG_TRACE) {
      messages.push_back({record.level, std::string(record.text)});
      refuse(record);
    } else if (record.text.starts_with(prefix_)) {
      take_line(record);
    } else if (record.text.starts_with(parsing)) {
      files.emplace(record.text.substr(parsing.size()));
    }
  }

  // Several statements log the texts of a key line; the one that logs every line comes first.
  void take_line(const log_record& record) {
    if (statement_ == 0) statement_ = record.line;
    if (record.line != statement_ || !record.text.ends_with(')')) return;
    string_view text = record.text.substr(prefix_.size());
    text.remove_suffix(1);
    lines.push_back({std::string(text), false});
  }

  // An error about a key line repeats its texts. Errors of a key other than include come before the
  // next line.
  void refuse(const log_record& record) {
    if (record.level < TORVASIN_LOG_ERROR || lines.empty()) return;
    if (record.text.starts_with(prefix_ + lines.back().text)) lines.back().refused = true;
  }

  std::string prefix_;
  int statement_ = 0;  // source line of the message that every key line gives
};

// The first of the module's keys between two separators is the key. A section or key may hold the
// separator itself: then an unknown key of this kind may be misread, which does no harm because the
// module refuses the line, and so may an item whose own name ends in or goes on after ", KEY",
// which nobody should have.
std::optional<config_line> split(const traced_line& line) {
  constexpr std::array<string_view, 7> keys = {"ip",   "port",      "oid",           "meter",
                                               "type", "metertype", "computeformula"};
  constexpr string_view separator = ", ";
  const string_view text = line.text;
  std::size_t section_end = text.find(separator);
  while (section_end != string_view::npos) {
    const std::size_t key_begin = section_end + separator.size();
    const std::size_t key_end = text.find(separator, key_begin);
    if (key_end == string_view::npos) break;
    const string_view key = text.substr(key_begin, key_end - key_begin);
    if (std::find(keys.begin(), keys.end(), key) != keys.end()) {
      return config_line{std::string(text.substr(0, section_end)), std::string(key),
                         std::string(text.substr(key_end + separator.size())), line.refused};
    }
    section_end = key_end;
  }
  return std::nullopt;
}

void replace_all(std::string& text, string_view old, string_view fresh) {
  for (std::size_t at = text.find(old); at != std::string::npos;
       at = text.find(old, at + fresh.size())) {
    text.replace(at, old.size(), fresh);
  }
}

}  // namespace

config_trace trace_configuration(plugin& module, const std::string& text, const std::string& name) {
  const memory_file file(text);
  torvasin_key_value_list list;
  list.set("conf_file", file.path());

  config_trace trace;
  collector log(module.context().name);
  trace.status = module.start_cycle(list);
  trace.messages = log.messages;
  module.stop();

  for (module_message& message : trace.messages) replace_all(message.text, file.path(), name);
  if (log.lines.size() >= override_lines) log.lines.resize(log.lines.size() - override_lines);
  for (const traced_line& line : log.lines) {
    if (auto known = split(line)) trace.lines.push_back(*std::move(known));
  }
  log.files.erase(file.path());
  trace.included.assign(log.files.begin(), log.files.end());
  return trace;
}

}  // namespace torvasin_host
