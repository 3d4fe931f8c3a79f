// torvasin_config: reads a configuration as the module does, reports mistakes, and names its items.
//
// inih parses the files, and the module's own handler takes each key, in a module without a socket
// or a thread. Only `include` is followed here, within the module's limits, so that every finding
// has its file and line. The module's tables hold the resulting items.

#ifndef TORVASIN_CONFIG_CONFIG_H
#define TORVASIN_CONFIG_CONFIG_H

#include <fmt/format.h>

#include <array>
#include <compare>
#include <ctime>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "host/printable.h"
#include "module/snmp/config_keys.h"
#include "module/snmp/mainsnmp.h"

namespace torvasin_config {

using torvasin_host::printable;

std::string in_quotes(std::string_view text);  // printable, in single quotes

// ---- Files and findings ------------------------------------------------------------------------

enum class severity { error, warning };

struct place {
  std::size_t file;  // index into findings::files
  std::size_t line;  // from 1; 0 for the file as a whole
  auto operator<=>(const place&) const = default;
};

struct finding {
  severity kind;
  std::string text;  // printable
  bool operator==(const finding&) const = default;
};

struct findings {
  std::vector<std::string> files;  // names, in the order in which they were first read
  std::map<place, std::vector<finding>> all;
  std::map<std::string, place> first;  // first place of each section and key, by label
  std::time_t changed = 0;             // time of the latest change to any of the files

  std::size_t count(severity kind) const;
  std::string counted(severity kind) const;  // "1 error", "2 errors"
  std::string text(place at) const;          // "FILE:LINE", or "FILE"
  void print(std::ostream& out) const;
};

// "[SECTION] KEY", or "[SECTION]" if the key is empty; printable.
std::string label_of(std::string_view section, std::string_view key = "");

// Adds findings at a place. Each begins with the label, unless that is empty. A finding that is
// there already, as when a file is read twice, is not added again.
struct reporter {
  findings& found;
  place at;
  std::string label;

  void add(severity kind, const std::string& text) const;
  template <typename... types>
  void error(fmt::format_string<types...> format, types&&... values) const {
    add(severity::error, fmt::format(format, std::forward<types>(values)...));
  }
  template <typename... types>
  void warning(fmt::format_string<types...> format, types&&... values) const {
    add(severity::warning, fmt::format(format, std::forward<types>(values)...));
  }
  void warn_if_repeated() const;  // if its label has an earlier place
};

// What inih makes of a line. The texts are valid only during the call that passes them.
struct ini_line {
  place at;
  place section_at;          // where this section starts; line 0 before the first section
  std::string_view written;  // its name as written
  const char* section;       // the same, as cut by inih; null on the section's own line
  const char* key;           // null on the section's own line
  const char* value;         // likewise
  bool continues;            // indented, so it belongs to the key above
};

using ini_taker = std::function<void(const ini_line&)>;  // must not throw

// Reads a file, passes each section and key to `take`, and adds findings about all other lines.
// Uses a few hundred octets of memory however long the file or a line is. The first file must be a
// regular file or a pipe; included ones may be anything. Returns why the file cannot be read, or
// "".
std::string read_ini(const std::string& path, findings& found, const ini_taker& take);

// ---- Meters ------------------------------------------------------------------------------------

constexpr std::uint32_t any_speed = UINT32_MAX;  // the meter is in both sets

struct listed_meter {
  std::string name;
  place at;
  std::uint32_t speed;   // enum torvasin_speed, or any_speed
  std::uint32_t type;    // enum torvasin_value_type
  std::uint32_t counts;  // 1 if it only grows, and wraps to 0
  std::string description;
};

// The meters that items can name.
struct meter_list {
  bool known;  // otherwise meters are not checked
  bool live;   // meters of torvasin_host on this machine, which can be read
  std::vector<listed_meter> all;

  const listed_meter* find(std::string_view name) const;  // or null
};

meter_list own_meters();

// Reads an ini file with a section for each meter of another host. If `found` then contains an
// error, the list is useless. Returns as read_ini does.
std::string read_meters(const std::string& path, findings& found, meter_list& list);

// ---- The configuration -------------------------------------------------------------------------

struct item {
  std::string section;
  // The last place of each key; for a missing one, and for `unknown`, the place of the section.
  std::array<place, std::size(item_key_names) + 1> places;
  std::string formula;  // the one in use; empty if none

  // Its entries in the module's tables, once all files are read.
  const snmp_item* served;
  const snmp_meter_binding* binding;
  const listed_meter* meter;  // null if no known meter has this name

  place& at(item_key key) { return places[static_cast<std::size_t>(key)]; }
  bool typed() const { return served->writer != encode_null; }
  const snmp_oid& oid() const { return served->oid; }
};

// The names of an item type in a configuration, in a MIB and in an snmp.yml.
struct type_words {
  std::uint32_t type;  // enum snmp_item_type
  const char* name;
  const char* syntax;
  const char* metric;
};
const type_words& words_of(std::uint32_t type);

// Reads a file and the files it includes. Live meters give each item their current value. Only one
// may exist at a time, because it takes over the module's log.
struct configuration {
  configuration(const std::string& path, const meter_list& meters);
  configuration(const configuration&) = delete;  // the tables point to the module
  ~configuration();

  // The items that have an OID, in OID order; items with equal OIDs keep their order.
  std::vector<item*> in_oid_order();

  const meter_list& meters;
  std::string fault;  // why the file cannot be read; empty if it was read
  findings found;
  std::vector<item> items;  // in the order of the module's tables
  snmp_module module{};
  torvasin_plugin_context context{"snmp", nullptr, {}, &module};
  bool refused = false;  // the module refused the latest line
};

void check_items(configuration& config);  // adds findings

// The value that an item serves, as text; empty if it cannot be encoded.
std::string serve(const item& item);

std::string dotted(const snmp_oid& oid);

// Whether a request can name the OID: its first two numbers share an octet on the wire.
inline bool can_be_named(const snmp_oid& oid) {
  return oid.count >= 2 && oid.subid[1] < 40;
}

// ---- Printing to standard output; throws std::runtime_error if no item can be printed ----------

void print_notes(configuration& config);  // remarks that are no mistakes

void print_mib(configuration& config, const std::string& module_name);

// In the format of prometheus-snmp-exporter 0.`minor_version`.
void print_prometheus(configuration& config, const std::string& module_name, int minor_version);

// Prints a configuration with an item for each meter, below an OID with room for three more
// numbers.
void print_draft(const meter_list& meters, const snmp_oid& above);

}  // namespace torvasin_config

#endif  // TORVASIN_CONFIG_CONFIG_H
