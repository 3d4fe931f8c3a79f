#include <ini.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <system_error>
#include <utility>

#include "config/config.h"
#include "host/log.h"
#include "host/memory.h"

namespace torvasin_config {
namespace {

using std::string_view;

std::vector<std::pair<int, std::string>> logged;  // level and text, since the last take_log

// ---- Files -------------------------------------------------------------------------------------

// The content of a file or pipe. Throws std::system_error, in one line, when there is none.
std::string content_of(const std::string& path) {
  struct stat status {};
  int reason = stat(path.c_str(), &status) != 0 ? errno : 0;
  if (S_ISDIR(status.st_mode)) reason = EISDIR;
  if (reason == 0 && !S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) reason = EINVAL;
  if (reason == 0) {
    std::ifstream file(path, std::ios::binary);
    if (file) return {std::istreambuf_iterator<char>(file), {}};
    reason = errno;
  }
  throw std::system_error(reason, std::generic_category(), "cannot read " + in_quotes(path));
}

// What inih makes of a line that stands by itself.
struct judgement {
  bool faulty;
  std::optional<std::string> section;  // that it begins
  std::string key, value;              // of a key line
};

judgement judge(string_view line) {
  static constexpr char outside[] = "\1";  // no names that anybody gives
  static constexpr char mark[] = "\2";
  judgement result{};
  const auto take = [](void* user, const char* section, const char* key, const char* value) {
    auto* made = static_cast<judgement*>(user);
    if (std::strcmp(key, mark) != 0) {
      made->key = key;
      made->value = value;
    } else if (std::strcmp(section, outside) != 0) {
      made->section = section;
    }
    return 1;
  };
  const std::string text = fmt::format("[{}]\n{}\n{}=\n", outside, line, mark);
  result.faulty = ini_parse_string(text.c_str(), take, &result) != 0;
  return result;
}

// Reads one file: hands it to inih in pieces, a line or as much of it as inih has room for, and the
// key lines that inih finds to the module.
class reading {
 public:
  reading(configuration& config, const std::string& path)
      : config_(config), file_(&config.files.emplace_back(path)) {
    if (config.lines.empty()) config.lines.push_back({file_, 0});
    struct stat status {};
    if (stat(path.c_str(), &status) == 0)
      config.changed = std::max(config.changed, status.st_mtime);
  }

  void run(string_view text) {
    const std::size_t zero = text.find('\0');
    if (zero != string_view::npos) {
      line_number_ = static_cast<std::size_t>(std::ranges::count(text.substr(0, zero), '\n'));
      begin_line();
      return config_.report(here_, error, "an octet of 0: this is no text file, and not checked");
    }
    text_ = text;
    config_.module.files_read++;
    config_.module.open_files++;
    ini_parse_stream(
        [](char* room, int size, void* self) {
          return static_cast<reading*>(self)->next_piece(room, static_cast<std::size_t>(size));
        },
        this,
        [](void* self, const char* section, const char* key, const char* value) {
          static_cast<reading*>(self)->take_key(section, key, value);
          return 1;
        },
        this);
    config_.module.open_files--;
  }

 private:
  void begin_line() {
    here_ = config_.lines.size();
    config_.lines.push_back({file_, ++line_number_});
  }

  char* next_piece(char* room, std::size_t size) {
    if (keyless_) end_piece();
    keyless_ = true;
    if (text_.empty()) return nullptr;
    const std::size_t length = std::min(text_.find('\n'), text_.size() - 1) + 1;
    const bool begins_line = piece_.empty() || piece_.back() == '\n';
    if (begins_line) begin_line();
    if (begins_line && length >= size) {
      config_.report(here_, warning,
                     "of {} octets in this line {} are read, the rest as more lines", length,
                     size - 1);
    }
    piece_ = text_.substr(0, std::min(length, size - 1));
    text_.remove_prefix(piece_.size());
    ++piece_number_;
    room[piece_.copy(room, size)] = '\0';
    return room;
  }

  // A piece without a key is blank, a comment, a section or at fault. Of the pieces of a line that
  // is cut, one is enough to report.
  void end_piece() {
    constexpr string_view byte_order_mark =
        "\xEF\xBB\xBF";  // inih skips it, at the start of a file
    if (piece_number_ == 1 && piece_.starts_with(byte_order_mark)) piece_.remove_prefix(3);
    const judgement line = judge(piece_);
    if (line.section) {
      enter(*line.section);
      const std::size_t end = piece_.find('[') + 1 + section_name_.size();
      if (piece_[end] != ']') {
        config_.report(here_, warning, "the name is cut to {}", in_quotes(section_name_));
      }
    }
    if (!line.faulty || fault_ == line_number_) return;
    std::string message;
    if (fault_ == 0) {  // the module logs the first one of a file
      message = fmt::format(" (problem parsing {} (line first error: {}))", printable(*file_),
                            piece_number_);
    }
    fault_ = line_number_;
    config_.report(here_, error, "{} is no [section], key = value or ; comment{}",
                   in_quotes(piece_.substr(0, piece_.find_last_not_of("\r\n") + 1)), message);
  }

  void enter(const std::string& name) {
    const auto [at, fresh] = config_.sections.try_emplace(name, section{here_, {}});
    section_ = &at->second;
    section_name_ = name;
    section_at_ = here_;
    refused_ = false;
    // [General] may well be spread over files.
    if (fresh || (name == "General" && config_.lines[section_->at].file != file_)) return;
    config_.report(here_, warning, "[{}] is at {} already: the keys below add to that one",
                   printable(name), config_.place_text(section_->at));
  }

