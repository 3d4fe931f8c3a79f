// The subcommands that print a file: mib and prometheus, which name the items, and draft.

#include <fmt/chrono.h>
#include <ini.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <set>
#include <stdexcept>

#include "config/config.h"

namespace torvasin_config {
namespace {

// ---- Names and words ---------------------------------------------------------------------------

std::string lower_case(std::string text) {
  std::ranges::transform(text, text.begin(), [](int letter) { return std::tolower(letter); });
  return text;
}

// Keeps the letters and digits of a text and capitalises those that follow anything else:
// memory_total becomes memoryTotal.
std::string camel_case(std::string_view text) {
  std::string result;
  bool word_begins = false;
  for (const char letter : text) {
    const bool kept = letter > 0 && std::isalnum(letter) != 0;
    const int cased = result.empty() ? std::tolower(letter)
                      : word_begins  ? std::toupper(letter)
                                     : letter;
    if (kept) result += static_cast<char>(cased);
    word_begins = !kept;
  }
  return result.empty() || std::isdigit(result[0]) != 0 ? "item" + result : result;
}

// Appends a number to the name if it is used already, in any case, and marks the result as used.
std::string unused_name(const std::string& name, std::set<std::string>& used) {
  std::string result = name;
  for (unsigned n = 2; !used.insert(lower_case(result)).second; ++n)
    result = fmt::format("{}{}", name, n);
  return result;
}

struct named_item {
  std::string name;
  std::uint32_t type;  // enum snmp_item_type
  bool counts;         // only grows, and wraps to 0
  std::string formula;
  std::string source;  // description and name of the meter
  snmp_oid oid;
  snmp_oid node = oid;  // in a MIB
  bool scalar = false;  // the node is an object and the item its instance; else only a name
};

named_item describe(const item& item, const std::string& name) {
  const std::string meter = item.binding->meter;
  const std::string what = item.meter != nullptr ? item.meter->description : "";
  const bool counts = item.binding->type == ITEM_UINT && item.formula.empty() &&
                      item.meter != nullptr && item.meter->counts == 1;
  const std::string source = fmt::format("{}{}{}{}", what, what.empty() ? "" : "; ",
                                         meter.empty() ? "a fixed value" : "meter ", meter);
  return {name, item.binding->type, counts, item.formula, source, item.oid()};
}

std::string with_formula(const named_item& item) {
  if (item.formula.empty()) return item.source;
  return fmt::format("{}, where value is {}", item.formula, item.source);
}

// Names the items, in the order of their OIDs. For each item that cannot be named, adds a comment
// line with the reason to `left_out`; `mark` starts a comment. Names differ in more than case, and
// none is `reserved`, a keyword of MIB parsers, or `up`, a metric that Prometheus itself adds. (Its
// other metrics, and those of the exporter, have a _ in their names.) Items have at most 44
// characters, so names stay below the 64 that SMI allows.
std::vector<named_item> name_items(configuration& config, const std::string& reserved,
                                   const char* mark, std::string& left_out) {
  std::set<std::string> used = {"iso",       "ccitt",    "current", "deprecated",        "obsolete",
                                "mandatory", "optional", "up",      lower_case(reserved)};
  std::map<const item*, std::string> names;  // assigned in the order of the file
  for (const item& each : config.items) {
    names[&each] = unused_name(camel_case(each.binding->name), used);
  }
  std::vector<named_item> named;
  for (const item* each : config.in_oid_order()) {
    const bool again = !named.empty() && compare_oid(&named.back().oid, &each->oid()) == 0;
    const char* reason = again                        ? "has the OID of another item"
                         : !can_be_named(each->oid()) ? "has an OID that no request can name"
                         : !each->typed()             ? "has no type"
                                                      : nullptr;
    if (reason == nullptr) {
      named.push_back(describe(*each, names[each]));
    } else {
      left_out += fmt::format("{} {} is left out: it {}.\n", mark, names[each], reason);
    }
  }
  return named;
}

std::runtime_error nothing_for(const std::string& output, const std::string& left_out) {
  std::cerr << left_out;
  return std::runtime_error("no item can go into " + output);
}

// Whether an OID starts with the whole of an arc.
bool is_below(const snmp_oid& oid, const snmp_oid& arc) {
  return oid.count >= arc.count && std::equal(arc.subid, arc.subid + arc.count, oid.subid);
}

// ---- MIB ---------------------------------------------------------------------------------------

// 1.3.6.1.4.1.N: the arc of an enterprise, which identifies the MIB. SMI defines the arcs above.
constexpr std::size_t enterprise_numbers = 7;

// Finds the nodes of the items. An OID that ends in .0 is the instance of an object, unless other
// items stand below that object.
void place_nodes(std::vector<named_item>& items, std::string& left_out) {
  for (std::size_t i = 0; i < items.size(); ++i) {
    snmp_oid parent = items[i].oid;
    --parent.count;
    const bool ends_in_0 = parent.subid[parent.count] == 0 && parent.subid[parent.count - 1] != 0;
    items[i].scalar = ends_in_0 && (i == 0 || !is_below(items[i - 1].oid, parent)) &&
                      (i + 1 == items.size() || !is_below(items[i + 1].oid, parent));
    if (items[i].scalar) items[i].node = parent;
  }
  std::erase_if(items, [&left_out](const named_item& item) {
    if (item.node.count > enterprise_numbers && item.node.subid[0] <= 2) return false;
    left_out += fmt::format("-- {} is left out: its OID {}.\n", item.name,
                            item.node.subid[0] > 2 ? "begins with 3" : "is too short for a MIB");
    return true;
  });
}

// The OID in SMI's notation, relative to the identity if it is below the identity's arc.
std::string value_of(const snmp_oid& oid, const snmp_oid& arc, const std::string& identity) {
  constexpr const char* roots[] = {"ccitt", "iso", "joint-iso-ccitt"};
  const bool inside = is_below(oid, arc);
  return fmt::format("{{ {} {} }}", inside ? identity : roots[oid.subid[0]],
                     fmt::join(oid.subid + (inside ? arc.count : 1), oid.subid + oid.count, " "));
}

std::string stamp(std::time_t time) {
  constexpr std::time_t no_smi_before = 631152000;  // SMI allows no earlier year than 1990
  return fmt::format("{:%Y%m%d%H%MZ}", fmt::gmtime(std::max(time, no_smi_before)));
}

// SMI texts are ASCII, and a quotation mark ends them; nothing can escape it.
std::string smi_text(std::string text) {
  for (char& letter : text) {
    if (letter < 0 || letter == '"') letter = '\'';
  }
  return printable(text);
}

// 0: MIB name, 1: its identity, 2: time of the last change, 3: file, 4: value of the identity.
constexpr char mib_head[] = R"({0} DEFINITIONS ::= BEGIN

IMPORTS
    MODULE-IDENTITY, OBJECT-IDENTITY, OBJECT-TYPE, Counter32, Integer32
        FROM SNMPv2-SMI;

{1} MODULE-IDENTITY
    LAST-UPDATED "{2}"
    ORGANIZATION "torvasin_snmp"
    CONTACT-INFO "The operator of the agent."
    DESCRIPTION
        "What the agent serves with {3}. It has no Gauge32: where a
         description begins with 'A gauge', show the Counter32 as it is, without a rate."
    REVISION "{2}"
    DESCRIPTION "Generated from the configuration by torvasin_config."
    ::= {4}
)";

constexpr char object[] = "\n{} OBJECT-TYPE\n    SYNTAX      {}\n    MAX-ACCESS  read-only\n";

// ---- Prometheus --------------------------------------------------------------------------------

// 0: the module's name.
constexpr char before_0_23[] = "{}:\n    version: 2\n    auth:\n      community: public\n";
constexpr char since_0_23[] =
    "auths:\n  public_v2:\n    version: 2\n    community: public\nmodules:\n  {}:\n";
constexpr char metric[] = R"(      - name: {}
        oid: {}
        type: {}
{}        help: "{}"
)";

