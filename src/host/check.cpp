#include "host/check.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "host/config_trace.h"
#include "host/meters.h"
#include "host/report.h"

namespace torvasin_host {
namespace {

using std::string_view;

// Limits of the ini reader and of the module, in octets.
constexpr std::size_t longest_line = 199;
constexpr std::size_t longest_section = 49;
constexpr std::size_t longest_ip = 15;
constexpr std::size_t longest_meter = 127;

constexpr string_view item_prefix = "ITEM_";

struct checked_item {
  std::string name;
  std::vector<std::uint32_t> oid;  // empty for none
  std::string type;                // as written; empty for none
  std::string meter;
  int speed = TORVASIN_SLOW;
  std::string formula;
};

struct configuration {
  std::string ip = "127.0.0.1";
  unsigned long port = 161;
  std::vector<checked_item> items;  // in the order of creation
};

using problems = std::vector<std::string>;

std::string in_quotes(string_view text) {
  return "'" + std::string(text) + "'";
}

std::string counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// ---- The configuration, as the module takes it --------------------------------------------------

// Of a text that the module has accepted.
std::vector<std::uint32_t> subids_of(const std::string& text) {
  std::vector<std::uint32_t> subids;
  const char* at = text.c_str();
  if (*at == '.') ++at;
  while (*at != '\0') {
    char* end = nullptr;
    subids.push_back(static_cast<std::uint32_t>(std::strtoul(at, &end, 10)));
    if (end == at) break;
    at = *end == '.' ? end + 1 : end;
  }
  return subids;
}

std::string dotted(const std::vector<std::uint32_t>& oid) {
  std::string text;
  for (const std::uint32_t subid : oid) {
    if (!text.empty()) text += '.';
    text += std::to_string(subid);
  }
  return text;
}

checked_item& item_named(std::vector<checked_item>& items, string_view name) {
  // Mostly the last one: a section's keys stand together.
  const auto at = std::find_if(items.rbegin(), items.rend(),
                               [name](const checked_item& item) { return item.name == name; });
  if (at != items.rend()) return *at;
  items.emplace_back().name = name;
  return items.back();
}

void apply_to_item(const config_line& line, checked_item& item) {
  // A refused OID or formula also takes the one before it along; another refused line does nothing.
  if (line.key == "oid") {
    item.oid = line.refused ? std::vector<std::uint32_t>() : subids_of(line.value);
  } else if (line.key == "computeformula") {
    item.formula = line.refused ? "" : line.value;
  } else if (line.refused) {
    return;
  } else if (line.key == "type") {
    item.type = line.value;
  } else if (line.key == "meter") {
    item.meter = line.value.substr(0, longest_meter);
  } else if (line.key == "metertype") {
    item.speed = line.value == "fast" ? TORVASIN_FAST : TORVASIN_SLOW;
  }
}

configuration configuration_of(const std::vector<config_line>& lines) {
  configuration result;
  for (const config_line& line : lines) {
    if (line.section.starts_with(item_prefix) && line.section.size() > item_prefix.size()) {
      apply_to_item(line, item_named(result.items, line.section.substr(item_prefix.size())));
    } else if (line.section == "General" && !line.refused) {
      if (line.key == "ip") result.ip = line.value;
      if (line.key == "port") result.port = std::strtoul(line.value.c_str(), nullptr, 10);
    }
  }
  return result;
}

// ---- Problems ----------------------------------------------------------------------------------

void check_lines(std::istream& file, const std::string& path, problems& found) {
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    if (line.ends_with('\r')) line.pop_back();
    const auto report = [&](const std::string& what) {
      found.push_back(path);
      found.back().append(":").append(std::to_string(number)).append(": ").append(what);
    };
    if (line.size() > longest_line) {
      report("a line of " + std::to_string(line.size()) + " characters: it is read up to " +
             std::to_string(longest_line) + ", the rest as a line of its own");
    }
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string::npos || line[begin] != '[') continue;
    const std::size_t end = line.find(']', begin);
    if (end == std::string::npos || end - begin - 1 <= longest_section) continue;
    report("a section name of " + std::to_string(end - begin - 1) + " characters: it is read as " +
           in_quotes(string_view(line).substr(begin + 1, longest_section)));
  }
}

void check_address(const configuration& config, problems& found) {
  if (config.ip.size() > longest_ip || inet_addr(config.ip.c_str()) == INADDR_NONE) {
    found.push_back("ip " + in_quotes(config.ip) + " is no IPv4 address: nobody can ask the agent");
  }
  if (config.port == 0) found.push_back("port 0: the system picks another port at every start");
}

// The tag that the values of a type have, besides floats for the two numeric ones.
std::uint32_t tag_of(const std::string& type) {
  return type.starts_with("uint")  ? TORVASIN_UINT32
         : type.starts_with("int") ? TORVASIN_INT32
                                   : TORVASIN_TEXT;
}

