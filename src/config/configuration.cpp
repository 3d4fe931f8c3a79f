#include <ini.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <utility>

#include "config/config.h"
#include "host/key_value_list.h"
#include "host/log.h"
#include "host/memory.h"

namespace torvasin_config {
namespace {

using std::string_view;

std::deque<std::string> logged;  // what the module has logged, each in brackets behind a blank

// ---- Files -------------------------------------------------------------------------------------

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
  reading(configuration& config, const std::string& path) : config_(config) {
    const std::string fault = torvasin_host::file_fault(path);
    if (!fault.empty()) throw unreadable_file("cannot read " + in_quotes(path) + ": " + fault);
    std::ifstream file(path, std::ios::binary);
    content_.assign(std::istreambuf_iterator<char>(file), {});
    text_ = content_;
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) {
      config.changed = std::max(config.changed, status.st_mtime);
    }
    file_ = &config.files.emplace_back(path);
    if (config.lines.empty()) config.lines.push_back({file_, 0});
  }

  void run() {
    const std::size_t zero = text_.find('\0');
    if (zero != string_view::npos) {
      begin_line(1 + static_cast<std::size_t>(std::ranges::count(text_.substr(0, zero), '\n')));
      return config_.report(here_, error, "an octet of 0: this is no text file, and not checked");
    }
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
  void begin_line(std::size_t number) {
    here_ = config_.lines.size();
    config_.lines.push_back({file_, number});
  }

  char* next_piece(char* room, std::size_t size) {
    if (keyless_) end_piece();
    keyless_ = true;
    if (text_.empty()) return nullptr;
    const std::size_t length = std::min(text_.find('\n'), text_.size() - 1) + 1;
    const bool begins_line = piece_.empty() || piece_.back() == '\n';
    if (begins_line) begin_line(config_.lines[here_].number + 1);
    if (begins_line && length >= size) {
      config_.report(here_, warning,
                     "of {} octets in this line {} are read, the rest as more lines", length,
                     size - 1);
    }
    piece_ = text_.substr(0, std::min(length, size - 1));
    text_.remove_prefix(piece_.size());
    room[piece_.copy(room, size)] = '\0';
    constexpr string_view byte_order_mark = "\xEF\xBB\xBF";  // inih skips it
    if (++piece_number_ == 1 && piece_.starts_with(byte_order_mark)) piece_.remove_prefix(3);
    return room;
  }

  // A piece without a key is blank, a comment, a section or at fault. Of the pieces of a line that
  // is cut, one is enough to report.
  void end_piece() {
    const judgement line = judge(piece_);
    if (line.section) {
      enter(*line.section);
      if (piece_[piece_.find('[') + 1 + line.section->size()] != ']') {
        config_.report(here_, warning, "the name is cut to {}", in_quotes(*line.section));
      }
    }
    if (!line.faulty || fault_ == here_) return;
    std::string message;
    if (fault_ == 0) {  // the module logs the first one of a file
      message = fmt::format(" (problem parsing {} (line first error: {}))", printable(*file_),
                            piece_number_);
    }
    fault_ = here_;
    config_.report(here_, error, "{} is no [section], key = value or ; comment{}",
                   in_quotes(piece_.substr(0, piece_.find_last_not_of("\r\n") + 1)), message);
  }

  void enter(const std::string& name) {
    const auto [at, fresh] = config_.sections.try_emplace(name, section{here_, {}});
    section_ = &*at;
    section_at_ = here_;
    refused_ = false;
    // [General] may well be spread over files.
    const place first = at->second.at;
    if (fresh || (name == "General" && config_.lines[first].file != file_)) return;
    config_.report(here_, warning, "[{}] is at {} already: the keys below add to that one",
                   printable(name), config_.place_text(first));
  }

  void take_key(const char* section, const char* key, const char* value) {
    keyless_ = false;
    if (section_ == nullptr || section_->first != section) enter(section);
    key_line line = {here_, section, key, value, {}, {}};
    const judgement alone = judge(piece_);
    if (alone.key != key || alone.value != value) {
      config_.report(here_, warning,
                     "an indented line continues the one before: {} is taken for a value of {}; "
                     "begin a key in the first column",
                     in_quotes(value), in_quotes(key));
    }
    if (line.section == "General" && line.key == "include" && include(line)) return;
    logged.clear();
    ini_handler_cb(&config_.context, section, key, value);
    if (!logged.empty()) line.refusal = logged.back();
    auto& [at, item] = section_->second;
    if (config_.module.item_count > config_.items.size()) {
      item = config_.items.size();
      config_.items.push_back({at, {}, {}, false});
      config_.items.back().keys.fill(at);
    }
    line.item = item;
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
      reading(config_, path).run();
    } catch (const unreadable_file& failure) {
      if (access(path.c_str(), R_OK) != 0) return false;
      config_.report(line.at, error, "{}", failure.what());
    }
    return true;
  }

