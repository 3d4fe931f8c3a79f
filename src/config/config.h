// torvasin_config: a configuration as the module takes it, what is wrong in it, and names for it.
//
// inih reads the files and each key line goes to the module's own handler, into a module that has
// no socket and no thread. Only `include` is followed here, under the module's limits, so that the
// file and line of everything is known. What an item came to stands in the module's tables.

#ifndef TORVASIN_CONFIG_CONFIG_H
#define TORVASIN_CONFIG_CONFIG_H

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <deque>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/meters.h"
#include "host/report.h"
#include "module/snmp/mainsnmp.h"

namespace torvasin_config {

using torvasin_host::printable;

// ---- The configuration -------------------------------------------------------------------------

enum severity { error, warning, note };

// A line of a file: an index into configuration::lines. 0 is the first file as a whole.
using place = std::size_t;

struct source_line {
  const std::string* file;
  std::size_t number;  // from 1; 0 for the file as a whole
};

struct finding {
  place at;
  severity kind;
  std::string text;  // printable
};

struct section {
  place at;                         // where it begins first
  std::optional<std::size_t> item;  // index of the item that it made
};

enum item_key { key_oid, key_meter, key_metertype, key_type, key_formula, item_keys };

// What the files say of an item; the module's tables, at the same index, say what it came to.
struct item_source {
  place section;                      // where its section begins first
  std::array<place, item_keys> keys;  // the last line of each key; the section's for none
  std::string formula;                // the last one that compiled; empty for none
  bool refuses;                       // the type takes no value of the meter
};

struct unreadable_file : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct configuration {
  // Reads a file and those that it includes, links the items, gives each the value that the meters
  // of this host have now, and collects the findings. Throws unreadable_file when the file cannot
  // be read. Only one may exist at a time: it takes the module's log.
  explicit configuration(const std::string& path);
  configuration(const configuration&) = delete;  // the tables point to the module
  ~configuration();

  template <typename... arguments>
  void report(place at, severity kind, std::string_view format, const arguments&... all) {
    const auto next = std::ranges::upper_bound(findings, at, {}, &finding::at);
    findings.insert(next, {at, kind, fmt::format(fmt::runtime(format), all...)});
  }
  std::size_t count(severity kind) const;
  std::string place_text(place at) const;  // "FILE:LINE", or "FILE" where there is no line

  // The items that have an OID, by it; of equal ones, the first in the tables comes first.
  std::vector<std::size_t> in_oid_order() const;

  snmp_module module{};
  torvasin_plugin_context context{"snmp", nullptr, {}, &module};
  std::vector<item_source> items;
  std::vector<finding> findings;  // in the order of their places
  std::deque<std::string> files;  // names, in the order of reading
  std::vector<source_line> lines;
  std::map<std::string, section, std::less<>> sections;
  std::deque<std::string> link_messages;  // in brackets, in the order of the items
  std::time_t changed = 0;                // the latest change of a file
};

// ---- Findings ----------------------------------------------------------------------------------

// One key line, when the module has handled it.
struct key_line {
  place at;
  std::string_view section, key, value;
  std::optional<std::size_t> item;
  std::string refusal;  // the module's message in brackets, if it refused the line
};

void check_unknown_section(configuration& config, place section_at, const key_line& line);
void check_key(configuration& config, const key_line& line);  // and keeps its place
void check_items(configuration& config);                      // when they have their values

// ---- Items and texts ---------------------------------------------------------------------------

// A text in printable form, between apostrophes.
std::string in_quotes(std::string_view text);

// What an item answers a request with: the value in the octets of its writer, as text. Empty when
// the writer refuses.
std::string serve(const snmp_item& item);

std::string dotted(const snmp_oid& oid);

// Whether the agent reads an OID in a request as it is meant: its first two numbers share an octet.
bool can_be_named(const snmp_oid& oid);

// The host's meter of a name, or null.
const torvasin_host::meter* find_meter(std::string_view name);

// ---- Output, to standard output. Throws std::runtime_error when there is no item for it. --------

void print_mib(const configuration& config, const std::string& module_name);
void print_prometheus(const configuration& config);

}  // namespace torvasin_config

#endif  // TORVASIN_CONFIG_CONFIG_H
