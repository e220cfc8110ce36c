// CMTERM: ends the process's current context and drops its conversations.
//
// The library itself stays up: its tables, the path to the node and the
// conversations of other contexts survive.  No verb is issued for the dropped
// conversations; ending the context at the node ends them there.
//
// Verbs still outstanding on the dropped conversations: the node does not run
// a completion routine for a verb of a context once that context has ended
// (the synchronous end below returns only after that holds), so those verbs
// will never complete here.  CMTERM therefore takes them out of
// NumVerbsOutstanding as it frees their conversations; otherwise a later
// CMWAIT would sleep for a completion that cannot come instead of answering
// that nothing is outstanding.
#include <algorithm>
#include <cstring>

#include "call_frame.h"

namespace {

// Frees one conversation of the ended context, with everything it counted.
void drop_conversation(CCCB *cccb) {
  if (cccb->fCompletionWaiting) {
    CPIC_ASSERT(kUnitTerm, pGCB->NumVerbsWaiting > 0, "pGCB->NumVerbsWaiting > 0");
    --pGCB->NumVerbsWaiting;
  }
  const uint32_t outstanding = cccb->usVerbsOutstanding;
  pGCB->NumVerbsOutstanding -= std::min(outstanding, pGCB->NumVerbsOutstanding);
  SCC_release_cccb(cccb);
}

}  // namespace

void cmterm(CM_END_TYPE *end_type, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMTERM, return_code);
  if (frame.tracing()) frame.request(nullptr, end_type);
  constexpr unsigned char kNone[8] = {};
  if (static_cast<uint32_t>(*end_type) > CM_SOFT) {
    frame.set(CM_PARAMETER_ERROR);
  } else if (std::memcmp(pGCB->CurrentContext, kNone, sizeof kNone) != 0) {
    // The node's end types run the other way round: 1 hard, 0 soft.
    const uint8_t node_end_type = *end_type == CM_HARD ? 1 : 0;
    uint16_t primary = 0;
    uint32_t secondary = 0;
    SCC_context_ended(pGCB->CurrentContext, node_end_type, &primary, &secondary);
    if (primary != AP_OK) {
      SCC_map_return_codes(return_code, primary, secondary, NAP_TP_ENDED);
    } else {
      void *object = nullptr;
      uint32_t handle = vtm_get_next_used(pGCB->CCCBTable, 0, &object);
      while (handle != 0) {
        auto *cccb = static_cast<CCCB *>(object);
        CPIC_ASSERT(kUnitTerm, cccb->CCCBhandle == handle, "cccb_ptr->CCCBhandle == tm_handle");
        void *next_object = nullptr;
        const uint32_t next = vtm_get_next_used(pGCB->CCCBTable, handle, &next_object);
        if (std::memcmp(cccb->TpId, pGCB->CurrentContext, sizeof cccb->TpId) == 0) {
          drop_conversation(cccb);
        }
        handle = next;
        object = next_object;
      }
      std::memset(pGCB->CurrentContext, 0, sizeof pGCB->CurrentContext);
      std::memset(pGCB->CurrentContextLU, 0, sizeof pGCB->CurrentContextLU);
    }
  }
  if (frame.tracing()) frame.response(nullptr);
}
