// Accept_Conversation, Initialize_For_Incoming and Accept_Incoming.  Both
// accepts submit one RECEIVE_ALLOCATE offering every local TP name of the
// process; its completion copies the incoming conversation's identifiers and
// characteristics into the record.
#include <algorithm>
#include <cstring>

#include "conversation_verb.h"
#include "current_context.h"
#include "inbound.h"
#include "local_tp_names.h"

namespace {

inline constexpr unsigned char kEbcdicBlank = 0x40;
inline constexpr unsigned char kEbcdicPeriod = 0x4B;
inline constexpr unsigned char kAsciiBlank = 0x20;
inline constexpr uint32_t kTpNameSize = 64;

// Number of bytes before the first `blank` (the whole field when none).
template <size_t N>
uint16_t length_before(const uint8_t (&field)[N], unsigned char blank) {
  return static_cast<uint16_t>(std::find(field, field + N, blank) - field);
}

// Ends the current context when no conversation uses it any more: a program
// that accepts again has finished with the context of its last conversation.
// True when it was ended.
bool end_current_context_if_unused() {
  if (!SCC_has_current_context() || SCC_cccbs_using_tpid(pGCB->CurrentContext) != 0) return false;
  SCC_context_ended(pGCB->CurrentContext, 1);
  return true;
}

// Defines the process TP name at the node once per process, unless the
// program named its TP names itself (then the process name is defined only
// when APPCTPN asked for it).
CM_RETURN_CODE define_process_tp_name() {
  if (pGCB->fDefaultTpNameDefined != 0 || (pGCB->fTpNameFromEnv == 0 && pGCB->NumLocTPNames != 0)) {
    return CM_OK;
  }
  if (SCC_find_local_tp(pGCB->TpName, pGCB->usTpNameLen) == NB_NULL_HANDLE) {
    const CM_RETURN_CODE rc =
        SCC_define_local_tp(pGCB->TpName, pGCB->usTpNameLen, LocalTpProbes{0, 15, 1});
    if (rc != CM_OK) return rc;
  }
  pGCB->fDefaultTpNameDefined = 1;
  return CM_OK;
}

// The list of every local TP name, in table order, for the node to match the
// incoming allocation against.  Null (problem logged) when there is no memory.
unsigned char *local_tp_name_list() {
  auto *list = static_cast<unsigned char *>(
      nba_mm_alloc(pGCB->NumLocTPNames * kTpNameSize, kMemShortLived, nba_blank_name, 0, 0));
  if (list == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 10, "");
    return nullptr;
  }
  uint32_t handle_count = 0;
  SCC_scan_local_tps([&](uint32_t, const LOCAL_TP_RECORD &record) {
    if (handle_count < pGCB->NumLocTPNames) {
      std::memcpy(list + handle_count * kTpNameSize, record.TPName, kTpNameSize);
    }
    handle_count++;
    return false;
  });
  CPIC_ASSERT(kUnitCal1, handle_count == pGCB->NumLocTPNames,
              "handle_count == pGCB->NumLocTPNames");
  return list;
}

void release_name_list(NAP_RECEIVE_ALLOCATE &verb) {
  if (verb.tp_name_list != nullptr) nba_mm_free(verb.tp_name_list, 0);
  verb.tp_name_list = nullptr;
}

