// Allocate: find a TP (context) to allocate under, then submit one ALLOCATE
// built from the conversation's characteristics and side information.
//
// The TP is started before the state checks, so a call refused with 37 or 25
// has already started one; it is ended again at once.  Such a refused call
// may concern a conversation that has a verb in progress or is already
// allocated, and that verb and the conversation's later verbs rely on the
// verb area, TpId and LocalLUName.  The TP is therefore started from a verb
// block of the call's own and its results are stored in the record only when
// the call goes on to allocate.
#include <cstring>

#include "call_frame.h"
#include "current_context.h"

namespace {

// The TP this call allocates under.
struct Context {
  unsigned char tp_id[8];
  unsigned char local_lu_name[8];
  bool started;  // started by this call, to be ended if the call goes no further
};

// Reuses the current context when its LU is the conversation's, otherwise has
// the node start a TP, synchronously whatever the processing mode.  False
// when the node refuses (the return code is then set and the record freed).
bool find_context(CCCB &cccb, const CallFrame &frame, Context &context) {
  if (SCC_has_current_context() &&
      std::memcmp(pGCB->CurrentContextLU, cccb.LocalLUName, sizeof cccb.LocalLUName) == 0) {
    std::memcpy(context.tp_id, pGCB->CurrentContext, sizeof context.tp_id);
    std::memcpy(context.local_lu_name, cccb.LocalLUName, sizeof context.local_lu_name);
    context.started = false;
    return true;
  }
  NAP_START_TP_VCB verb{};
  verb.opcode = NAP_START_TP;
  std::memcpy(verb.local_lu_name, cccb.LocalLUName, sizeof verb.local_lu_name);
  std::memcpy(verb.tp_name, pGCB->TpName, sizeof verb.tp_name);
  // Counted as outstanding so that a completion the node delivers meanwhile
  // cannot free the record under this call.
  cccb.usVerbsOutstanding++;
  appc_c_async_version(APPC_INTERFACE_VERSION, &verb, nullptr, 0);
  cccb.usVerbsOutstanding--;
  if (verb.primary_rc != AP_OK) {
    CM_RETURN_CODE rc = CM_OK;
    SCC_map_return_codes(&rc, verb.primary_rc, verb.secondary_rc, verb.opcode);
    frame.set(rc);
    // A record with a verb in progress is still the node's; it is freed by
    // that verb's completion path, never here.
    if (cccb.usVerbsOutstanding == 0) SCC_free_cccb(&cccb);
    return false;
  }
  if (audit_records_on()) nba_pd_print_audit(kAuditTpStarted, 0, "ba", 8u, verb.tp_id);
  std::memcpy(context.tp_id, verb.tp_id, sizeof context.tp_id);
  std::memcpy(context.local_lu_name, verb.local_lu_name, sizeof context.local_lu_name);
  context.started = true;
  return true;
}

void build_allocate(CCCB &cccb) {
  SCC_vcb_init(&cccb, NAP_B_ALLOCATE);
  NAP_ALLOCATE &verb = cccb.vcb.alloc;
  const SCD_ENTRY &side = cccb.SideInfo;
  verb.hdr.format = 1;
  verb.reserv24 = 0;
  verb.sync_level = static_cast<uint8_t>(cccb.ulSyncLevel);
  verb.return_control = static_cast<uint8_t>(cccb.ulReturnControl);
  // A qualified name (NETID.LUNAME, EBCDIC) and an alias (ASCII) have
  // separate fields; the node resolves whichever is given.
  if (side.usPartnerLUQualified == 0) {
    std::memcpy(verb.partner_lu_alias, side.partner_LU_name, sizeof verb.partner_lu_alias);
  } else {
    std::memcpy(verb.partner_lu_name, side.partner_LU_name, sizeof verb.partner_lu_name);
  }
  std::memcpy(verb.mode_name, side.mode_name, sizeof verb.mode_name);
  std::memcpy(verb.tp_name, side.TP_name, sizeof verb.tp_name);
  verb.security_type = static_cast<uint8_t>(side.conversation_security_type);
  // With security SAME the partner trusts this node's user: no password.
  if (verb.security_type != CM_SECURITY_SAME) {
    std::memcpy(verb.password, side.security_password, sizeof verb.password);
  }
  std::memcpy(verb.user_id, side.security_user_ID, sizeof verb.user_id);
  verb.reserv152 = 0;
}

// Cancels at the node a conversation that CMCANC asked to cancel while its
// ALLOCATE was in progress.  The result is of no use: the conversation is
// given up either way.
void cancel_allocated(const CCCB &cccb, uint32_t conv_id) {
  CCCB_VCB verb{};
  NAP_HDR &hdr = verb.hdr;
  hdr.opcode = NAP_CANCEL;
  hdr.opext = static_cast<uint8_t>(cccb.ulConversationType);
  std::memcpy(hdr.tp_id, cccb.TpId, sizeof hdr.tp_id);
  hdr.conv_id = conv_id;
  appc_c_version(APPC_INTERFACE_VERSION, &verb);
}

}  // namespace

