// CMWAIT and CMCHCK: collecting and peeking at completed non-blocking verbs.
// Both pick the first flagged conversation in the conversation table's walk
// order, not the one that completed first, so the answer depends only on the
// table and not on the node's timing.
#include <cstring>

#include "call_frame.h"

namespace {

// The first CCCB in table order with a completion waiting, or null.
CCCB *first_waiting_cccb() {
  void *object = nullptr;
  VTM_TABLE table = pGCB->CCCBTable;
  for (uint32_t h = vtm_get_next_used(table, 0, &object); h != NB_NULL_HANDLE;
       h = vtm_get_next_used(table, h, &object)) {
    auto *cccb_ptr = static_cast<CCCB *>(object);
    CPIC_ASSERT(kUnitCal1, cccb_ptr != nullptr, "cccb_ptr != NULL");
    if (cccb_ptr != nullptr && cccb_ptr->fCompletionWaiting) return cccb_ptr;
  }
  return nullptr;
}

}  // namespace

extern "C" void cmwait(unsigned char *conversation_ID, CM_RETURN_CODE *conversation_return_code,
                       CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMWAIT, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr);
  GCB *gcb = pGCB;
  bool collected = false;
  // The node runs completion routines while this call sleeps (the lock is
  // given up inside vpm_sleep), so the counters move under us here.
  while (gcb->NumVerbsWaiting == 0 && gcb->NumVerbsOutstanding != 0) {
    vpm_sleep(gcb->hWaitObject, VPM_SLEEP_FOREVER);
  }
  if (gcb->NumVerbsWaiting == 0) {
    frame.set(CM_PROGRAM_STATE_CHECK);
  } else if (CCCB *cccb = first_waiting_cccb(); cccb == nullptr) {
    // The counter says a completion waits but no conversation has one.  We
    // never report a conversation we cannot name; the counter is wrong, so
    // it is brought back in line with the flags (none set) and the call
    // fails as an internal error.  Without the repair every later CMWAIT
    // would fail the same way.
    CPIC_ASSERT(kUnitCal1, false, "tm_handle != NB_NULL_HANDLE");
    gcb->NumVerbsWaiting = 0;
    frame.set(CM_PRODUCT_SPECIFIC_ERROR);
  } else {
    std::memcpy(conversation_ID, cccb->pTraceConvId, 8);
    *conversation_return_code = static_cast<CM_RETURN_CODE>(cccb->ulReturnCode);
    SCC_drop_uncollected_completion(cccb, kUnitCal1);
    SCC_free_if_finished(cccb);
    collected = true;
  }
  if (frame.tracing()) {
    // The collection may have freed the record: find it again by its ID.
    frame.response(collected ? CallFrame::lookup(conversation_ID) : nullptr, conversation_ID,
                   conversation_return_code);
  }
}

extern "C" void cmchck(unsigned char *conversation_ID, CM_RETURN_CODE *return_code) {
  // Gives a single-threaded program's pending completions a chance to run;
  // done before the lock so the node can deliver them.
  vpm_asm_event_fd();
  CallFrame frame(kVerbCMCHCK, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr);
  const GCB *gcb = pGCB;
  CCCB *reported = nullptr;
  if (gcb->NumVerbsWaiting == 0 && gcb->NumVerbsOutstanding == 0) {
    frame.set(CM_PROGRAM_STATE_CHECK);
  } else if (gcb->NumVerbsWaiting == 0) {
    frame.set(CM_UNSUCCESSFUL);
  } else if (CCCB *cccb = first_waiting_cccb(); cccb == nullptr) {
    CPIC_ASSERT(kUnitCal1, false, "FALSE");
    frame.set(CM_UNSUCCESSFUL);
  } else {
    // Only a peek: the completion stays for CMWAIT to collect.
    std::memcpy(conversation_ID, cccb->pTraceConvId, 8);
    reported = cccb;
  }
  if (frame.tracing()) frame.response(reported, conversation_ID);
}
