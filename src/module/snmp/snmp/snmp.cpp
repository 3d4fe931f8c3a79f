#include "snmp.h"

#include <string.h>

#include "snmp_handler.h"
#include "snmp_log.h"
#include "snmp_msg_protocol.h"

namespace {

constexpr char log_source[] = "src/module/snmp/snmp/snmp";

constexpr char accepted_community[] = "public";

// The records that every datagram of a thread reuses. Each is cleared whole before it is filled.
struct thread_records {
  snmp_request request;
  snmp_response response;
};
constinit thread_local thread_records records = {};

// Not inlined, because in a shared library each use of a thread_local variable is a call.
[[gnu::noinline]] thread_records* own_records() {
  return &records;
}

void log_request(const snmp_request* request) {
  SNMP_LOG(TRACE,
           "request: (%s)\n\tver: %d\n\tid: %d\n\tcommunity: %s\n\tnon_repeaters: "
           "%u\n\tmax_repetitions: %u\n\toid: ",
           get_pdu_name(request->pdu_type), request->ver, request->id, request->community,
           request->non_repeaters, request->max_repetitions);
}

bool authorized(const snmp_request* request) {
  return request->ver != SNMP_V2C || strcmp(request->community, accepted_community) == 0;
}

int32_t handle(const snmp_item* items, uint32_t item_count, snmp_request* request,
               snmp_response* response) {
  switch (request->pdu_type) {
    case PDU_GET:
      return minimal_snmp_handle_get(items, item_count, request, response);
    case PDU_GETNEXT:
      return minimal_snmp_handle_getnext(items, item_count, request, response);
    case PDU_GETBULK:
      return minimal_snmp_handle_getbulk(items, item_count, request, response);
    default:
      SNMP_LOG(TRACE, "%s: REQUEST TYPE 0x%u not supported", "minimal_snmp", request->pdu_type);
      return -1;
  }
}

}  // namespace

void prepare_minimal_snmp() {
  memset(own_records(), 0, sizeof(thread_records));
}

int32_t minimal_snmp(const snmp_item* items, uint32_t item_count, const uint8_t* datagram,
                     size_t datagram_size, uint8_t* output, size_t output_size, void* send_context,
                     snmp_send_callback send) {
  thread_records* own = own_records();
  snmp_request* request = &own->request;
  snmp_response* response = &own->response;
  SNMP_LOG(TRACE, "Received: %u data", static_cast<unsigned>(datagram_size));
  if (decode_snmp_request(request, datagram, datagram_size) != 0) {
    SNMP_LOG(TRACE, "Error in request");
    return -1;
  }
  log_request(request);

  memset(response, 0, sizeof *response);
  if (!authorized(request)) {
    response->error_status = SNMP_NO_ACCESS;
    response->error_index = 0;
    SNMP_LOG(TRACE, "not authorized request");
  } else if (handle(items, item_count, request, response) != 0) {
    return -1;
  }

  uint8_t* message = nullptr;
  size_t length = 0;
  if (encode_snmp_response(request, response, output, output_size, &message, &length) != 0) {
    SNMP_LOG(ERROR, "Error in encoding response");
    return -1;
  }
  if (message == nullptr || length == 0) {
    SNMP_LOG(ERROR, "NOTHING TO SEND");
    return 0;
  }
  if (send == nullptr) {
    SNMP_LOG(TRACE, "NOTHING TO SEND FOR MISSING");
    return 0;
  }
  SNMP_LOG(TRACE, "SEND...");
  return send(send_context, message, length);
}
