// Submission and completion of conversation verbs.  A verb is built in the
// CCCB's verb area and handed to the node; blocking verbs complete inside the
// node call, non-blocking ones may come back later through their completion
// routine, which counts them for CMWAIT.
//
// Callers check that no verb is outstanding on the conversation (return code
// 37) before they build a VCB, since building one overwrites the verb area.
#include <cstring>

#include "call_frame.h"

namespace {

// The source unit whose assertion reports name a call: the submission is
// part of each call, so its consistency check is reported as that call's.
const char *unit_of_call(uint16_t trace_verb) {
  switch (trace_verb) {
    case kVerbCMACCP:
    case kVerbCMACCI:
    case kVerbCMALLC:
    case kVerbCMCFM:
    case kVerbCMCFMD:
    case kVerbCMDEAL:
      return kUnitCal1;
    case kVerbCMFLUS:
    case kVerbCMECS:
      return kUnitCal2;
    case kVerbCMSEND:
    case kVerbCMRCV:
    case kVerbCMPTR:
    case kVerbCMRTS:
    case kVerbCMSERR:
    case kVerbCMTRTS:
      return kUnitCal3;
    default:
      return kUnitUtil;
  }
}

}  // namespace

NAP_HDR *SCC_vcb_init(CCCB *cccb, uint16_t opcode) {
  std::memset(&cccb->vcb, 0, sizeof cccb->vcb);
  NAP_HDR *hdr = &cccb->vcb.hdr;
  hdr->opcode = opcode;
  hdr->opext = static_cast<uint8_t>(cccb->ulConversationType & 0xFF);
  std::memcpy(hdr->tp_id, cccb->TpId, sizeof hdr->tp_id);
  hdr->conv_id = cccb->ulAppcConvId;
  return hdr;
}

void SCC_set_completion_info(CCCB *cccb, uint16_t trace_verb, const unsigned char *conversation_id,
                             void *out0, void *out1, void *out2, void *out3, void *out4) {
  cccb->usTraceVerb = trace_verb;
  std::memcpy(cccb->ConvIdCopy, conversation_id, sizeof cccb->ConvIdCopy);
  cccb->pTraceConvId = cccb->ConvIdCopy;
  cccb->pOutParm[0] = out0;
  cccb->pOutParm[1] = out1;
  cccb->pOutParm[2] = out2;
  cccb->pOutParm[3] = out3;
  cccb->pOutParm[4] = out4;
  cccb->ulReturnCode = CM_OK;
}

void SCC_drop_uncollected_completion(CCCB *cccb, const char *unit) {
  if (!cccb->fCompletionWaiting) return;
  CPIC_ASSERT(unit, pGCB->NumVerbsWaiting > 0, "(pGCB)->NumVerbsWaiting > 0");
  --pGCB->NumVerbsWaiting;
  cccb->fCompletionWaiting = 0;
}

CM_RETURN_CODE SCC_submit_conversation_verb(CCCB *cccb, APPC_CALLBACK routine) {
  ++cccb->usVerbsOutstanding;
  // A result the application never collected is lost once the next verb
  // starts: CMWAIT reports only the latest verb of a conversation.
  SCC_drop_uncollected_completion(cccb, unit_of_call(cccb->usTraceVerb));

  const bool non_blocking = cccb->usProcessingMode == CM_NON_BLOCKING;
  const uint32_t answer =
      appc_c_async_version(APPC_INTERFACE_VERSION, &cccb->vcb, non_blocking ? routine : nullptr, 1);
  if (answer == AP_ASYNC_IN_PROGRESS) {
    ++pGCB->NumVerbsOutstanding;
    return CM_OPERATION_INCOMPLETE;
  }
  // Completed inside the node call: correlator 0 tells the routine not to
  // count the completion for CMWAIT.
  routine(&cccb->vcb, 0, 0, 0);
  const auto rc = static_cast<CM_RETURN_CODE>(cccb->ulReturnCode);
  --cccb->usVerbsOutstanding;
  SCC_free_if_finished(cccb);
  return rc;
}

void SCC_complete_result(CCCB *cccb) {
  const NAP_HDR &hdr = cccb->vcb.hdr;
  if (hdr.primary_rc == AP_OK) {
    cccb->ulReturnCode = CM_OK;
    return;
  }
  CM_RETURN_CODE rc = CM_OK;
  SCC_map_return_codes(&rc, hdr.primary_rc, hdr.secondary_rc, hdr.opcode);
  cccb->ulReturnCode = static_cast<uint32_t>(rc);
  if (SCC_is_ending_primary(hdr.primary_rc)) cccb->fConversationEnded = 1;
}

void SCC_complete_async(CCCB *cccb, bool may_free) {
  GCB *gcb = pGCB;
  --gcb->NumVerbsOutstanding;
  if (!cccb->fCompletionWaiting) {
    cccb->fCompletionWaiting = 1;
    ++gcb->NumVerbsWaiting;
  }
  --cccb->usVerbsOutstanding;
  vpm_wakeup(gcb->hWaitObject);
  if (api_trace_on()) {
    // The call that submitted the verb has long returned; this is its real
    // response record.
    seputrcp(2, cccb->usTraceVerb, CallFrame::lookup(cccb->pTraceConvId), &cccb->ulReturnCode,
             trace_arg(cccb->pOutParm[0]), trace_arg(cccb->pOutParm[1]),
             trace_arg(cccb->pOutParm[2]), trace_arg(cccb->pOutParm[3]),
             trace_arg(cccb->pOutParm[4]));
  }
  if (may_free) SCC_free_if_finished(cccb);
}

void SCC_free_if_finished(CCCB *cccb) {
  if (cccb->fConversationEnded && cccb->usVerbsOutstanding == 0 && !cccb->fCompletionWaiting) {
    SCC_free_cccb(cccb);
  }
}
