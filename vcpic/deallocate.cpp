// Deallocate: one DEALLOCATE verb whose dealloc_type folds the deallocate
// type together with the conversation type, or, for a conversation that never
// reached the node, a purely local end.  cmdeal_cb also completes the
// DEALLOCATE that Send_Data issues after its data (see send_data.cpp).
#include "conversation_verb.h"
#include "deallocate.h"

namespace {

uint8_t dealloc_type(const CCCB &cccb) {
  if (cccb.ulDeallocateType == CM_DEALLOCATE_ABEND) {
    return cccb.ulConversationType == CM_BASIC_CONVERSATION ? AP_DEALLOC_ABEND_LOG
                                                            : AP_DEALLOC_ABEND_MAPPED;
  }
  // Confirm (2) travels as sync level (0); flush (1) stays flush.
  return static_cast<uint8_t>(cccb.ulDeallocateType & 1u);
}

// Builds the DEALLOCATE; false (return code 20) when a basic abend should
// carry log data that is missing.
bool build_deallocate(CCCB &cccb, const CallFrame &frame) {
  SCC_vcb_init(&cccb, NAP_DEALLOCATE);
  NAP_DEALLOCATE_VCB &verb = cccb.vcb.dealloc;
  verb.dealloc_type = dealloc_type(cccb);
  if (verb.dealloc_type != AP_DEALLOC_ABEND_LOG) return true;
  verb.log_data_length = cccb.usLogDataLength;
  if (cccb.usLogDataLength == 0) return true;
  if (cccb.pLogData == nullptr) {
    nba_pd_print_problem(kProblemLogData, 1, "");
    frame.set(CM_PRODUCT_SPECIFIC_ERROR);
    return false;
  }
  verb.log_data_pointer = cccb.pLogData;
  return true;
}

}  // namespace

void SCC_drop_follow_on_log_data(CCCB &cccb) {
  if (cccb.usDeallcLogDataLength == 0) return;
  CPIC_ASSERT(kUnitCal1, cccb.ulSendType == CM_SEND_AND_DEALLOCATE,
              "cccb_ptr->ulSendType == CM_SEND_AND_DEALLOCATE");
  CPIC_ASSERT(kUnitCal1, cccb.ulDeallocateType == CM_DEALLOCATE_ABEND,
              "cccb_ptr->ulDeallocateType == CM_DEALLOCATE_ABEND");
  CPIC_ASSERT(kUnitCal1, cccb.DeallcLogData != nullptr, "cccb_ptr->DeallcLogData != NULL");
  if (cccb.DeallcLogData != nullptr) nba_mm_free(cccb.DeallcLogData, 0);
  cccb.DeallcLogData = nullptr;
  cccb.usDeallcLogDataLength = 0;
}

extern "C" {

void cmdeal(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMDEAL, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id);
  if (cccb == nullptr) {
    frame.unknown(conversation_id, 5);
  } else if (cccb->usVerbsOutstanding != 0) {
    frame.set(CM_OPERATION_NOT_ACCEPTED);
  } else if (cccb->ulAppcConvId == 0) {
    // Only an abend may end a conversation the node never saw, and it is
    // purely local.  A record waiting to accept cannot be deallocated.
    if (cccb->fInitializeState != 0 && cccb->ulDeallocateType == CM_DEALLOCATE_ABEND) {
      cccb->fConversationEnded = 1;
      if (cccb->fCompletionWaiting == 0) SCC_free_cccb(cccb);
    } else {
      frame.set(CM_PROGRAM_STATE_CHECK);
    }
  } else if (build_deallocate(*cccb, frame)) {
    SCC_start_verb(frame, cccb, conversation_id, cmdeal_cb);
  }
  if (frame.tracing()) frame.response(SCC_cccb_after_call(conversation_id));
}

void cmdeal_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  CCCB &cccb = *static_cast<CCCB *>(vcb);
  if (cccb.vcb.hdr.primary_rc != AP_OK) {
    // Only the ending codes end the conversation; a state check leaves it usable.
    SCC_complete_result(&cccb);
    SCC_drop_follow_on_log_data(cccb);
  } else {
    if (audit_records_on()) {
      nba_pd_print_audit(kAuditDeallocated, 0, "ba ca", 8u, cccb.pTraceConvId, 8u,
                         cccb.SideInfo.local_LU_alias);
    }
    // Synchronous follow-on of Send_Data: cmsend_cb sets the result and the
    // end of the conversation itself.
    if (correlator == 0 && cccb.usDeallcLogDataLength != 0) return;
    cccb.ulReturnCode = CM_OK;
    cccb.fConversationEnded = 1;
  }
  if (correlator != 0) SCC_complete_async(&cccb);
}

}  // extern "C"