// The factor that turns an item's value back into its meter's, if the formula is one multiplication
// or division by a constant; otherwise 0.
double scale_of(const std::string& formula) {
  char operation = '*';
  double constant = 0;
  int end = 0;
  if (std::sscanf(formula.c_str(), " value %c %lf%n", &operation, &constant, &end) < 2) {
    std::sscanf(formula.c_str(), "%lf * value%n", &constant, &end);
  }
  const bool is_all = end > 0 && formula.find_first_not_of(' ', std::size_t(end)) == formula.npos;
  if (!is_all || !std::isnormal(constant)) return 0;
  return operation == '*' ? 1 / constant : operation == '/' ? constant : 0;
}

std::string metric_of(const named_item& item, bool has_scale) {
  const double scale = has_scale ? scale_of(item.formula) : 0;
  return fmt::format(metric, item.name, dotted(item.oid),
                     item.counts ? "counter" : words_of(item.type).metric,
                     scale != 0 ? fmt::format("        scale: {}\n", scale) : "",
                     printable(scale != 0 ? item.source : with_formula(item)));
}

// ---- Draft --------------------------------------------------------------------------------------

constexpr char head[] = R"(; Drafted by torvasin_config. Delete the items that you do not need.
; snmpmanager.ini(5) explains the keys.

[General]
ip = 127.0.0.1
port = 1161
)";
// 0: description, 1: item, 2 to 5: values of the keys.
constexpr char section[] = R"(
; {}
[ITEM_{}]
oid = {}
meter = {}
metertype = {}
type = {}
)";

constexpr std::size_t longest_name = 40;  // a number may follow, and inih cuts names at 44

bool ends_word(char letter) {
  return std::isalnum(static_cast<unsigned char>(letter)) == 0;
}

std::string item_name(std::string meter, std::set<std::string>& used) {
  std::ranges::replace_if(meter, ends_word, '_');
  return unused_name(meter.substr(0, longest_name), used);
}