bool takes(const std::string& type, std::uint32_t tag) {
  const std::uint32_t own = tag_of(type);
  return tag == own || (own != TORVASIN_TEXT && tag == TORVASIN_FLOAT);
}

// The host's meter of a name, or null.
const meter* published(const std::string& name) {
  for (const meter& each : all_meters()) {
    if (each.name == name) return &each;
  }
  return nullptr;
}

void check_meter(const checked_item& item, const std::string& subject, problems& found) {
  const meter* source = published(item.meter);
  if (source == nullptr) {
    found.push_back(subject + "this host publishes no meter " + in_quotes(item.meter));
    return;
  }
  if (source->speed != item.speed) {
    found.push_back(subject + "meter " + in_quotes(item.meter) + " is " +
                    speed_name(source->speed) + ", so that metertype " + speed_name(item.speed) +
                    " never gets it");
  }
  if (!item.type.empty() && !takes(item.type, source->type())) {
    found.push_back(subject + "type " + in_quotes(item.type) + " takes no " +
                    type_name(source->type()) + ", which meter " + in_quotes(item.meter) + " is");
  }
}

// The first octet of an OID on the wire is 40 times its first sub-identifier plus the second, and
// is taken apart as if the second were below 40.
bool can_be_asked_for(const std::vector<std::uint32_t>& oid) {
  return oid.size() >= 2 && oid[1] < 40;
}

void check_items(const std::vector<checked_item>& items, problems& found) {
  for (auto item = items.begin(); item != items.end(); ++item) {
    const std::string subject = "item " + in_quotes(item->name) + ": ";
    if (item->type.empty()) found.push_back(subject + "it has no type and answers NULL");
    if (!item->meter.empty()) check_meter(*item, subject, found);
    if (item->oid.empty()) continue;
    if (!can_be_asked_for(item->oid)) {
      found.push_back(subject + "no request can name OID " + dotted(item->oid));
    }
    const auto same = std::find_if(
        items.begin(), item, [item](const checked_item& other) { return other.oid == item->oid; });
    if (same != item) {
      found.push_back(subject + "it has the OID of item " + in_quotes(same->name) +
                      ", which a GET answers instead");
    }
  }
}

// ---- Report ------------------------------------------------------------------------------------

std::string read_file(const std::string& path) {
  const auto fail = [&path](int error) {
    throw std::system_error(error, std::generic_category(), "cannot read " + in_quotes(path));
  };
  std::error_code error;
  const auto kind = std::filesystem::status(path, error).type();
  using enum std::filesystem::file_type;
  if (error) fail(error.value());
  if (kind == directory) fail(EISDIR);
  if (kind != regular && kind != fifo) fail(EINVAL);
  errno = EIO;
  std::ifstream file(path, std::ios::binary);
  if (!file) fail(errno);
  std::string text(std::istreambuf_iterator<char>(file), {});
  return text;
}

void print_items(const std::vector<checked_item>& items) {
  std::vector<table_row> rows = {
      {"ITEM", "OID", "TYPE", "METER", "METERTYPE", "FORMULA", "THE HOST PUBLISHES"}};
  const auto cell = [](const std::string& text) { return text.empty() ? "-" : text; };
  for (const checked_item& item : items) {
    std::string what;
    if (const meter* source = published(item.meter)) {
      what.append(speed_name(source->speed)).append(" ").append(type_name(source->type()));
    }
    rows.push_back({item.name, cell(dotted(item.oid)), cell(item.type), cell(item.meter),
                    speed_name(item.speed), cell(item.formula), cell(what)});
  }
  if (!items.empty()) print_table(rows);
}

// Prints the messages; returns how many are errors.
std::size_t print_messages(const config_trace& trace) {
  std::size_t errors = 0;
  for (const module_message& message : trace.messages) {
    const bool error = message.level >= TORVASIN_LOG_ERROR;
    if (error) ++errors;
    std::cout << (error ? "error: " : "warning: ") << message.text << '\n';
  }
  if (trace.status != 0) std::cout << "error: the module does not start\n";
  return trace.status != 0 ? errors + 1 : errors;
}

}  // namespace

bool check_configuration(plugin& module, const std::string& path) {
  const std::string text = read_file(path);
  const config_trace trace = trace_configuration(module, text, path);
  const configuration config = configuration_of(trace.lines);

  problems found;
  std::istringstream own(text);
  check_lines(own, path, found);
  for (const std::string& included : trace.included) {
    std::ifstream file(included);
    check_lines(file, included, found);
  }
  check_address(config, found);
  check_items(config.items, found);

  std::cout << path << ": " << counted(config.items.size(), "item") << " on " << config.ip
            << " port " << config.port << '\n';
  const std::size_t errors = print_messages(trace);
  print_items(config.items);
  for (const std::string& problem : found) std::cout << "problem: " << problem << '\n';
  std::cout << counted(errors, "error") << ", " << counted(found.size(), "problem") << '\n';
  return errors == 0 && found.empty();
}

}  // namespace torvasin_host
