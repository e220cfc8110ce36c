// Send_Data: one SEND_DATA verb whose send_data_type folds the send type
// together with the prepare-to-receive or deallocate type.  A send-and-
// deallocate with abend that carries log data cannot say so in one verb, so it
// goes as plain data followed by a DEALLOCATE (abend, with the log data) that
// the completion issues; the application still sees one result.
#include <cstring>

#include "conversation_verb.h"
#include "deallocate.h"

namespace {

inline constexpr uint32_t kMaxSendLength = 32767;

bool abend_with_log_data(const CCCB &cccb) {
  return cccb.ulSendType == CM_SEND_AND_DEALLOCATE &&
         cccb.ulDeallocateType == CM_DEALLOCATE_ABEND && cccb.usLogDataLength > 0;
}

// The node's send_data_type for the conversation's characteristics.
uint8_t send_data_type(const CCCB &cccb) {
  switch (cccb.ulSendType) {
    case CM_BUFFER_DATA:
      return AP_SEND_BUFFER;
    case CM_SEND_AND_FLUSH:
      return AP_SEND_FLUSH;
    case CM_SEND_AND_CONFIRM:
      return AP_SEND_CONFIRM;
    case CM_SEND_AND_PREP_TO_RECEIVE:
      return cccb.ulPrepareToReceiveType == CM_PREP_TO_RECEIVE_FLUSH ? AP_SEND_PTR_FLUSH
                                                                     : AP_SEND_PTR_SYNC_LEVEL;
    case CM_SEND_AND_DEALLOCATE:
      // Plain data first; the DEALLOCATE with the log data follows.
      if (abend_with_log_data(cccb)) return AP_SEND_BUFFER;
      // Confirm travels as sync level, like deallocate type 0.
      return static_cast<uint8_t>(
          4 + (cccb.ulDeallocateType != 0 ? cccb.ulDeallocateType : CM_DEALLOCATE_CONFIRM));
    default:
      return AP_SEND_BUFFER;
  }
}

// Copies the log data for the follow-on DEALLOCATE.  The copy is separate
// from pLogData so that a later Set_Log_Data cannot change what the pending
// DEALLOCATE sends.  False (return code set) when there is nothing to copy or
// no memory.
bool copy_log_data_for_deallocate(CCCB &cccb, const CallFrame &frame) {
  auto *copy = static_cast<unsigned char *>(
      nba_mm_alloc(cccb.usLogDataLength, kMemKept, nba_blank_name, 0, 0));
  if (cccb.pLogData == nullptr || copy == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 16, "x x x x", 0u, 0u, 0u, 0u);
    if (copy != nullptr) nba_mm_free(copy, 0);
    frame.set(CM_PRODUCT_SPECIFIC_ERROR);
    return false;
  }
  CPIC_ASSERT(kUnitCal1, cccb.DeallcLogData == nullptr, "cccb_ptr->DeallcLogData == NULL");
  cccb.DeallcLogData = copy;
  std::memcpy(copy, cccb.pLogData, cccb.usLogDataLength);
  cccb.usDeallcLogDataLength = cccb.usLogDataLength;
  return true;
}

// Issues the DEALLOCATE that follows successful data of a send-and-deallocate
// with abend and log data.  Its trace fields stay those of the Send_Data, so
// the application sees the outcome as the Send_Data's.
void issue_follow_on_deallocate(CCCB &cccb, uintptr_t correlator) {
  CPIC_ASSERT(kUnitCal1, cccb.DeallcLogData != nullptr, "cccb_ptr->DeallcLogData != NULL");
  CPIC_ASSERT(kUnitCal1, cccb.ulConversationType == CM_BASIC_CONVERSATION,
              "cccb_ptr->ulConversationType == CM_BASIC_CONVERSATION");
  SCC_vcb_init(&cccb, NAP_DEALLOCATE);
  NAP_DEALLOCATE_VCB &verb = cccb.vcb.dealloc;
  verb.hdr.opext = NAP_OPEXT_BASIC;
  verb.dealloc_type = AP_DEALLOC_ABEND_LOG;
  verb.log_data_length = cccb.usDeallcLogDataLength;
  verb.log_data_pointer = cccb.DeallcLogData;
  SCC_store_out(cccb.pOutParm[0], cccb.vcb.snd_data.rts_received);

  cccb.usVerbsOutstanding++;
  if (cccb.fCompletionWaiting != 0) SCC_drop_uncollected_completion(&cccb, kUnitCal1);
  APPC_CALLBACK routine = cccb.usProcessingMode != 0 ? cmdeal_cb : nullptr;
  if (appc_c_async_version(APPC_INTERFACE_VERSION, &cccb, routine, 1) == AP_ASYNC_IN_PROGRESS) {
    if (correlator != 0) {
      // The Send_Data's own completion is absorbed: only the DEALLOCATE's
      // completion is posted for CMWAIT.
      pGCB->NumVerbsOutstanding--;
      cccb.usVerbsOutstanding--;
    }
    pGCB->NumVerbsOutstanding++;
    cccb.ulReturnCode = CM_OPERATION_INCOMPLETE;
    return;
  }
  cmdeal_cb(&cccb, 0, 0, 0);
  // The count of the Send_Data still holds the record; whoever completes the
  // Send_Data frees it.
  cccb.usVerbsOutstanding--;
  cccb.fConversationEnded = 1;
  if (correlator != 0) SCC_complete_async(&cccb);
}

}  // namespace

extern "C" {

void cmsend(unsigned char *conversation_id, unsigned char *buffer, CM_INT32 *send_length,
            CM_REQUEST_TO_SEND_RECEIVED *request_to_send_received, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMSEND, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id, buffer, send_length);
  if (SCC_verb_may_start(frame, cccb, conversation_id, 16)) {
    const auto length = static_cast<uint32_t>(*send_length);
    if (length > kMaxSendLength) {
      nba_pd_print_problem(kProblemBadLength, 1, "l", length);
      frame.set(CM_PROGRAM_PARAMETER_CHECK);
    } else {
      SCC_vcb_init(cccb, NAP_SEND_DATA);
      NAP_SEND_DATA_VCB &verb = cccb->vcb.snd_data;
      verb.data_length = static_cast<uint16_t>(length);
      verb.data_pointer = buffer;  // never copied: the buffer stays the application's
      verb.send_data_type = send_data_type(*cccb);
      if (!abend_with_log_data(*cccb) || copy_log_data_for_deallocate(*cccb, frame)) {
        SCC_start_verb(frame, cccb, conversation_id, cmsend_cb, request_to_send_received);
      }
    }
  }
  if (frame.tracing()) {
    frame.response(SCC_cccb_after_call(conversation_id), request_to_send_received);
  }
}

void cmsend_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  CCCB &cccb = *static_cast<CCCB *>(vcb);
  SCC_complete_result(&cccb);
  if (cccb.vcb.hdr.primary_rc != AP_OK) {
    SCC_drop_follow_on_log_data(cccb);
  } else if (cccb.ulSendType == CM_SEND_AND_DEALLOCATE) {
    if (cccb.usDeallcLogDataLength > 0) {
      issue_follow_on_deallocate(cccb, correlator);
      return;
    }
    cccb.fConversationEnded = 1;
  }
  SCC_store_out(cccb.pOutParm[0], cccb.vcb.snd_data.rts_received);
  if (correlator != 0) SCC_complete_async(&cccb);
}

}  // extern "C"