// Copies what the node says about the incoming conversation into the record.
void take_incoming_conversation(CCCB &cccb, const NAP_RECEIVE_ALLOCATE &verb) {
  SCC_set_tp_id(&cccb, verb.tp_id);
  std::memcpy(cccb.SideInfo.TP_name, verb.rcv_tp_name, sizeof cccb.SideInfo.TP_name);
  cccb.ulLocTPNameHandle = SCC_scan_local_tps([&](uint32_t, const LOCAL_TP_RECORD &record) {
    return std::memcmp(record.TPName, verb.rcv_tp_name, kTpNameSize) == 0;
  });
  cccb.ulAppcConvId = verb.conv_id;
  cccb.ulSyncLevel = verb.rcv_sync_level;
  cccb.ulConversationType = verb.rcv_conv_type;

  SCD_ENTRY &side = cccb.SideInfo;
  std::memcpy(side.mode_name, verb.rcv_mode_name, sizeof side.mode_name);
  side.usModeNameLen = length_before(verb.rcv_mode_name, kEbcdicBlank);
  std::memcpy(side.security_user_ID, verb.rcv_user_id, sizeof side.security_user_ID);
  side.usUserIDLen = length_before(verb.rcv_user_id, kEbcdicBlank);

  // The partner arrives network-qualified (NETID.LUNAME, EBCDIC).
  side.usPartnerLULen = length_before(verb.rcv_partner_lu_name, kEbcdicBlank);
  for (uint16_t i = 0; i < side.usPartnerLULen; ++i) {
    if (verb.rcv_partner_lu_name[i] == kEbcdicPeriod) side.usPartnerLUPeriodPos = i;
  }
  side.usPartnerLUQualified = 1;
  std::memcpy(side.partner_LU_name, verb.rcv_partner_lu_name, sizeof side.partner_LU_name);

  const uint16_t alias_length = length_before(verb.rcv_lu_alias, kAsciiBlank);
  std::memset(cccb.LocalLUName, kAsciiBlank, sizeof cccb.LocalLUName);
  std::memcpy(cccb.LocalLUName, verb.rcv_lu_alias, alias_length);
}

}  // namespace

CM_RETURN_CODE SCC_inbound_get_cccb(CCCB **cccb, unsigned char *conversation_id) {
  if (!SCC_library_started()) return CM_PRODUCT_SPECIFIC_ERROR;
  if (SCC_cccb_init(conversation_id, cccb) == 0) return CM_PRODUCT_SPECIFIC_ERROR;
  (*cccb)->fInitializeState = 0;
  return CM_OK;
}

CM_RETURN_CODE SCC_inbound_issue_verb(CCCB *cccb, uint16_t trace_verb, APPC_CALLBACK routine,
                                      bool free_on_error, const unsigned char *conversation_id,
                                      const CM_RETURN_CODE *return_code) {
  auto fail = [&](CM_RETURN_CODE rc) {
    if (free_on_error) SCC_free_cccb(cccb);
    return rc;
  };
  const auto current_rc = static_cast<uint32_t>(*return_code);
  if (cccb->usVerbsOutstanding != 0) {
    nba_pd_print_problem(kProblemInbound, 1, "l", current_rc);
    return fail(CM_OPERATION_NOT_ACCEPTED);
  }
  if (cccb->ulAppcConvId != 0 || cccb->fInitializeState != 0) {
    nba_pd_print_problem(kProblemInbound, 2, "l", current_rc);
    return fail(CM_PROGRAM_STATE_CHECK);
  }
  const CM_RETURN_CODE registration = define_process_tp_name();

  std::memset(cccb->vcb.bytes, 0, sizeof cccb->vcb.bytes);
  // No name, no accept: the node could match nothing.
  if (pGCB->NumLocTPNames == 0) return fail(CM_PROGRAM_STATE_CHECK);
  unsigned char *list = local_tp_name_list();
  if (list == nullptr) return fail(CM_PRODUCT_SPECIFIC_ERROR);
  NAP_RECEIVE_ALLOCATE &verb = cccb->vcb.rcvallcp.rcv_alloc;
  verb.opcode = NAP_RECEIVE_ALLOCATE_CPIC;
  verb.format = 1;
  verb.tp_name_list = list;
  verb.tp_name_count = pGCB->NumLocTPNames;
  std::memcpy(&verb.conv_id, conversation_id, sizeof verb.conv_id);
  // Names exist, but the process name the program relies on could not be
  // defined: do not accept under the others alone.
  if (registration != CM_OK) {
    release_name_list(verb);
    return fail(registration);
  }

  SCC_set_completion_info(cccb, trace_verb, conversation_id);
  cccb->ulReturnCode = current_rc;
  return SCC_submit_conversation_verb(cccb, routine);
}

