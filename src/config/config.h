// torvasin_config: a configuration as the module takes it, what is wrong in it, and names for it.
//
// inih reads the files and each key line goes to the module's own handler, into a module that has
// no socket and no thread. Only `include` is followed here, under the module's limits, so that the
// file and line of everything is known. What an item came to stands in the module's tables.

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

std::string in_quotes(std::string_view text);  // in printable form, between apostrophes

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
  std::vector<std::string> files;  // names, in the order of their first reading
  std::map<place, std::vector<finding>> all;
  std::map<std::string, place> first;  // where a section or key is given first, by its label
  std::time_t changed = 0;             // the latest change of a file

  std::size_t count(severity kind) const;
  std::string counted(severity kind) const;  // "1 error", "2 errors"
  std::string text(place at) const;          // "FILE:LINE", or "FILE"
  void print(std::ostream& out) const;
};

// "[SECTION] KEY", or "[SECTION]" for an empty key; printable.
std::string label_of(std::string_view section, std::string_view key = "");

// Adds findings at a place that begin with a label, unless it is empty. What is said there already,
// as when a file is read twice, is not said again.
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
  void warn_if_repeated() const;  // if its label was given at another place before
};

// What inih makes of a line. The texts are valid during the call that hands them over.
struct ini_line {
  place at;
  place section_at;          // where the section begins here; line 0 before the first section
  std::string_view written;  // its name as it is written
  const char* section;       // the same, cut where inih cuts it; null where it begins
  const char* key;           // null where the section begins
  const char* value;         // the same
  bool continues;            // indented, so that the key is that of the line above
};

using ini_taker = std::function<void(const ini_line&)>;  // throws nothing

// Reads a file, hands over each section and key, and adds findings about lines that are neither.
// Needs a few hundred octets of memory, however long a file or a line is. The first is to be a file
// or a pipe; what it includes may be anything. Returns why it cannot be read, or an empty text.
std::string read_ini(const std::string& path, findings& found, const ini_taker& take);

// ---- Meters ------------------------------------------------------------------------------------

constexpr std::uint32_t any_speed = UINT32_MAX;  // of a meter that is in both sets

struct listed_meter {
  std::string name;
  place at;
  std::uint32_t speed;   // enum torvasin_speed, or any_speed
  std::uint32_t type;    // enum torvasin_value_type
  std::uint32_t counts;  // 1 if it only grows, and starts again from 0 after its greatest number
  std::string description;
};

// The meters that items can have.
struct meter_list {
  bool known;  // else nothing is to be said of meters
  bool live;   // they are those of torvasin_host on this machine, and are read
  std::vector<listed_meter> all;

  const listed_meter* find(std::string_view name) const;  // or null
};

meter_list own_meters();

// Reads an ini file with a section for each meter of another host. An error in `found` says that
// the list is of no use. Returns as read_ini does.
std::string read_meters(const std::string& path, findings& found, meter_list& list);

// ---- The configuration -------------------------------------------------------------------------

struct item {
  std::string section;
  // The last place of each key. For one that is missing, and for `unknown`, the section's.
  std::array<place, std::size(item_key_names) + 1> places;
  std::string formula;  // the one in force; empty for none

  // What it came to in the module's tables, once all is read.
  const snmp_item* served;
  const snmp_meter_binding* binding;
  const listed_meter* meter;  // null if none is known by this name

  place& at(item_key key) { return places[static_cast<std::size_t>(key)]; }
  bool typed() const { return served->writer != encode_null; }
  const snmp_oid& oid() const { return served->oid; }
};

// What a type of item is called in a configuration, in a MIB and in an snmp.yml.
struct type_words {
  std::uint32_t type;  // enum snmp_item_type
  const char* name;
  const char* syntax;
  const char* metric;
};
const type_words& words_of(std::uint32_t type);

// Reads a file and those that it includes. Live meters give each item the value that they have now.
// Only one may exist at a time: it takes the module's log.
struct configuration {
  configuration(const std::string& path, const meter_list& meters);
  configuration(const configuration&) = delete;  // the tables point to the module
  ~configuration();

  // The items that have an OID, by it; of equal ones, the first in the tables comes first.
  std::vector<item*> in_oid_order();

  const meter_list& meters;
  std::string fault;  // why the file cannot be read; empty if it was
  findings found;
  std::vector<item> items;  // in the order of the module's tables
  snmp_module module{};
  torvasin_plugin_context context{"snmp", nullptr, {}, &module};
  bool refused = false;  // the module has not taken the latest line
};

void check_items(configuration& config);  // adds findings

// What an item answers a request with, as text; empty when there is no encoding for it.
std::string serve(const item& item);

std::string dotted(const snmp_oid& oid);

// Whether the agent reads an OID in a request as it is meant: its first two numbers share an octet.
inline bool can_be_named(const snmp_oid& oid) {
  return oid.count >= 2 && oid.subid[1] < 40;
}

// ---- Output, to standard output. Throws std::runtime_error when there is no item for it. --------

void print_notes(configuration& config);  // what is worth knowing and no mistake

void print_mib(configuration& config, const std::string& module_name);

// In the form of prometheus-snmp-exporter 0.`minor_version`.
void print_prometheus(configuration& config, const std::string& module_name, int minor_version);

// A configuration with an item for each meter, below an OID with room for three numbers more.
void print_draft(const meter_list& meters, const snmp_oid& above);

}  // namespace torvasin_config

#endif  // TORVASIN_CONFIG_CONFIG_H
