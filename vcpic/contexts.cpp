// Contexts: the node's TP identifiers under which conversations run.
//
// CMECTX reads a conversation's context, CMSCTX makes another context the
// process's current one.  A context that is left current-less and unused is
// ended at the node at once, so the node does not keep TPs nobody can use.
#include <cstring>

#include "call_frame.h"

namespace {

constexpr size_t kContextSize = 8;

bool same_context(const unsigned char *a, const unsigned char *b) {
  return std::memcmp(a, b, kContextSize) == 0;
}

bool no_context(const unsigned char *context) {
  static constexpr unsigned char kNone[kContextSize] = {};
  return same_context(context, kNone);
}

}  // namespace

int SCC_context_valid(const unsigned char *tp_id, CCCB **cccb) {
  void *object = nullptr;
  for (uint32_t handle = vtm_get_next_used(pGCB->CCCBTable, 0, &object); handle != 0;
       handle = vtm_get_next_used(pGCB->CCCBTable, handle, &object)) {
    auto *candidate = static_cast<CCCB *>(object);
    if (same_context(candidate->TpId, tp_id)) {
      *cccb = candidate;
      return 1;
    }
  }
  return same_context(tp_id, pGCB->CurrentContext) ? 1 : 0;
}

void cmectx(unsigned char *conversation_ID, unsigned char *context_ID, CM_INT32 *context_ID_length,
            CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMECTX, return_code);
  CCCB *cccb = frame.lookup(conversation_ID);
  if (frame.tracing()) frame.request(cccb, conversation_ID);
  if (cccb == nullptr) {
    frame.unknown(conversation_ID, 6);
  } else if (cccb->ulAppcConvId == 0) {
    frame.set(CM_PROGRAM_STATE_CHECK);
  } else {
    std::memcpy(context_ID, cccb->TpId, kContextSize);
    *context_ID_length = kContextSize;
  }
  if (frame.tracing()) frame.response(cccb, context_ID, context_ID_length);
}

void cmsctx(unsigned char *context_ID, CM_INT32 *context_ID_length, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMSCTX, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr, context_ID, context_ID_length);
  CCCB *user = nullptr;
  if (*context_ID_length != static_cast<CM_INT32>(kContextSize)) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else if (same_context(context_ID, pGCB->CurrentContext)) {
    // Already current: nothing changes.
  } else if (!fInitCPIC || !SCC_context_valid(context_ID, &user) || user == nullptr) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else {
    if (!no_context(pGCB->CurrentContext) && SCC_cccbs_using_tpid(pGCB->CurrentContext) == 0) {
      SCC_context_ended(pGCB->CurrentContext, 1);
    }
    std::memcpy(pGCB->CurrentContext, context_ID, kContextSize);
    std::memcpy(pGCB->CurrentContextLU, user->LocalLUName, sizeof pGCB->CurrentContextLU);
  }
  if (frame.tracing()) frame.response(nullptr);
}
