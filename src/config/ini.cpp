// Reads ini files line by line and reports lines that cannot be read.

#include <ini.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "config/config.h"
#include "engine/readable.h"

namespace torvasin_config {
namespace {

constexpr const char* severity_names[] = {"error", "warning"};
constexpr char blanks[] = " \t\n\v\f\r";
constexpr char blanks_and_mark[] = " \t\n\v\f\r\xEF\xBB\xBF";  // and the byte order mark
constexpr std::size_t room = INI_MAX_LINE - 1;

// The state of reading one file.
struct reading {
  std::FILE* file;
  findings& found;
  const ini_taker& take;
  place here;           // the latest line
  place section_at;     // line 0 before the first section
  std::string line;     // as much of it as inih reads
  std::string section;  // as written
  std::string key;      // the key that an indented line would continue; empty if there is none
  bool skips_key = false;
  bool has_key = false;
};

// Reads the next line. Returns false when nothing more can be read.
bool read_line(reading& state) {
  std::string& line = state.line;
  std::size_t length = 0;
  std::size_t content = 0;  // the length without trailing blanks
  ++state.here.line;
  line.clear();
  const reporter report = {state.found, state.here, ""};
  for (int octet = 0; octet != '\n' && (octet = std::getc(state.file)) != EOF;) {
    if (octet == '\0') {
      report.error("zero octet: this is not a text file; the rest is not checked");
      return false;
    }
    ++length;
    if (length <= room) line += static_cast<char>(octet);
    if (std::strchr(blanks, octet) == nullptr) content = length;
  }
  if (content > room) report.error("line too long: {} octets, limit {}", content, room);
  if (line.find('\r') < std::min(content, line.size())) {
    report.warning("carriage return within the line: end lines with a line feed");
  }
  return length > 0;
}

int hand_over_key(void* user, const char* section, const char* key, const char* value) noexcept {
  auto& state = *static_cast<reading*>(user);
  if (std::exchange(state.skips_key, false)) return 1;
  const bool continues = !state.key.empty() && std::strchr(blanks, state.line[0]) != nullptr;
  if (continues) {
    const reporter report = {state.found, state.here, label_of(section, key)};
    report.warning("indented, so {} is read as another value of this key", in_quotes(value));
  }
  state.has_key = true;
  state.key = key;
  state.take({state.here, state.section_at, state.section, section, key, value, continues});
  return 1;
}

// Lets inih parse the latest line, with the section and key that it belongs to in front of it.
// (Given a whole file, inih's versions disagree about lines that are too long.)
void hand_over_line(reading& state) {
  const std::string& line = state.line;
  state.skips_key = state.here.line > 1;
  state.has_key = false;
  std::string text = state.skips_key ? fmt::format("[{}]\n{}=\n", state.section, state.key) : "";
  const bool faulty = ini_parse_string((text + line).c_str(), hand_over_key, &state) != 0;
  const std::size_t begin = line.find_first_not_of(blanks_and_mark);
  if (faulty) {
    const reporter report = {state.found, state.here, ""};
    text = line.substr(0, line.find_last_not_of(blanks) + 1);
    report.error("not a [section], key = value or ; comment: {}", in_quotes(text));
  } else if (!state.has_key && begin != line.npos && line[begin] == '[') {
    state.section = line.substr(begin + 1, line.find(']') - begin - 1);
    state.section_at = state.here;
    state.key.clear();
    state.take({state.here, state.here, state.section, nullptr, nullptr, nullptr, false});
  }
}

}  // namespace

std::string in_quotes(std::string_view text) {
  return "'" + printable(text) + "'";
}

std::string label_of(std::string_view section, std::string_view key) {
  return fmt::format("[{}]{}{}", printable(section), key.empty() ? "" : " ", printable(key));
}

void reporter::add(severity kind, const std::string& text) const {
  std::vector<finding>& here = found.all[at];
  const finding said = {kind, label + (label.empty() ? "" : ": ") + text};
  if (std::ranges::find(here, said) == here.end()) here.push_back(said);
}

void reporter::warn_if_repeated() const {
  const place before = found.first.try_emplace(label, at).first->second;
  if (before != at) warning("already given at {}; the last one counts", found.text(before));
}

std::size_t findings::count(severity kind) const {
  std::size_t sum = 0;
  for (const auto& [at, here] : all) {
    sum += static_cast<std::size_t>(std::ranges::count(here, kind, &finding::kind));
  }
  return sum;
}

std::string findings::counted(severity kind) const {
  const char* name = severity_names[static_cast<int>(kind)];
  return fmt::format("{} {}{}", count(kind), name, count(kind) == 1 ? "" : "s");
}

std::string findings::text(place at) const {
  return printable(files[at.file]) + (at.line > 0 ? ":" + std::to_string(at.line) : "");
}

void findings::print(std::ostream& out) const {
  for (const auto& [at, here] : all) {
    for (const auto& [kind, words] : here) {
      out << text(at) << ": " << severity_names[static_cast<int>(kind)] << ": " << words << '\n';
    }
  }
}

std::string read_ini(const std::string& path, findings& found, const ini_taker& take) {
  const auto cannot_read = [&path](const std::string& reason) {
    return "cannot read " + in_quotes(path) + ": " + reason;
  };
  const std::string unfit = found.files.empty() ? torvasin_engine::file_fault(path) : "";
  std::FILE* file = unfit.empty() ? std::fopen(path.c_str(), "rb") : nullptr;
  if (file == nullptr) return cannot_read(unfit.empty() ? std::strerror(errno) : unfit);
  const auto known = std::ranges::find_if(found.files, [&path](const std::string& other) {
    std::error_code error;
    return std::filesystem::equivalent(path, other, error);
  });
  const place whole = {static_cast<std::size_t>(known - found.files.begin()), 0};
  if (known == found.files.end()) found.files.push_back(path);
  struct stat status = {};
  fstat(fileno(file), &status);
  if (S_ISREG(status.st_mode)) found.changed = std::max(found.changed, status.st_mtime);
  int fault = S_ISDIR(status.st_mode) ? EISDIR : 0;
  reading state = {file, found, take, whole, whole, {}, {}, {}};
  while (fault == 0 && read_line(state)) hand_over_line(state);
  if (fault == 0 && std::ferror(file) != 0) fault = EIO;
  std::fclose(file);
  return fault == 0 ? "" : cannot_read(std::strerror(fault));
}

}  // namespace torvasin_config
