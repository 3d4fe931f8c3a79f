// Any datagram through the request pipeline, with one table that has items of all kinds.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <set>

#include "module/snmp/mainsnmp.h"
#include "module/snmp/snmp/snmp.h"
#include "support.h"

namespace {

snmp_module module;
std::set<object_id> served;  // the items' names as they appear on the wire
octets filling;              // a datagram that leaves the agent's records full for the next one

object_id name_of(const snmp_oid& oid) {
  return {oid.subid, oid.subid + std::max<uint64_t>(oid.count, 2)};
}

// Every fifth item holds a float, as a refresh would leave it.
void add_item(const std::string& oid, const std::string& type, const char* formula = "") {
  static torvasin_plugin_context context = {"fuzz", nullptr, {}, &module};
  const uint32_t i = module.item_count;
  const std::string section = "ITEM_" + std::to_string(i);
  ini_handler_cb(&context, section.c_str(), "oid", oid.c_str());
  if (!type.empty()) ini_handler_cb(&context, section.c_str(), "type", type.c_str());
  if (*formula != '\0') ini_handler_cb(&context, section.c_str(), "computeformula", formula);
  served.insert(name_of(module.items[i].oid));
  constexpr float meters[] = {NAN, INFINITY, -3.9f, 3e10f};
  snmp_meter_binding* item = &module.bindings[i];
  if (i % 5 == 0 && item->type != ITEM_STRING) torvasin_valueInitFloat(&item->value, meters[i % 4]);
}

// No second sub-identifier is 40 or more: only then do table and wire order OIDs in the same way.
bool set_up() {
  init_snmp_module(&module);
  const std::string root = "1.3.6.1.4.1.99999.";
  for (const char* type :
       {"int:-2147483648", "int:-32769", "int:-128", "int:128", "int:2147483647", "uint:0",
        "uint:128", "uint:65536", "uint:2147483648", "uint:4294967295", "string:text", ""}) {
    for (const char* formula : {"", "value*1e300"}) {
      const std::string i = std::to_string(module.item_count);
      add_item(root + i.back() + "." + i, type, formula);
    }
  }
  for (size_t length : {0u, 1u, 127u, 128u, 255u, 256u, 1395u, 1400u, 1473u, 65535u, 65536u})
    add_item(root + "3." + std::to_string(length), "string:" + std::string(length, 't'));
  for (const char* oid : {"1", "3.7", "2.39", "2.39", "1.3.6.1.2.1.1.3.0"}) add_item(oid, "uint:5");
  std::string oid = "1.3";
  for (size_t i = 2; i < OID_TEXT_SUBIDS; i++) add_item(oid += ".4294967295", "int:5", "0/0");
  request_parts parts = {.varbinds = ""};
  for (uint32_t i = 0; i < 20; i++) {
    object_id longest = {1, i, ~i, 1, 2};
    longest.resize(20);
    parts.varbinds += null_varbind(longest);
  }
  filling = build(parts);
  return link_snmp_items(&module) == 0;
}

int32_t keep(void* user, const uint8_t* message, size_t length) {
  auto* sent = static_cast<octets*>(user);
  assert(sent->empty() && length > 0 && "more than one message");
  sent->assign(message, message + length);
  return 1;
}

// The answer to a datagram, empty if there is none. The output has `room` octets. The datagram is
// in the same buffer if in_place. No buffer has room behind it, so a sanitizer sees any overrun.
octets handle(const octets& datagram, size_t room, bool in_place = false) {
  octets output(room);
  if (in_place) std::copy(datagram.begin(), datagram.end(), output.begin());
  const uint8_t* input = in_place ? output.data() : datagram.data();
  octets sent;
  const int32_t result = minimal_snmp(module.items, module.item_count, input, datagram.size(),
                                      output.data(), room, &sent, keep);
  assert(result == (sent.empty() ? -1 : 1) && sent.size() <= room);
  assert(std::equal(sent.rbegin(), sent.rend(), output.rbegin()) && "not at the buffer's end");
  return sent;
}

void check_varbinds(const snmp_request& asked, const read_response& got) {
  const bool bulk = asked.pdu_type == PDU_GETBULK, error = got.error_status != 0;
  const size_t once = std::min<size_t>(bulk && !error ? asked.non_repeaters : 20, asked.oid_count);
  assert(got.varbinds.size() == asked.oid_count || (bulk && !error));
  std::vector<object_id> last;  // answered so far, at each position of the request
  for (size_t i = 0; i < asked.oid_count; i++) last.push_back(name_of(asked.oid[i]));
  for (size_t i = 0; i < got.varbinds.size(); i++) {
    assert(i < once || once < last.size());
    object_id& before = last[i < once ? i : once + (i - once) % (last.size() - once)];
    const auto next = served.upper_bound(before);
    const object_id found = subids_of(got.varbinds[i].first);
    const uint8_t tag = got.varbinds[i].second[0];
    if (error) {
      assert(tag == BER_NULL && (found == before || (bulk && found > before)));
    } else if (tag >= BER_NO_SUCH_OBJECT || asked.pdu_type == PDU_GET) {
      assert(found == before && (tag < BER_NO_SUCH_OBJECT || asked.ver == SNMP_V2C));
      assert(tag != BER_END_OF_MIB_VIEW || next == served.end());
    } else {
      assert(next != served.end() && found == *next && "not the next name");
    }
    before = found;
  }
}

// A response is laid out like a request, so the decoder must read what the encoder wrote. Responses
// with an empty value other than NULL are left out, because requests may not contain one.
void check_decodes_again(const snmp_request& asked, const read_response& got, octets message) {
  for (const auto& [found, value] : got.varbinds)
    if (value.size() == 2 && value[0] != BER_NULL) return;
  const size_t header = message[1] < 0x80 ? 2 : 2u + message[1] - 0x80;
  message.at(header + 3 + 2 + got.community.size()) = static_cast<uint8_t>(asked.pdu_type);
  snmp_request again;
  assert(decode_snmp_request(&again, message.data(), message.size()) == 0);
  assert(again.id == asked.id && again.oid_count == got.varbinds.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static captured_log log;
  static const bool ready = set_up();
  assert(ready);
  const octets datagram(data, data + std::min(size, SNMP_MAX_DATAGRAM));
  torvasin_engine::set_log_level(1);
  const octets answer = handle(datagram, SNMP_MAX_DATAGRAM, true);
  log.take(5);
  torvasin_engine::set_log_level(5);
  assert(!handle(filling, SNMP_MAX_DATAGRAM).empty());
  const size_t room = answer.empty() ? SNMP_MAX_DATAGRAM : answer.size();
  assert(handle(datagram, room) == answer && "depends on the datagram before, or on the buffers");
  if (answer.empty()) return 0;
  snmp_request asked;
  read_response got;
  assert(decode_snmp_request(&asked, datagram.data(), datagram.size()) == 0);
  assert(handle(datagram, static_cast<uint32_t>(asked.id) % room).empty());  // too little room
  assert(read_strictly(answer, &got) == nullptr);
  assert(got.version == asked.ver && got.id == asked.id && got.community == asked.community);
  check_varbinds(asked, got);
  check_decodes_again(asked, got, answer);
  return 0;
}
