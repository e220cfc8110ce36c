// CMCANC: ending a conversation at once, also while a verb is in progress on
// it.  The cancel verb runs beside that verb, in a VCB of its own, and the
// call always waits for it, whatever the processing mode.
#include <cstring>

#include "call_frame.h"

namespace {

constexpr uint32_t kCancelProbe = 2;

// What the cancel verb must name, by how far the conversation has got.
struct CancelTarget {
  bool send_verb;
  const unsigned char *tp_id;  // null: zero
  uint32_t conv_id;
};

CancelTarget choose_target(CCCB *cccb_ptr, const unsigned char *conversation_ID) {
  if (cccb_ptr->ulAppcConvId != 0) return {true, cccb_ptr->TpId, cccb_ptr->ulAppcConvId};
  if (cccb_ptr->fInitializeState == 0 && cccb_ptr->usVerbsOutstanding != 0) {
    // An accept waiting for its conversation: the node knows it by our handle.
    CPIC_ASSERT(kUnitCal1, cccb_ptr->vcb.hdr.opcode == NAP_RECEIVE_ALLOCATE_CPIC,
                "cccb_ptr->vcb.rcvallcp.rcv_alloc.opcode == NAP_RECEIVE_ALLOCATE_CPIC");
    uint32_t handle;
    std::memcpy(&handle, conversation_ID, sizeof handle);
    return {true, nullptr, handle};
  }
  if (cccb_ptr->vcb.hdr.opcode == NAP_START_TP) return {true, nullptr, 0};
  if (cccb_ptr->vcb.hdr.opcode == NAP_B_ALLOCATE) return {true, cccb_ptr->TpId, 0};
  return {false, nullptr, 0};
}

// Submits the cancel verb and waits for it.  Returns the call's return code.
CM_RETURN_CODE send_cancel(CCCB *cccb_ptr, const CancelTarget &target) {
  CCCB_VCB cancel{};
  cancel.hdr.opcode = NAP_CANCEL;
  cancel.hdr.opext = static_cast<uint8_t>(cccb_ptr->ulConversationType & 0xFF);
  if (target.tp_id != nullptr) std::memcpy(cancel.hdr.tp_id, target.tp_id, 8);
  cancel.hdr.conv_id = target.conv_id;
  ++cccb_ptr->usVerbsOutstanding;
  cccb_ptr->fConversationEnded = 1;

  void *wait_object = vpm_allocate_wait_object();
  if (wait_object == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 18, "");
    --cccb_ptr->usVerbsOutstanding;
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  const uint32_t answer = appc_c_async_version(APPC_INTERFACE_VERSION, &cancel, cmcanc_cb,
                                               reinterpret_cast<uintptr_t>(wait_object));
  if (answer != AP_ASYNC_IN_PROGRESS) {
    // Completed at once: cmcanc_cb will never touch the object.
    vpm_release_wait_object(wait_object);
  } else if (vpm_sleep(wait_object, VPM_SLEEP_FOREVER) == 0) {
    vpm_release_wait_object(wait_object);
  }
  // A sleep that ends without the wake-up leaves the object to the routine
  // that may still run: releasing it here could free it under the node.

  CM_RETURN_CODE rc = CM_OK;
  if (cancel.hdr.primary_rc != AP_OK) {
    SCC_map_return_codes(&rc, cancel.hdr.primary_rc, cancel.hdr.secondary_rc, NAP_CANCEL);
  }
  --cccb_ptr->usVerbsOutstanding;
  // With the cancelled verb still to complete, or its result still to be
  // collected, the conversation is freed there (it is marked ended).
  SCC_free_if_finished(cccb_ptr);
  return rc;
}

}  // namespace

extern "C" void cmcanc(unsigned char *conversation_ID, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMCANC, return_code);
  CCCB *cccb_ptr = CallFrame::lookup(conversation_ID);
  if (frame.tracing()) frame.request(cccb_ptr, conversation_ID);
  if (cccb_ptr == nullptr) {
    frame.unknown(conversation_ID, kCancelProbe);
  } else if (const CancelTarget target = choose_target(cccb_ptr, conversation_ID);
             target.send_verb) {
    frame.set(send_cancel(cccb_ptr, target));
  } else if (cccb_ptr->usVerbsOutstanding == 0) {
    // Never reached the node: nothing to cancel there.
    SCC_free_cccb(cccb_ptr);
  } else {
    // A verb is in progress before the conversation exists at the node; its
    // completion sends the cancel.
    CPIC_ASSERT(kUnitCal1, cccb_ptr->vcb.alloc.hdr.opcode == NAP_B_ALLOCATE,
                "cccb_ptr->vcb.alloc.opcode == NAP_B_ALLOCATE");
    cccb_ptr->fCancelPending = 1;
  }
  if (frame.tracing()) frame.response(CallFrame::lookup(conversation_ID));
}

extern "C" void cmcanc_cb(void *, uint32_t, uint32_t, uintptr_t correlator) {
  vpm_wakeup(reinterpret_cast<void *>(correlator));
}
