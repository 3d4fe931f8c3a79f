#include "snmp_handler.h"

#include <algorithm>

#include "snmp_log.h"

namespace {

constexpr char log_source[] = "src/module/snmp/snmp/snmp_handler";

// What differs between the handlers: how they look up an OID, and the exception for an OID without
// an answer.
struct request_kind {
  const char* handler;
  int32_t (*lookup)(const snmp_item* items, uint32_t item_count, const snmp_oid* oid,
                    const snmp_item** found);
  snmp_value_writer exception;
};

constexpr request_kind get = {"minimal_snmp_handle_get", find_snmp_item, encode_no_such_object};
constexpr request_kind getnext = {"minimal_snmp_handle_getnext", find_next_snmp_item,
                                  encode_end_of_mib_view};
constexpr request_kind getbulk = {"minimal_snmp_handle_getbulk", find_next_snmp_item,
                                  encode_end_of_mib_view};

enum class answer {
  item,          // item found; it is now the response's last varbind
  exception,     // none found; the response got an exception instead, unless it was full
  no_such_name,  // none found, SNMPv1: the response is now a complete error response
  full,          // item found, but the response is full
};

// Answers the OID at one position of the request.
answer answer_oid(const request_kind& kind, const snmp_item* items, uint32_t item_count,
                  const snmp_request* request, uint64_t position, snmp_response* response) {
  const snmp_oid* oid = &request->oid[position];
  const bool full = response->varbind_count >= SNMP_MAX_VARBINDS;
  const snmp_item* item;
  if (kind.lookup(items, item_count, oid, &item) == 0) {
    if (full) {
      SNMP_LOG(TRACE, "%s oid found put impossible to answer :(", kind.handler);
      return answer::full;
    }
    response->varbind[response->varbind_count++] = *item;
    return answer::item;
  }
  SNMP_LOG(TRACE, "%s oid not found", kind.handler);
  if (request->ver == SNMP_V1) {
    response->error_status = SNMP_NO_SUCH_NAME;
    response->error_index = static_cast<int32_t>(position) + 1;
    return answer::no_such_name;
  }
  if (!full) response->varbind[response->varbind_count++] = {*oid, kind.exception, nullptr};
  return answer::exception;
}

// Answers the OIDs before first_repeater once, then the others up to `repetitions` times.
int32_t answer_request(const request_kind& kind, const snmp_item* items, uint32_t item_count,
                       snmp_request* request, uint64_t first_repeater, uint32_t repetitions,
                       snmp_response* response) {
  for (uint64_t i = 0; i < first_repeater; i++) {
    const answer one = answer_oid(kind, items, item_count, request, i, response);
    if (one == answer::full) return -1;
    if (one == answer::no_such_name) return 0;
  }

  // Every repetition but the last adds an item. So the response's capacity limits their number,
  // however many the request asks for.
  bool advanced = first_repeater < request->oid_count;
  for (uint32_t r = 0; r < repetitions && advanced; r++) {
    advanced = false;
    for (uint64_t i = first_repeater; i < request->oid_count; i++) {
      const answer one = answer_oid(kind, items, item_count, request, i, response);
      if (one == answer::full || one == answer::no_such_name) return 0;
      if (one == answer::exception) continue;
      request->oid[i] = response->varbind[response->varbind_count - 1].oid;
      advanced = true;
    }
  }
  return 0;
}

}  // namespace

int32_t minimal_snmp_handle_get(const snmp_item* items, uint32_t item_count, snmp_request* request,
                                snmp_response* response) {
  return answer_request(get, items, item_count, request, request->oid_count, 0, response);
}

int32_t minimal_snmp_handle_getnext(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response) {
  return answer_request(getnext, items, item_count, request, request->oid_count, 0, response);
}

int32_t minimal_snmp_handle_getbulk(const snmp_item* items, uint32_t item_count,
                                    snmp_request* request, snmp_response* response) {
  const uint64_t first_repeater = std::min<uint64_t>(request->non_repeaters, request->oid_count);
  return answer_request(getbulk, items, item_count, request, first_repeater,
                        request->max_repetitions, response);
}

int32_t encode_no_such_object(ber_tlv* destination, size_t capacity, size_t* size_out, void*) {
  return write_empty_value(destination, capacity, size_out, BER_NO_SUCH_OBJECT);
}

int32_t encode_end_of_mib_view(ber_tlv* destination, size_t capacity, size_t* size_out, void*) {
  return write_empty_value(destination, capacity, size_out, BER_END_OF_MIB_VIEW);
}
