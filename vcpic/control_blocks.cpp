// Conversation control blocks: making, finding and freeing them, and emptying
// a handle table.  The conversation ID handed to the application is the
// CCCB's handle in the conversation table (bytes 0-3, host order; bytes 4-7
// zero and ignored).
//
// The library asks on every free whether any other conversation still uses
// the freed one's TP; with thousands of conversations open a walk of the
// table there made freeing them quadratic.  So every record in the table is
// counted under its TP ID from the moment it is made (ID zero: no context)
// until it is freed, and a record's TP ID changes only through
// SCC_set_tp_id, which moves it from one count to the other.
#include <cstring>
#include <unordered_map>

#include "call_frame.h"

namespace {

std::unordered_map<uint64_t, uint32_t> &tp_counts() {
  static auto *counts = new std::unordered_map<uint64_t, uint32_t>;  // lives until exit
  return *counts;
}

uint64_t tp_key(const unsigned char *tp_id) {
  uint64_t key;
  std::memcpy(&key, tp_id, sizeof key);
  return key;
}

void count_tp(const unsigned char *tp_id) {
  ++tp_counts()[tp_key(tp_id)];
}

void uncount_tp(const unsigned char *tp_id) {
  auto found = tp_counts().find(tp_key(tp_id));
  CPIC_ASSERT(kUnitUtil, found != tp_counts().end(), "a counted TP id");
  if (found != tp_counts().end() && --found->second == 0) tp_counts().erase(found);
}

void fill(unsigned char *field, std::size_t size, unsigned char value) {
  std::memset(field, value, size);
}

// The characteristics a new conversation starts with.
void set_defaults(CCCB *cccb) {
  cccb->ulConversationType = CM_MAPPED_CONVERSATION;
  SCD_ENTRY &side = cccb->SideInfo;
  fill(side.sym_dest_name, sizeof side.sym_dest_name, ' ');
  fill(side.partner_LU_name, sizeof side.partner_LU_name, ' ');
  side.TP_name_type = CM_APPLICATION_TP;
  fill(side.TP_name, sizeof side.TP_name, 0x40);
  fill(side.mode_name, sizeof side.mode_name, 0x40);
  side.conversation_security_type = CM_SECURITY_SAME;
  fill(side.security_user_ID, sizeof side.security_user_ID, 0x40);
  fill(side.security_password, sizeof side.security_password, 0x40);
  side.usUserIDLen = 1;
}

}  // namespace

int SCC_cccb_init(unsigned char *conversation_id, CCCB **cccb) {
  *cccb = nullptr;
  auto *block = static_cast<CCCB *>(nba_mm_alloc(sizeof(CCCB), kMemKept, nba_blank_name, 0, 0));
  if (block == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 1, "");
    return 0;
  }
  std::memset(static_cast<void *>(block), 0, sizeof(CCCB));
  const uint32_t handle = vtm_get_free_entry(pGCB->CCCBTable, block);
  if (handle == NB_NULL_HANDLE) {
    nba_pd_print_problem(kProblemNoResource, 2, "");
    nba_mm_free(block, 0);
    return 0;
  }
  set_defaults(block);
  block->CCCBhandle = handle;
  count_tp(block->TpId);
  std::memset(conversation_id, 0, 8);
  std::memcpy(conversation_id, &handle, sizeof handle);
  *cccb = block;
  return 1;
}

int SCC_find_cccb(const unsigned char *conversation_id, CCCB **cccb, GCB **gcb) {
  *cccb = nullptr;
  // Before start-up and after the path has ended every ID is unknown.
  if (gcb == nullptr || *gcb == nullptr || fInitCPIC == 0) return 0;
  uint32_t handle;
  std::memcpy(&handle, conversation_id, sizeof handle);
  if (handle == NB_NULL_HANDLE) return 0;
  *cccb = static_cast<CCCB *>(vtm_get_pointer((*gcb)->CCCBTable, handle));
  return *cccb != nullptr;
}

uint32_t SCC_cccbs_using_tpid(const unsigned char *tp_id) {
  auto found = tp_counts().find(tp_key(tp_id));
  return found == tp_counts().end() ? 0 : found->second;
}

void SCC_set_tp_id(CCCB *cccb, const unsigned char *tp_id) {
  uncount_tp(cccb->TpId);
  std::memcpy(cccb->TpId, tp_id, sizeof cccb->TpId);
  count_tp(cccb->TpId);
}

void SCC_release_cccb(CCCB *cccb) {
  if (cccb->pLogData != nullptr) nba_mm_free(cccb->pLogData, 0);
  if (cccb->DeallcLogData != nullptr) nba_mm_free(cccb->DeallcLogData, 0);
  uncount_tp(cccb->TpId);
  vtm_release_entry(pGCB->CCCBTable, cccb->CCCBhandle);
  nba_mm_free(cccb, 0);
}

void SCC_free_cccb(CCCB *cccb) {
  GCB *gcb = pGCB;
  static constexpr unsigned char kNoContext[8] = {};
  // The last conversation of a context that is no longer current takes the
  // context with it; the node would otherwise keep the TP alive.
  if (std::memcmp(cccb->TpId, kNoContext, sizeof kNoContext) != 0 &&
      std::memcmp(cccb->TpId, gcb->CurrentContext, sizeof cccb->TpId) != 0 &&
      SCC_cccbs_using_tpid(cccb->TpId) <= 1) {
    cccb->usVerbsOutstanding = 1;
    if (cccb->usTraceVerb == kVerbCMDEAL) {
      // After CMDEAL the application expects the TP gone when the call returns.
      uint16_t primary = 0;
      uint32_t secondary = 0;
      SCC_context_ended(cccb->TpId, 1, &primary, &secondary);
    } else {
      SCC_context_ended(cccb->TpId, 1);
    }
  }
  if (cccb->fCompletionWaiting) {
    CPIC_ASSERT(kUnitUtil, gcb->NumVerbsWaiting > 0, "pGCB->NumVerbsWaiting > 0");
    --gcb->NumVerbsWaiting;
  }
  SCC_release_cccb(cccb);
}

void SCC_free_handles_from_table(VTM_TABLE table) {
  // Emptying the conversation table (the path ended) empties its counts.
  if (pGCB != nullptr && table == pGCB->CCCBTable) tp_counts().clear();
  void *object = nullptr;
  // The walk stays valid across the release of the handle it stands on.
  for (uint32_t h = vtm_get_next_used(table, 0, &object); h != NB_NULL_HANDLE;
       h = vtm_get_next_used(table, h, &object)) {
    vtm_release_entry(table, h);
    nba_mm_free(object, 0);
  }
}
