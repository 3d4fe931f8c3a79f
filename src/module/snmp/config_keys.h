// The sections and keys of the configuration file. The module applies them, torvasin_config checks
// them. Both switch over the enums, so the compiler names every place that must handle a new key.

#ifndef TORVASIN_SNMP_CONFIG_KEYS_H
#define TORVASIN_SNMP_CONFIG_KEYS_H

#include <stddef.h>

#include <algorithm>
#include <string_view>

constexpr std::string_view general_section = "General";
constexpr std::string_view item_prefix = "ITEM_";  // an item's section: this and the item's name

// Each enum ends with `unknown`; the names are in the order of the enum.
enum class general_key { ip, port, include, unknown };
constexpr std::string_view general_key_names[] = {"ip", "port", "include"};

enum class item_key { meter, metertype, type, computeformula, oid, unknown };
constexpr std::string_view item_key_names[] = {"meter", "metertype", "type", "computeformula",
                                               "oid"};

// Returns the key with this name, or `unknown`.
template <typename key, size_t count>
constexpr key find_key(const std::string_view (&names)[count], std::string_view name) {
  static_assert(count == static_cast<size_t>(key::unknown), "each key has one name");
  return static_cast<key>(std::find(names, names + count, name) - names);
}

#endif  // TORVASIN_SNMP_CONFIG_KEYS_H
