// The issue sequence shared by the verbs that act on a conversation the node
// already knows (send, control, receive, deallocate): the library's own
// checks, the completion record and the submission, plus the frame of every
// completion routine.  Anything finer than these checks (Send versus Receive
// state and so on) is the node's to judge.
#pragma once

#include <cstdint>

#include "call_frame.h"

// True when a verb may be built on `cccb`: the conversation is known, has no
// verb in progress and exists on the node.  Otherwise the frame's return code
// says why (24 with problem 0x20030005 and `probe`, 37, or 25).
bool SCC_verb_may_start(const CallFrame &frame, CCCB *cccb, const unsigned char *conversation_id,
                        uint32_t probe);

// Records what the completion needs and submits the verb already built in the
// verb area; the frame's return code becomes the submission's result.
void SCC_start_verb(const CallFrame &frame, CCCB *cccb, const unsigned char *conversation_id,
                    APPC_CALLBACK routine, void *out0 = nullptr, void *out1 = nullptr,
                    void *out2 = nullptr, void *out3 = nullptr, void *out4 = nullptr);

// The conversation of `conversation_id` as it stands after the work of a call:
// a verb's completion may have freed the CCCB, and the response trace record
// must not read a freed block.
inline const CCCB *SCC_cccb_after_call(const unsigned char *conversation_id) {
  return CallFrame::lookup(conversation_id);
}

// Frame of a completion routine: map the result, let `outputs` write the
// verb's out-parameters and flags, and finish an asynchronous completion.
template <typename Outputs>
void SCC_complete_verb(void *vcb, uintptr_t correlator, Outputs outputs) {
  CCCB *cccb = static_cast<CCCB *>(vcb);
  SCC_complete_result(cccb);
  outputs(*cccb);
  if (correlator != 0) SCC_complete_async(cccb);
}

// Stores a node byte in a 32-bit out-parameter the caller recorded, if any.
inline void SCC_store_out(void *out, uint32_t value) {
  if (out != nullptr) *static_cast<CM_INT32 *>(out) = static_cast<CM_INT32>(value);
}