void SCC_inbound_process_verb(CCCB *cccb, uintptr_t correlator, AcceptKind kind) {
  NAP_RECEIVE_ALLOCATE &verb = cccb->vcb.rcvallcp.rcv_alloc;
  const bool accepted = verb.primary_rc == AP_OK;
  if (!accepted) {
    CM_RETURN_CODE rc = CM_OK;
    SCC_map_return_codes(&rc, verb.primary_rc, verb.secondary_rc, verb.opcode);
    cccb->ulReturnCode = static_cast<uint32_t>(rc);
    nba_pd_print_problem(kProblemInbound, 3, "l", cccb->ulReturnCode);
  } else {
    if (audit_records_on()) nba_pd_print_audit(kAuditAccepted, 1, "ba", 8u, cccb->pTraceConvId);
    // An asynchronous CMACCI completes while the program may be working in
    // another context; only a completion the program waits for switches it.
    if (kind == AcceptKind::kAcceptConversation || correlator == 0) {
      end_current_context_if_unused();
      if (verb.rcv_user_id[0] != kEbcdicBlank) {
        std::memcpy(pGCB->CurrentContext, verb.tp_id, sizeof pGCB->CurrentContext);
        std::memcpy(pGCB->CurrentContextLU, verb.rcv_lu_alias, sizeof pGCB->CurrentContextLU);
      }
    }
    take_incoming_conversation(*cccb, verb);
    cccb->ulReturnCode = CM_OK;
  }
  release_name_list(verb);
  // A failed CMACCP leaves no record behind.  Marking it ended lets whoever
  // holds the last reference (the submission, or CMWAIT) free it after the
  // return code has been taken.
  if (!accepted && kind == AcceptKind::kAcceptConversation) cccb->fConversationEnded = 1;
  if (correlator != 0) SCC_complete_async(cccb);
}

extern "C" {

void cmaccp(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMACCP, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr);
  CCCB *cccb = nullptr;
  frame.set(SCC_inbound_get_cccb(&cccb, conversation_id));
  const bool made = *return_code == CM_OK;
  if (made) {
    if (end_current_context_if_unused()) {
      std::memset(pGCB->CurrentContext, 0, sizeof pGCB->CurrentContext);
    }
    // Always blocking: the new record has the default processing mode.
    frame.set(
        SCC_inbound_issue_verb(cccb, kVerbCMACCP, cmaccp_cb, true, conversation_id, return_code));
  }
  if (frame.tracing()) {
    frame.response(made ? SCC_cccb_after_call(conversation_id) : nullptr, conversation_id);
  }
}

void cminic(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMINIC, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr);
  CCCB *cccb = nullptr;
  frame.set(SCC_inbound_get_cccb(&cccb, conversation_id));
  if (frame.tracing()) frame.response(cccb, conversation_id);
}

void cmacci(unsigned char *conversation_id, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMACCI, return_code);
  CCCB *cccb = CallFrame::lookup(conversation_id);
  if (frame.tracing()) frame.request(cccb, conversation_id);
  if (cccb == nullptr) {
    frame.unknown(conversation_id, 0);
  } else {
    frame.set(
        SCC_inbound_issue_verb(cccb, kVerbCMACCI, cmacci_cb, false, conversation_id, return_code));
  }
  if (frame.tracing()) frame.response(SCC_cccb_after_call(conversation_id));
}

void cmaccp_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_inbound_process_verb(static_cast<CCCB *>(vcb), correlator, AcceptKind::kAcceptConversation);
}

void cmacci_cb(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  SCC_inbound_process_verb(static_cast<CCCB *>(vcb), correlator, AcceptKind::kAcceptIncoming);
}

}  // extern "C"
