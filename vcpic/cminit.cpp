// CMINIT: the record of an outgoing conversation, in Initialize state.
//
// Nothing reaches the node here except, for a symbolic destination name the
// process does not hold yet, the side-information query of the store.
#include <cstring>

#include "call_frame.h"

namespace {

bool all_zero(const unsigned char *bytes, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

// The local LU the conversation will be allocated from.  APPCLLU overrides
// the side information's alias, except that a current context is kept for a
// destination that names no local LU.  All zero: the node's default LU.
void choose_local_lu(CCCB &cccb) {
  constexpr size_t kSize = sizeof cccb.LocalLUName;
  std::memcpy(cccb.LocalLUName, cccb.SideInfo.local_LU_alias, kSize);
  if (!all_zero(pGCB->CurrentContext, sizeof pGCB->CurrentContext) &&
      all_zero(cccb.LocalLUName, kSize)) {
    std::memcpy(cccb.LocalLUName, pGCB->CurrentContextLU, kSize);
  } else if (!all_zero(pGCB->EnvLUAlias, kSize)) {
    std::memcpy(cccb.LocalLUName, pGCB->EnvLUAlias, kSize);
  }
}

// Audit record of a name no side information knows.  The audit log reads a
// NUL-terminated string and the application's name has no terminator, so a
// terminated copy of its 8 bytes is passed.
void audit_unknown_name(const unsigned char *sym_dest_name) {
  if (!audit_records_on()) return;
  char name[9] = {};
  std::memcpy(name, sym_dest_name, 8);
  nba_pd_print_audit(kAuditSymDestNotFound, 0, "s", name);
}

}  // namespace

void cminit(unsigned char *conversation_ID, unsigned char *sym_dest_name,
            CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMINIT, return_code);
  if (frame.tracing()) frame.request(nullptr, sym_dest_name);
  CCCB *cccb = nullptr;
  if (!fInitCPIC) SCC_init();
  if (!fInitCPIC || !SCC_cccb_init(conversation_ID, &cccb)) {
    frame.set(CM_PRODUCT_SPECIFIC_ERROR);
    cccb = nullptr;
  } else {
    cccb->fInitializeState = 1;
    std::memcpy(cccb->SideInfo.sym_dest_name, sym_dest_name, 8);
    if (sym_dest_name[0] != ' ' && SCD_main(SCD_LOOKUP, &cccb->SideInfo) != CM_OK) {
      audit_unknown_name(sym_dest_name);
      SCC_free_cccb(cccb);
      cccb = nullptr;
      frame.set(CM_PROGRAM_PARAMETER_CHECK);
    } else {
      choose_local_lu(*cccb);
    }
  }
  if (frame.tracing()) frame.response(cccb, conversation_ID);
}
