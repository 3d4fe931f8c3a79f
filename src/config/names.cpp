// The subcommands mib and prometheus: names for the items.

#include <spdlog/fmt/chrono.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <regex>
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

// The letters and digits of a text, a capital for each that follows something else: memory_total is
// memoryTotal.
std::string camel_case(std::string_view text) {
  std::string result;
  bool word_begins = false;
  for (const char letter : text) {
    if (letter > 0 && std::isalnum(letter) != 0) {
      const int cased = word_begins ? std::toupper(letter) : letter;
      result += static_cast<char>(result.empty() ? std::tolower(letter) : cased);
      word_begins = false;
    } else {
      word_begins = true;
    }
  }
  return result.empty() || std::isdigit(result[0]) != 0 ? "item" + result : result;
}

// Names of the items by index. No two are alike but for the case, and none is the reserved one or a
// word that readers of MIBs keep for themselves. Of an item's 44 characters at most, all are below
// the 64 that SMI allows.
std::vector<std::string> unique_names(const configuration& config, const std::string& reserved) {
  std::set<std::string> used = {"iso",      "ccitt",     "current",  "deprecated",
                                "obsolete", "mandatory", "optional", lower_case(reserved)};
  std::map<std::string, unsigned> alike;  // how many could not have a name
  std::vector<std::string> names;
  for (std::size_t i = 0; i < config.items.size(); ++i) {
    const std::string base = camel_case(config.module.bindings[i].name);
    std::string name = base;
    while (!used.insert(lower_case(name)).second) {
      name = base + std::to_string(++alike[lower_case(base)] + 1);
    }
    names.push_back(name);
  }
  return names;
}

// An item with all that is said of it.
struct named_item {
  std::string name;
  const snmp_oid* oid;
  const snmp_meter_binding* binding;
  bool counts;        // only grows, and starts again from 0
  std::string words;  // its meter, what that is, and the formula; printable
};

// The items that can have a name, in the order of their OIDs. Why the others cannot is added to
// `left_out`, a line for each behind the mark of a comment.
std::vector<named_item> name_items(const configuration& config, const std::string& reserved,
                                   const char* mark, std::string& left_out) {
  std::vector<named_item> named;
  const auto names = unique_names(config, reserved);
  for (const std::size_t i : config.in_oid_order()) {
    const snmp_item& item = config.module.items[i];
    const snmp_meter_binding& binding = config.module.bindings[i];
    const char* reason = nullptr;
    if (item.writer == encode_null) reason = "has no type";
    if (!can_be_named(item.oid)) reason = "has an OID that no request can name";
    if (!named.empty() && compare_oid(named.back().oid, &item.oid) == 0) {
      reason = "has the OID of another item";
    }
    if (reason != nullptr) {
      left_out += fmt::format("{} {} is left out: it {}.\n", mark, names[i], reason);
      continue;
    }
    const torvasin_host::meter* source = find_meter(binding.meter);
    const bool counts = source != nullptr && source->counts && binding.type == ITEM_UINT &&
                        binding.formula == nullptr;
    std::string words = binding.type == ITEM_UINT && !counts ? "A gauge: " : "";
    if (source != nullptr) words.append(source->description).append("; ");
    words += *binding.meter != '\0' ? fmt::format("meter {}", binding.meter) : "a fixed value";
    if (binding.formula != nullptr) words += ", formula " + config.items[i].formula;
    named.push_back({names[i], &item.oid, &binding, counts, printable(words)});
  }
  return named;
}

// Whether an OID begins with all of an arc.
bool is_below(const snmp_oid& oid, const snmp_oid& arc) {
  return oid.count >= arc.count && std::equal(arc.subid, arc.subid + arc.count, oid.subid);
}

// ---- MIB ---------------------------------------------------------------------------------------

// 1.3.6.1.4.1.N: where an enterprise's arc ends. What SMI itself defines is shorter.
constexpr std::size_t enterprise_numbers = 7;
constexpr std::uint32_t spare_number = INT32_MAX;  // for an identity that has no arc for itself

struct definition {
  const named_item* item;
  snmp_oid node;
  bool scalar;  // an object, of which the item is the instance; else a name for the item's OID
};

std::vector<definition> define(const std::vector<named_item>& items, std::string& left_out) {
  std::vector<definition> all;
  for (std::size_t at = 0; at < items.size(); ++at) {
    // An OID that ends in 0 is an instance, unless the object would have more below it.
    const snmp_oid& oid = *items[at].oid;
    snmp_oid parent = oid;
    --parent.count;
    const bool scalar = oid.subid[parent.count] == 0 && oid.subid[parent.count - 1] != 0 &&
                        (at == 0 || !is_below(*items[at - 1].oid, parent)) &&
                        (at + 1 == items.size() || !is_below(*items[at + 1].oid, parent));
    const snmp_oid& node = scalar ? parent : oid;
    if (node.count >= enterprise_numbers && node.subid[0] <= 2) {
      all.push_back({&items[at], node, scalar});
    } else {
      left_out += fmt::format("-- {} is left out: its OID is too high up.\n", items[at].name);
    }
  }
  return all;
}