  void take_key(const char* section, const char* key, const char* value) {
    keyless_ = false;
    if (section_ == nullptr || section_name_ != section) enter(section);
    key_line line = {here_, section, key, value, {}, {}};
    const bool indented = std::isspace(static_cast<unsigned char>(piece_[0])) != 0;
    const judgement alone = indented ? judge(piece_) : judgement{false, {}, key, value};
    if (alone.key != key || alone.value != value) {
      config_.report(here_, warning,
                     "an indented line continues the one before: {} is taken for a value of {}; "
                     "begin a key in the first column",
                     in_quotes(value), in_quotes(key));
    }
    if (line.section == "General" && line.key == "include" && include(line)) return;
    take_log(TORVASIN_LOG_FAILURE);
    ini_handler_cb(&config_.context, section, key, value);
    const auto messages = take_log(TORVASIN_LOG_ERROR);
    if (!messages.empty()) line.refusal = messages.back();
    if (config_.module.item_count > config_.items.size()) {
      section_->item = config_.items.size();
      config_.items.push_back({section_->at, {}, {}});
      config_.items.back().keys.fill(section_->at);
    }
    line.item = section_->item;
    if (line.item || line.section == "General") {
      check_key(config_, line);
    } else if (!std::exchange(refused_, true)) {
      check_unknown_section(config_, section_at_, line);
    }
  }

  // False when the module itself is to say why it does not read the file.
  bool include(const key_line& line) {
    const snmp_module& module = config_.module;
    if (module.open_files == MAX_OPEN_FILES || module.files_read == MAX_FILES) return false;
    const std::string path(line.value);
    try {
      const std::string text = content_of(path);
      reading(config_, path).run(text);
    } catch (const std::system_error& failure) {
      if (access(path.c_str(), R_OK) != 0) return false;
      config_.report(line.at, error, "{}", failure.what());
    }
    return true;
  }

  configuration& config_;
  const std::string* file_;
  string_view text_;              // what is left of it
  string_view piece_;             // the latest
  std::size_t piece_number_ = 0;  // inih takes these for lines
  std::size_t line_number_ = 0;
  place here_ = 0;         // the line of the piece
  bool keyless_ = false;   // the piece has given no key so far
  std::size_t fault_ = 0;  // number of the line of the latest piece at fault
  section* section_ = nullptr;
  std::string section_name_;
  place section_at_ = 0;
  bool refused_ = false;  // the section has been reported as unknown
};

// ---- Items -------------------------------------------------------------------------------------

// The module's pass ends at the first item without an OID. The others are linked by a second one,
// in which those have an OID; what it logs no agent will log.
void link(configuration& config) {
  snmp_module* module = &config.module;
  take_log(TORVASIN_LOG_FAILURE);
  const bool complete = link_snmp_items(module) == 0;
  config.link_messages = take_log(TORVASIN_LOG_WARNING);
  if (complete) return;
  std::vector<snmp_oid*> missing;
  for (snmp_item& item : std::span(module->items, module->item_count)) {
    if (item.oid.count == 0) missing.push_back(&item.oid);
  }
  for (snmp_oid* oid : missing) oid->count = 1;
  link_snmp_items(module);
  for (snmp_oid* oid : missing) oid->count = 0;
}

void refresh(snmp_module* module) {
  torvasin_host::meter_state state;
  for (const torvasin_speed speed : {TORVASIN_SLOW, TORVASIN_FAST}) {
    torvasin_key_value_list list;
    torvasin_host::sample_meters(speed, state, list);
    refresh_items(module, &list, speed);
  }
}

}  // namespace

std::deque<std::string> take_log(int least_level) {
  std::deque<std::string> taken;
  for (const auto& [level, text] : std::exchange(logged, {})) {
    if (level >= least_level) taken.push_back(" (" + printable(text) + ")");
  }
  return taken;
}

configuration::configuration(const std::string& path) {
  mallopt(M_TOP_PAD, 1 << 26);  // the host's allocator moves the tables for each new item
  torvasin_host::set_log_level(TORVASIN_LOG_WARNING);
  const auto sink = [](const torvasin_host::log_record& record, void*) {
    logged.emplace_back(record.level, record.text);
  };
  torvasin_host::set_log_sink(sink, nullptr);
  module.formula_vars = {"value", &module.formula_value, TE_VARIABLE, nullptr};
  const std::string text = content_of(path);
  reading(*this, path).run(text);
  link(*this);
  refresh(&module);
  check_items(*this);
  std::ranges::stable_sort(findings, {}, &finding::at);
}

configuration::~configuration() {
  torvasin_host::set_log_sink(nullptr, nullptr);
  release_items(&module);
  torvasin_host::release_all_texts();
}

std::size_t configuration::count(severity kind) const {
  return static_cast<std::size_t>(std::ranges::count(findings, kind, &finding::kind));
}

std::string configuration::place_text(place at) const {
  const auto& [file, number] = lines[at];
  return printable(*file) + (number > 0 ? ":" + std::to_string(number) : "");
}

std::vector<std::size_t> configuration::in_oid_order() const {
  std::vector<std::size_t> order;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (module.items[i].oid.count > 0) order.push_back(i);
  }
  std::ranges::stable_sort(order, [this](std::size_t a, std::size_t b) {
    return compare_oid(&module.items[a].oid, &module.items[b].oid) < 0;
  });
  return order;
}

}  // namespace torvasin_config
