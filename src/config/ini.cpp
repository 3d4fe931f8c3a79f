// Ini files, line by line, and the findings about them.

#include <ini.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config/config.h"

namespace torvasin_config {
namespace {

constexpr const char* severity_names[] = {"error", "warning", "note"};
constexpr char blanks[] = " \t\n\v\f\r";

// One file, while inih reads it.
struct reading {
  std::FILE* file;
  findings& found;
  const ini_taker& take;
  place here;           // the latest line
  std::string line;     // as much of it as inih has room for
  place section_at;     // line 0 before the first section
  std::string section;  // as it is written
  bool line_end_due = false;
  bool line_has_key = false;
  bool section_has_key = false;  // so that an indented line continues it

  bool read_line(std::size_t room);
  void end_line();
};

// Reads the next line. False at the end of what can be read.
bool reading::read_line(std::size_t room) {
  std::size_t length = 0;
  bool cut = false;
  ++here.line;
  line.clear();
  for (int octet = 0; octet != '\n' && (octet = std::getc(file)) != EOF; ++length) {
    if (octet == '\0') {
      found.add(here, error, "an octet of 0: this is no text file, and not checked");
      return false;
    }
    if (length < room) line += static_cast<char>(octet);
    cut = cut || (length >= room && std::strchr(blanks, octet) == nullptr);
  }
  if (cut) {
    found.add(here, error, "of {} octets in this line {} are read: shorten it", length, room);
  }
  constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
  if (here.line == 1 && line.starts_with(byte_order_mark)) line.erase(0, byte_order_mark.size());
  return !line.empty();
}

// A line without a key is blank, a comment, a section or at fault.
void reading::end_line() {
  const std::size_t begin = line.find_first_not_of(blanks);
  if (line_has_key || begin == std::string::npos || std::strchr(";#", line[begin])) return;
  const std::string text = line.substr(begin, line.find_last_not_of(blanks) + 1 - begin);
  const std::size_t bracket = text.find(']');
  if (text[0] != '[' || bracket >= std::min(text.find(" ;"), text.size())) {
    found.add(here, error, "{} is no [section], key = value or ; comment", in_quotes(text));
  } else {
    section = text.substr(1, bracket - 1);
    section_at = here;
    section_has_key = false;
    take({here, here, section.c_str(), false, nullptr, nullptr, nullptr});
  }
}

// inih's versions differ in what they make of a line that is longer than their room. They never see
// one: what has no room is left out, and the end of such a line is handed over by itself.
char* next_line(char* room, int size, void* user) noexcept {
  auto& state = *static_cast<reading*>(user);
  if (std::exchange(state.line_end_due, false)) {
    room[std::string_view("\n").copy(room, 1)] = '\0';
    return room;
  }
  state.end_line();
  state.line_has_key = false;
  if (!state.read_line(static_cast<std::size_t>(size) - 1)) return nullptr;
  state.line_end_due = state.line.back() != '\n';
  room[state.line.copy(room, state.line.size())] = '\0';
  return room;
}

int take_key(void* user, const char* section, const char* key, const char* value) noexcept {
  auto& state = *static_cast<reading*>(user);
  const bool is_first = !std::exchange(state.section_has_key, true);
  if (state.section_at.line == 0) state.section_at = state.here;
  if (!is_first && std::strchr(blanks, state.line[0]) != nullptr) {
    state.found.add(state.here, warning,
                    "an indented line continues the one before: {} is taken for a value of {}; "
                    "begin a key in the first column",
                    in_quotes(value), in_quotes(key));
  }
  state.line_has_key = true;
  state.take({state.here, state.section_at, state.section.c_str(), is_first, section, key, value});
  return 1;
}

}  // namespace

std::string in_quotes(std::string_view text) {
  return "'" + printable(text) + "'";
}

std::size_t findings::count(severity kind) const {
  return static_cast<std::size_t>(std::ranges::count(all, kind, &finding::kind));
}

std::string findings::counted(severity kind) const {
  return fmt::format("{} {}{}", count(kind), severity_names[kind], count(kind) == 1 ? "" : "s");
}

std::string findings::text(place at) const {
  return printable(files[at.file]) + (at.line > 0 ? ":" + std::to_string(at.line) : "");
}

void findings::print(std::ostream& out) const {
  for (const auto& [at, kind, words] : all) {
    out << text(at) << ": " << severity_names[kind] << ": " << words << '\n';
  }
}

std::string read_ini(const std::string& path, findings& found, const ini_taker& take) {
  const std::string fault = torvasin_host::file_fault(path);
  std::FILE* file = fault.empty() ? std::fopen(path.c_str(), "rb") : nullptr;
  if (file == nullptr) return fault.empty() ? std::strerror(errno) : fault;
  reading state = {file, found, take, {found.files.size(), 0}, {}, {}, {}};
  found.files.push_back(path);
  ini_parse_stream(next_line, &state, take_key, &state);
  const bool failed = std::ferror(file) != 0;
  struct stat status = {};
  if (fstat(fileno(file), &status) == 0 && status.st_mtime > found.changed) {
    found.changed = status.st_mtime;
  }
  std::fclose(file);
  return failed ? std::strerror(EIO) : "";
}

}  // namespace torvasin_config
