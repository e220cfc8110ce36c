// Flush, Prepare_To_Receive, Confirm, Confirmed, Send_Error and
// Request_To_Send: one verb each on an allocated conversation, all issued
// through one sequence that differs only in the verb body and in the
// request-to-send out-parameter some of them return.
#include "conversation_verb.h"

namespace {

// Fills the verb body after the header; false when the call must stop (the
// return code is then set).
using BuildBody = bool (*)(CCCB &cccb, const CallFrame &frame);

struct ControlVerb {
  uint16_t trace_verb;
  uint32_t probe;  // of problem 0x20030005
  uint16_t opcode;
  APPC_CALLBACK routine;
  BuildBody build;
};

bool no_body(CCCB &, const CallFrame &) {
  return true;
}

bool prepare_to_receive_body(CCCB &cccb, const CallFrame &) {
  // Confirm (2) travels as sync level (0); only flush (1) differs.
  cccb.vcb.prep_to_rcv.ptr_type = static_cast<uint8_t>(cccb.ulPrepareToReceiveType & 1u);
  cccb.vcb.prep_to_rcv.locks = 0;
  return true;
}

bool send_error_body(CCCB &cccb, const CallFrame &frame) {
  NAP_SEND_ERROR_VCB &verb = cccb.vcb.snd_err;
  verb.error_direction = cccb.ulErrorDirection == CM_SEND_ERROR ? 1 : 0;
  // Log data goes with Send_Error on basic conversations only.
  if (cccb.ulConversationType != CM_BASIC_CONVERSATION) return true;
  verb.error_type = 0;
  verb.log_data_length = cccb.usLogDataLength;
  if (cccb.usLogDataLength != 0) {
    if (cccb.pLogData == nullptr) {
      nba_pd_print_problem(kProblemLogData, 2, "");
      frame.set(CM_PRODUCT_SPECIFIC_ERROR);
      return false;
    }
    verb.log_data_pointer = cccb.pLogData;
  }
  return true;
}

const ControlVerb kConfirm{kVerbCMCFM, 3, NAP_CONFIRM, cmcfm_cb, no_body};
const ControlVerb kConfirmed{kVerbCMCFMD, 4, NAP_CONFIRMED, cmcfmd_cb, no_body};
const ControlVerb kFlush{kVerbCMFLUS, 12, NAP_FLUSH, cmflus_cb, no_body};
const ControlVerb kPrepareToReceive{kVerbCMPTR, 13, NAP_PREPARE_TO_RECEIVE, cmptr_cb,
                                    prepare_to_receive_body};
const ControlVerb kRequestToSend{kVerbCMRTS, 15, NAP_REQUEST_TO_SEND, cmrts_cb, no_body};
const ControlVerb kSendError{kVerbCMSERR, 17, NAP_SEND_ERROR, cmserr_cb, send_error_body};

void issue(const ControlVerb &verb, unsigned char *conversation_id, CM_RETURN_CODE *return_code,
           CM_REQUEST_TO_SEND_RECEIVED *request_to_send_received = nullptr) {
  CallFrame frame(verb.trace_verb, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id);
  if (SCC_verb_may_start(frame, cccb, conversation_id, verb.probe)) {
    SCC_vcb_init(cccb, verb.opcode);
    if (verb.build(*cccb, frame)) {
      SCC_start_verb(frame, cccb, conversation_id, verb.routine, request_to_send_received);
    }
  }
  if (frame.tracing()) {
    frame.response(SCC_cccb_after_call(conversation_id), request_to_send_received);
  }
}

// The request-to-send indication the node returns at byte 24.
void store_rts(CCCB &cccb) {
  SCC_store_out(cccb.pOutParm[0], cccb.vcb.confirm.rts_received);
}

}  // namespace

extern "C" {

void cmcfm(unsigned char *conversation_id, CM_REQUEST_TO_SEND_RECEIVED *request_to_send_received,
           CM_RETURN_CODE *return_code) {
  issue(kConfirm, conversation_id, return_code, request_to_send_received);
}

void cmcfmd(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  issue(kConfirmed, conversation_id, return_code);
}

void cmflus(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  issue(kFlush, conversation_id, return_code);
}

void cmptr(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  issue(kPrepareToReceive, conversation_id, return_code);
}

void cmrts(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  issue(kRequestToSend, conversation_id, return_code);
}

void cmserr(unsigned char *conversation_id, CM_REQUEST_TO_SEND_RECEIVED *request_to_send_received,
            CM_RETURN_CODE *return_code) {
  issue(kSendError, conversation_id, return_code, request_to_send_received);
}

void cmcfm_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_complete_verb(vcb, correlator, store_rts);
}

void cmcfmd_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_complete_verb(vcb, correlator, [](CCCB &cccb) {
    if (cccb.vcb.hdr.primary_rc != AP_OK) return;
    cccb.fConfirmRequested = 0;
    // Confirming a Confirm_Deallocate is the conversation's last act.
    if (cccb.fConfirmDeallocReceived != 0) cccb.fConversationEnded = 1;
  });
}

void cmflus_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_complete_verb(vcb, correlator, [](CCCB &) {});
}

void cmptr_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_complete_verb(vcb, correlator, [](CCCB &) {});
}

void cmrts_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_complete_verb(vcb, correlator, [](CCCB &) {});
}

void cmserr_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_complete_verb(vcb, correlator, [](CCCB &cccb) {
    if (cccb.vcb.hdr.primary_rc == AP_OK) {
      cccb.fConfirmDeallocReceived = 0;
      cccb.fConfirmRequested = 0;
      // Log data is sent once: the next Send_Error goes without it.
      cccb.usLogDataLength = 0;
      if (cccb.pLogData != nullptr) nba_mm_free(cccb.pLogData, 0);
      cccb.pLogData = nullptr;
    }
    store_rts(cccb);
  });
}

}  // extern "C"
