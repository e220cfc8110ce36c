// Extract_Conversation_State.  The library keeps no CPI-C state table: the
// two states before the node knows the conversation come from the record,
// every other state from the node through GET_STATE.
#include "conversation_verb.h"

namespace {

// The node's state codes; -1 where there is no CPI-C state to report.
CM_CONVERSATION_STATE cpic_state(uint8_t node_state) {
  switch (node_state) {
    case AP_STATE_RESET:
      return CM_INITIALIZE_STATE;
    case AP_STATE_SEND:
      return CM_SEND_STATE;
    case AP_STATE_RECEIVE:
      return CM_RECEIVE_STATE;
    case AP_STATE_CONFIRM:
      return CM_CONFIRM_STATE;
    case AP_STATE_CONFIRM_SEND:
      return CM_CONFIRM_SEND_STATE;
    case AP_STATE_CONFIRM_DEALLOCATE:
      return CM_CONFIRM_DEALLOCATE_STATE;
    case AP_STATE_SEND_PENDING:
      return CM_SEND_PENDING_STATE;
    default:
      return -1;
  }
}

}  // namespace

extern "C" {

void cmecs(unsigned char *conversation_id, CM_CONVERSATION_STATE *conversation_state,
           CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMECS, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id);
  if (cccb == nullptr) {
    // Asking about a conversation that has gone is ordinary, not a problem.
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else if (cccb->usVerbsOutstanding != 0) {
    frame.set(CM_OPERATION_NOT_ACCEPTED);
  } else if (cccb->ulAppcConvId == 0) {
    *conversation_state =
        cccb->fInitializeState != 0 ? CM_INITIALIZE_STATE : CM_INITIALIZE_INCOMING_STATE;
  } else {
    SCC_vcb_init(cccb, NAP_GET_STATE);
    // GET_STATE always completes inside the call: submit it as if the
    // conversation were blocking.  An ended conversation is freed by the
    // submission, so the mode is put back only on a record that survives.
    const uint16_t mode = cccb->usProcessingMode;
    const bool freed_by_submission = cccb->fConversationEnded != 0;
    cccb->usProcessingMode = 0;
    SCC_start_verb(frame, cccb, conversation_id, cmecs_cb, conversation_state);
    if (!freed_by_submission) cccb->usProcessingMode = mode;
  }
  if (frame.tracing()) {
    frame.response(SCC_cccb_after_call(conversation_id), conversation_state);
  }
}

void cmecs_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  CCCB &cccb = *static_cast<CCCB *>(vcb);
  const NAP_GET_STATE_VCB &verb = cccb.vcb.get_state;
  cccb.ulReturnCode = CM_OK;
  if (verb.hdr.primary_rc != AP_OK) {
    // Not mapped and not ending: a refused GET_STATE says nothing about the
    // conversation itself.
    nba_pd_print_problem(kProblemGetStateFailed, 0, "x",
                         static_cast<uint32_t>(verb.hdr.primary_rc));
    cccb.ulReturnCode = CM_PRODUCT_SPECIFIC_ERROR;
  }
  const CM_CONVERSATION_STATE state = cpic_state(verb.conv_state);
  if (state < 0) {
    nba_pd_print_problem(kProblemBadState, 0, "b", static_cast<uint32_t>(verb.conv_state));
    cccb.ulReturnCode = CM_PRODUCT_SPECIFIC_ERROR;
  } else {
    SCC_store_out(cccb.pOutParm[0], static_cast<uint32_t>(state));
  }
  if (correlator != 0) SCC_complete_async(&cccb, false);
}

}  // extern "C"