extern "C" {

void cmallc(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMALLC, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id);
  Context context{};
  if (cccb == nullptr) {
    frame.unknown(conversation_id, 1);
  } else if (find_context(*cccb, frame, context)) {
    if (cccb->usVerbsOutstanding != 0) {
      frame.set(CM_OPERATION_NOT_ACCEPTED);
    } else if (cccb->ulAppcConvId != 0 || cccb->fInitializeState == 0) {
      // Already allocated, or made for an incoming conversation.
      frame.set(CM_PROGRAM_STATE_CHECK);
    } else {
      SCC_set_tp_id(cccb, context.tp_id);
      std::memcpy(cccb->LocalLUName, context.local_lu_name, sizeof cccb->LocalLUName);
      build_allocate(*cccb);
      cccb->fNewContext = context.started ? 1 : 0;
      SCC_set_completion_info(cccb, kVerbCMALLC, conversation_id);
      frame.set(SCC_submit_conversation_verb(cccb, cmallc_cb));
      context.started = false;  // the conversation carries it from here
    }
    if (context.started) SCC_context_ended(context.tp_id, 1);
  }
  if (frame.tracing()) frame.response(nullptr);
}

void cmallc_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  CCCB &cccb = *static_cast<CCCB *>(vcb);
  const NAP_ALLOCATE &verb = cccb.vcb.alloc;
  if (verb.hdr.primary_rc != AP_OK) {
    SCC_complete_result(&cccb);
    if (cccb.fCancelPending != 0) cccb.fConversationEnded = 1;
    const auto rc = static_cast<CM_RETURN_CODE>(cccb.ulReturnCode);
    if (cccb.fNewContext != 0 &&
        (rc == CM_PARAMETER_ERROR || rc == CM_PROGRAM_PARAMETER_CHECK || rc == CM_UNSUCCESSFUL)) {
      // The TP was started for this ALLOCATE alone.  Forgetting it keeps the
      // record's free from ending it a second time; a retried CMALLC starts
      // a new one.
      SCC_context_ended(cccb.TpId, 1);
      static constexpr unsigned char kNoContext[8] = {};
      SCC_set_tp_id(&cccb, kNoContext);
    }
  } else {
    if (audit_records_on()) {
      nba_pd_print_audit(kAuditAllocated, 0, "ba ca", 8u, cccb.pTraceConvId, 8u,
                         cccb.SideInfo.local_LU_alias);
    }
    if (cccb.fCancelPending != 0) {
      cancel_allocated(cccb, verb.hdr.conv_id);
      cccb.ulReturnCode = CM_PRODUCT_SPECIFIC_ERROR;
      cccb.fConversationEnded = 1;
      nba_pd_print_problem(kProblemCancelPending, 1, "");
    } else {
      cccb.ulReturnCode = CM_OK;
      cccb.ulAppcConvId = verb.hdr.conv_id;
    }
  }
  cccb.fCancelPending = 0;
  cccb.fNewContext = 0;
  if (correlator != 0) SCC_complete_async(&cccb);
}

}  // extern "C"