  configuration& config_;
  std::string content_;
  const std::string* file_;       // its name
  string_view text_;              // what is left of it
  string_view piece_;             // the latest
  std::size_t piece_number_ = 0;  // inih takes these for lines
  place here_ = 0;                // the line of the piece
  bool keyless_ = false;          // the piece has given no key so far
  place fault_ = 0;               // the line of the latest piece at fault
  std::pair<const std::string, section>* section_ = nullptr;
  place section_at_ = 0;  // where it begins here
  bool refused_ = false;  // the section has been reported as unknown
};

// ---- Items -------------------------------------------------------------------------------------

// The module's pass ends at the first item without an OID. The others are linked by a second one,
// in which all have one; what it logs no agent will log.
void link(configuration& config) {
  const std::span items(config.module.items, config.module.item_count);
  logged.clear();
  link_snmp_items(&config.module);
  config.link_messages = std::exchange(logged, {});
  for (snmp_item& item : items) ++item.oid.count;
  link_snmp_items(&config.module);
  for (snmp_item& item : items) --item.oid.count;
}

// Notes which items do not take the values of a list, tried on copies of them, whatever their
// speed.
void try_items(configuration& config, const torvasin_key_value_list& list) {
  const snmp_module& module = config.module;
  std::vector<snmp_meter_binding> copies(module.bindings, module.bindings + module.item_count);
  for (snmp_meter_binding& copy : copies) copy.fast = TORVASIN_FAST;
  snmp_module trial{};
  trial.bindings = copies.data();
  trial.item_count = module.item_count;
  refresh_items(&trial, &list, TORVASIN_FAST);
  for (std::size_t i = 0; i < copies.size(); ++i) {
    if (list.find(copies[i].meter) != nullptr) config.items[i].refuses = copies[i].refreshed == 0;
  }
}

void refresh(configuration& config) {
  torvasin_host::meter_state state;
  for (const torvasin_speed speed : {TORVASIN_SLOW, TORVASIN_FAST}) {
    torvasin_key_value_list list;
    sample_meters(speed, state, list);
    try_items(config, list);
    refresh_items(&config.module, &list, speed);
  }
}

}  // namespace

configuration::configuration(const std::string& path) {
  torvasin_host::set_log_level(TORVASIN_LOG_WARNING);
  const auto keep = [](const torvasin_host::log_record& record, void*) {
    logged.push_back(" (" + printable(record.text) + ")");
  };
  torvasin_host::set_log_sink(keep, nullptr);
  module.formula_vars = {"value", &module.formula_value, TE_VARIABLE, nullptr};
  reading(*this, path).run();
  link(*this);
  refresh(*this);
  check_items(*this);
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
  std::ranges::sort(order, [this](std::size_t a, std::size_t b) {
    const int relation = compare_oid(&module.items[a].oid, &module.items[b].oid);
    return relation < 0 || (relation == 0 && a < b);
  });
  return order;
}

}  // namespace torvasin_config