// The enterprise of the last item, which stays as items come and go. With a number behind it where
// it is an item itself.
snmp_oid identity_arc(const std::vector<definition>& all) {
  snmp_oid arc = all.back().node;
  arc.count = enterprise_numbers;
  const auto is_arc = [&arc](const definition& each) { return compare_oid(&each.node, &arc) == 0; };
  if (std::ranges::any_of(all, is_arc)) arc.subid[arc.count++] = spare_number;
  return arc;
}

// As SMI writes it, below the identity's arc where it is.
std::string value_of(const snmp_oid& oid, const snmp_oid& arc, const std::string& identity) {
  constexpr const char* roots[] = {"ccitt", "iso", "joint-iso-ccitt"};
  const bool inside = is_below(oid, arc);
  return fmt::format("{{ {} {} }}", inside ? identity : roots[oid.subid[0]],
                     fmt::join(oid.subid + (inside ? arc.count : 1), oid.subid + oid.count, " "));
}

std::string stamp(std::time_t time) {
  constexpr std::time_t no_smi_before = 631152000;  // the year 1990
  return fmt::format("{:%Y%m%d%H%MZ}", fmt::gmtime(std::max(time, no_smi_before)));
}

// A text of SMI is ASCII, and a quotation mark ends it, whatever stands before that.
std::string smi_text(std::string text) {
  for (char& letter : text) {
    if (letter < 0 || letter == '"') letter = '\'';
  }
  return text;
}

// 0 the module, 1 its identity, 2 when it changed, 3 the file, 4 the value of the identity.
constexpr char mib_head[] = R"({0} DEFINITIONS ::= BEGIN

IMPORTS
    MODULE-IDENTITY, OBJECT-IDENTITY, OBJECT-TYPE, Counter32, Integer32
        FROM SNMPv2-SMI;

{1} MODULE-IDENTITY
    LAST-UPDATED "{2}"
    ORGANIZATION "torvasin_snmp"
    CONTACT-INFO "The operator of the agent."
    DESCRIPTION
        "What an agent with the configuration {3} serves. It has no Gauge32:
         a Counter32 that is said to be a gauge is to be taken as it is."
    REVISION "{2}"
    DESCRIPTION "Made from the configuration by torvasin_config."
    ::= {4}
)";

}  // namespace

void print_mib(const configuration& config, const std::string& module_name) {
  std::string subject = lower_case(module_name);
  if (subject.ends_with("-mib")) subject.resize(subject.rfind('-'));
  const std::string identity = camel_case(subject);
  std::string left_out;
  const auto items = name_items(config, identity, "--", left_out);
  const auto all = define(items, left_out);
  if (all.empty()) throw std::runtime_error("there is no item for a MIB");
  const snmp_oid arc = identity_arc(all);
  const std::string& path = config.files[0];
  std::cout << fmt::format(mib_head, module_name, identity, stamp(config.changed),
                           smi_text(printable(path.substr(path.rfind('/') + 1))),
                           value_of(arc, {{}, SNMP_MAX_SUBIDS}, ""));
  for (const auto& [item, node, scalar] : all) {
    const char* syntax = item->binding->type == ITEM_UINT  ? "Counter32"
                         : item->binding->type == ITEM_INT ? "Integer32"
                                                           : "OCTET STRING";
    std::cout << '\n' << item->name << (scalar ? " OBJECT-TYPE\n" : " OBJECT-IDENTITY\n");
    if (scalar) std::cout << "    SYNTAX      " << syntax << "\n    MAX-ACCESS  read-only\n";
    std::cout << "    STATUS      current\n    DESCRIPTION \"" << smi_text(item->words)
              << "\"\n    ::= " << value_of(node, arc, identity) << '\n';
  }
  std::cout << '\n' << left_out << (left_out.empty() ? "" : "\n") << "END\n";
}

// ---- Prometheus --------------------------------------------------------------------------------

void print_prometheus(const configuration& config) {
  constexpr unsigned oids_at_once = 10;
  static const std::regex special("[\"\\\\]");  // in a text of YAML
  std::string left_out;
  std::string oids;
  std::string metrics;
  const snmp_oid* above = nullptr;
  for (const auto& [name, oid, binding, counts, words] : name_items(config, "", "#", left_out)) {
    // For the exporter it would be an instance of that metric.
    if (above != nullptr && is_below(*oid, *above)) {
      left_out += fmt::format("# {} is left out: its OID is below that of another item.\n", name);
      continue;
    }
    above = oid;
    const char* type = binding->type == ITEM_STRING ? "DisplayString"
                       : counts                     ? "counter"
                                                    : "gauge";
    oids += fmt::format("    - {}\n", dotted(*oid));
    const std::string help = std::regex_replace(words, special, "\\$&");
    metrics += fmt::format("    - name: {}\n      oid: {}\n      type: {}\n      help: \"{}\"\n",
                           name, dotted(*oid), type, help);
  }
  if (above == nullptr) throw std::runtime_error("there is no item for a metric");
  std::cout << "# For prometheus-snmp-exporter 0.21; made by torvasin_config.\n"
            << left_out
            << "torvasin:\n  version: 2\n  auth:\n    community: public\n  max_repetitions: "
            << oids_at_once << "\n  get:\n"
            << oids << "  metrics:\n"
            << metrics;
}

}  // namespace torvasin_config
