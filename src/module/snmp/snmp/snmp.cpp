#include "snmp.h"

#include <string.h>

#include "snmp_handler.h"
#include "snmp_log.h"
#include "snmp_msg_protocol.h"

namespace {

constexpr char log_source[] = "src/module/snmp/snmp/snmp";

constexpr char accepted_community[] = "public";

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

int32_t minimal_snmp_exchange(snmp_exchange* exchange, const snmp_item* items, uint32_t item_count,
                              const uint8_t* datagram, size_t datagram_size, uint8_t* output,
                              size_t output_size, void* send_context, snmp_send_callback send) {
  snmp_request* request = &exchange->request;
  snmp_response* response = &exchange->response;
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

int32_t minimal_snmp(const snmp_item* items, uint32_t item_count, const uint8_t* datagram,
                     size_t datagram_size, uint8_t* output, size_t output_size, void* send_context,
                     snmp_send_callback send) {
  static snmp_exchange exchange;
  return minimal_snmp_exchange(&exchange, items, item_count, datagram, datagram_size, output,
                               output_size, send_context, send);
}