// Whether the module would read back the meter's name unchanged.
bool can_be_written(const std::string& meter) {
  std::string read;
  const auto take = [](void* user, const char*, const char*, const char* value) {
    *static_cast<std::string*>(user) = value;
    return 1;
  };
  ini_parse_string(("meter=" + meter).c_str(), take, &read);
  return read == meter && read.find('\r') == read.npos && !read.empty() &&
         read.size() < METER_NAME_SIZE;
}

void print_item(const listed_meter& meter, const std::string& name, const std::string& oid) {
  // Hundredths of a KiB would exceed an int at 20 GiB, and nobody needs them.
  const bool is_size = meter.name.ends_with("_kib") || meter.name.ends_with("_mib");
  const bool is_float = meter.type == TORVASIN_FLOAT;
  const auto type = !is_float ? meter.type : meter.counts == 0 ? ITEM_INT : ITEM_UINT;
  std::string description = meter.description.empty() ? meter.name : meter.description;
  std::ranges::replace(description, '\r', ' ');
  std::cout << fmt::format(section, description, name, oid, meter.name,
                           meter.speed == TORVASIN_SLOW ? "slow" : "fast", words_of(type).name)
            << (is_float && type == ITEM_INT && !is_size ? "computeformula = value*100\n" : "");
}

}  // namespace

void print_mib(configuration& config, const std::string& module_name) {
  std::string subject = lower_case(module_name);
  if (subject.ends_with("-mib")) subject.resize(subject.rfind('-'));
  const std::string identity = camel_case(subject);
  std::string left_out;
  auto items = name_items(config, identity, "--", left_out);
  place_nodes(items, left_out);
  if (items.empty()) throw nothing_for("a MIB", left_out);
  snmp_oid arc = items.back().node;  // the last one is the most stable as items come and go
  arc.count = enterprise_numbers;
  const std::string& path = config.found.files[0];
  std::cout << fmt::format(mib_head, module_name, identity, stamp(config.found.changed),
                           smi_text(path.substr(path.rfind('/') + 1)),
                           value_of(arc, {{}, SNMP_MAX_SUBIDS}, ""));
  for (const named_item& item : items) {
    const bool is_gauge = config.meters.known && item.type == ITEM_UINT && !item.counts;
    std::cout << (item.scalar ? fmt::format(object, item.name, words_of(item.type).syntax)
                              : fmt::format("\n{} OBJECT-IDENTITY\n", item.name))
              << fmt::format("    STATUS      current\n    DESCRIPTION \"{}{}\"\n    ::= {}\n",
                             is_gauge ? "A gauge: " : "", smi_text(with_formula(item)),
                             value_of(item.node, arc, identity));
  }
  std::cout << '\n' << left_out << (left_out.empty() ? "" : "\n") << "END\n";
}

void print_prometheus(configuration& config, const std::string& module_name, int minor_version) {
  const bool has_scale = minor_version >= 25;
  std::string left_out;
  std::string oids;
  std::string metrics;
  snmp_oid above{};
  for (const named_item& item : name_items(config, "", "#", left_out)) {
    // The exporter would take it for an instance of that metric.
    if (above.count > 0 && is_below(item.oid, above)) {
      left_out +=
          fmt::format("# {} is left out: its OID is below that of another item.\n", item.name);
      continue;
    }
    above = item.oid;
    oids += fmt::format("      - {}\n", dotted(item.oid));
    metrics += metric_of(item, has_scale);
  }
  if (metrics.empty()) throw nothing_for("an snmp.yml", left_out);
  std::cout << "# For prometheus-snmp-exporter 0." << minor_version
            << "; generated by torvasin_config.\n"
            << left_out
            << fmt::format(fmt::runtime(minor_version < 23 ? before_0_23 : since_0_23), module_name)
            << "    max_repetitions: 10\n    get:\n"
            << oids << "    metrics:\n"
            << metrics;
}

void print_draft(const meter_list& meters, const snmp_oid& above) {
  std::vector<std::pair<std::string, std::vector<const listed_meter*>>> groups;
  std::string left_out;
  for (const listed_meter& meter : meters.all) {
    const std::string word(meter.name.begin(), std::ranges::find_if(meter.name, ends_word));
    auto group = std::ranges::find(groups, word, [](const auto& each) { return each.first; });
    if (!can_be_written(meter.name)) {
      left_out += fmt::format("; Left out: meter {}, whose name no configuration can contain.\n",
                              in_quotes(meter.name.substr(0, longest_name)));
      continue;
    }
    if (group == groups.end()) group = groups.insert(group, {word, {}});
    group->second.push_back(&meter);
  }
  if (groups.empty()) throw std::runtime_error("no meter can become an item");
  std::cout << head << left_out;
  std::set<std::string> used;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    const auto& [word, members] = groups[i];
    std::cout << fmt::format("\n; ---- {} ----\n", word);
    for (std::size_t k = 0; k < members.size(); ++k) {
      const std::string oid = fmt::format("{}.{}.{}.0", dotted(above), i + 1, k + 1);
      print_item(*members[k], item_name(members[k]->name, used), oid);
    }
  }
}

}  // namespace torvasin_config
