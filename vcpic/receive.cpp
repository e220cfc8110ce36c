// Receive and Test_Request_To_Send_Received.  Receive is one RECEIVE_AND_WAIT
// or RECEIVE_IMMEDIATE verb; the node's single what_received code is split
// into CPI-C's data_received and status_received, and the confirmation flags
// that Confirmed and Send_Error rely on are recorded here.
#include "conversation_verb.h"

namespace {

inline constexpr uint32_t kMaxReceiveLength = 32767;

// what_received values the node may return: a data indication in the high
// byte (none, data, complete data) with a status in the low byte, or
// incomplete data alone.
bool what_received_known(uint16_t what) {
  const uint16_t data = what & 0xFF00u;
  const uint16_t status = what & 0x00FFu;
  if (what == AP_WR_DATA_INCOMPLETE) return true;
  return (data == 0 || data == AP_WR_DATA || data == AP_WR_DATA_COMPLETE) &&
         status <= AP_WR_CONFIRM_DEALLOCATE;
}

// The two halves are decoded and reported separately, so an unknown value
// gives one report for each.
CM_DATA_RECEIVED_TYPE data_received(uint16_t what) {
  if (!what_received_known(what)) {
    CPIC_ASSERT(kUnitCal3, false, "FALSE");
    return CM_NO_DATA_RECEIVED;
  }
  switch (what & 0xFF00u) {
    case AP_WR_DATA:
      return CM_DATA_RECEIVED;
    case AP_WR_DATA_COMPLETE:
      return CM_COMPLETE_DATA_RECEIVED;
    case AP_WR_DATA_INCOMPLETE:
      return CM_INCOMPLETE_DATA_RECEIVED;
    default:
      return CM_NO_DATA_RECEIVED;
  }
}

CM_STATUS_RECEIVED status_received(uint16_t what) {
  if (!what_received_known(what)) {
    CPIC_ASSERT(kUnitCal3, false, "FALSE");
    return CM_NO_STATUS_RECEIVED;
  }
  // The node's status codes 0 to 4 are CPI-C's status_received values.
  return static_cast<CM_STATUS_RECEIVED>(what & 0x00FFu);
}

void record_confirmation(CCCB &cccb, CM_STATUS_RECEIVED status) {
  if (status == CM_CONFIRM_RECEIVED || status == CM_CONFIRM_SEND_RECEIVED ||
      status == CM_CONFIRM_DEALLOC_RECEIVED) {
    cccb.fConfirmRequested = 1;
  }
  if (status == CM_CONFIRM_DEALLOC_RECEIVED) cccb.fConfirmDeallocReceived = 1;
}

}  // namespace

extern "C" {

void cmrcv(unsigned char *conversation_id, unsigned char *buffer, CM_INT32 *requested_length,
           CM_DATA_RECEIVED_TYPE *data_received_out, CM_INT32 *received_length,
           CM_STATUS_RECEIVED *status_received_out,
           CM_REQUEST_TO_SEND_RECEIVED *request_to_send_received, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMRCV, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id, requested_length);
  *received_length = 0;
  if (SCC_verb_may_start(frame, cccb, conversation_id, 14)) {
    const auto length = static_cast<uint32_t>(*requested_length);
    if (length > kMaxReceiveLength) {
      nba_pd_print_problem(kProblemBadLength, 0, "l", length);
      frame.set(CM_PROGRAM_PARAMETER_CHECK);
    } else {
      SCC_vcb_init(cccb, cccb->ulReceiveType == CM_RECEIVE_AND_WAIT ? NAP_RECEIVE_AND_WAIT
                                                                    : NAP_RECEIVE_IMMEDIATE);
      NAP_RECEIVE_VCB &verb = cccb->vcb.rcv;
      verb.return_status = 1;
      verb.fill = static_cast<uint8_t>(cccb->ulFill ^ 1u);  // fill LL 0 -> 1, buffer 1 -> 0
      verb.max_length = static_cast<uint16_t>(length);
      verb.data_pointer = buffer;  // the node writes straight into the application's buffer
      SCC_start_verb(frame, cccb, conversation_id, cmrcv_cb, buffer, data_received_out,
                     received_length, status_received_out, request_to_send_received);
    }
  }
  if (frame.tracing()) {
    frame.response(SCC_cccb_after_call(conversation_id), buffer, data_received_out, received_length,
                   status_received_out, request_to_send_received);
  }
}

void cmrcv_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  // The outputs are written after a failure too: the node's what_received
  // and length describe what reached the buffer.
  SCC_complete_verb(vcb, correlator, [](CCCB &cccb) {
    const NAP_RECEIVE_VCB &verb = cccb.vcb.rcv;
    const CM_STATUS_RECEIVED status = status_received(verb.what_received);
    SCC_store_out(cccb.pOutParm[1], static_cast<uint32_t>(data_received(verb.what_received)));
    SCC_store_out(cccb.pOutParm[3], static_cast<uint32_t>(status));
    record_confirmation(cccb, status);
    SCC_store_out(cccb.pOutParm[2], verb.data_length);
    SCC_store_out(cccb.pOutParm[4], verb.rts_received);
  });
}

void cmtrts(unsigned char *conversation_id, CM_REQUEST_TO_SEND_RECEIVED *request_to_send_received,
            CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMTRTS, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id);
  if (SCC_verb_may_start(frame, cccb, conversation_id, 31)) {
    if (cccb->fConfirmRequested != 0) {
      // The partner waits for Confirmed or Send_Error first.
      frame.set(CM_PROGRAM_STATE_CHECK);
    } else {
      SCC_vcb_init(cccb, NAP_TEST_RTS);
      SCC_set_completion_info(cccb, kVerbCMTRTS, conversation_id, request_to_send_received);
      // Always synchronous and never counted: the answer is needed now and no
      // completion is ever left for CMWAIT.
      appc_c_async_version(APPC_INTERFACE_VERSION, cccb, nullptr, 0);
      cmtrts_cb(cccb, 0, 0, 0);
      frame.set(static_cast<CM_RETURN_CODE>(cccb->ulReturnCode));
      SCC_free_if_finished(cccb);
    }
  }
  if (frame.tracing()) {
    frame.response(SCC_cccb_after_call(conversation_id), request_to_send_received);
  }
}

// Runs only inside cmtrts (the verb is never submitted with a routine).
void cmtrts_cb(void *vcb, uint32_t, uint32_t, uintptr_t) {
  CCCB &cccb = *static_cast<CCCB *>(vcb);
  switch (cccb.vcb.hdr.primary_rc) {
    case AP_OK:
      cccb.ulReturnCode = CM_OK;
      SCC_store_out(cccb.pOutParm[0], CM_REQ_TO_SEND_RECEIVED);
      break;
    case AP_UNSUCCESSFUL:  // the node's "no request to send"
      cccb.ulReturnCode = CM_OK;
      SCC_store_out(cccb.pOutParm[0], CM_REQ_TO_SEND_NOT_RECEIVED);
      break;
    default:
      SCC_complete_result(&cccb);
      break;
  }
}

}  // extern "C"
