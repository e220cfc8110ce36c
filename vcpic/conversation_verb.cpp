#include "conversation_verb.h"

bool SCC_verb_may_start(const CallFrame &frame, CCCB *cccb, const unsigned char *conversation_id,
                        uint32_t probe) {
  if (cccb == nullptr) {
    frame.unknown(conversation_id, probe);
    return false;
  }
  if (cccb->usVerbsOutstanding != 0) {
    frame.set(CM_OPERATION_NOT_ACCEPTED);
    return false;
  }
  if (cccb->ulAppcConvId == 0) {
    // Initialised or waiting to accept: the node has no conversation yet.
    frame.set(CM_PROGRAM_STATE_CHECK);
    return false;
  }
  return true;
}

void SCC_start_verb(const CallFrame &frame, CCCB *cccb, const unsigned char *conversation_id,
                    APPC_CALLBACK routine, void *out0, void *out1, void *out2, void *out3,
                    void *out4) {
  SCC_set_completion_info(cccb, frame.verb(), conversation_id, out0, out1, out2, out3, out4);
  frame.set(SCC_submit_conversation_verb(cccb, routine));
}
