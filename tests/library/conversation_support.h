// What the conversation-call tests share: the fixture, the out-parameters
// that outlive a non-blocking call, the table of conversation calls and the
// conversations the tests set up in the node.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <map>

#include "library/support.h"
#include "support/read_lines.h"

namespace conversation_test {

using namespace lib_test;

class Conversations : public LibraryTest {};

// Out-parameters that outlive a non-blocking call.
struct OutParms {
  unsigned char buffer[64] = {};
  CM_INT32 length = 16, data = -1, received = -1, status = -1, rts = -1, state = -1;
};
inline OutParms g_out;

// A conversation call and the probe of its unknown-ID report.
struct Call {
  std::string name;
  uint32_t probe;
  std::function<CM_RETURN_CODE(ConvId &)> run;
};
using Id = unsigned char *;
using Rc = CM_RETURN_CODE *;
inline const std::vector<Call> kCalls = {
    {"CMSEND", 16,
     rc_of([](Id id, Rc rc) { cmsend(id, g_out.buffer, &g_out.length, &g_out.rts, rc); })},
    {"CMFLUS", 12, rc_of(cmflus)},
    {"CMPTR", 13, rc_of(cmptr)},
    {"CMCFM", 3, rc_of([](Id id, Rc rc) { cmcfm(id, &g_out.rts, rc); })},
    {"CMCFMD", 4, rc_of(cmcfmd)},
    {"CMSERR", 17, rc_of([](Id id, Rc rc) { cmserr(id, &g_out.rts, rc); })},
    {"CMRTS", 15, rc_of(cmrts)},
    {"CMRCV", 14, rc_of([](Id id, Rc rc) {
       cmrcv(id, g_out.buffer, &g_out.length, &g_out.data, &g_out.received, &g_out.status,
             &g_out.rts, rc);
     })},
    {"CMDEAL", 5, rc_of(cmdeal)},
    {"CMTRTS", 31, rc_of([](Id id, Rc rc) { cmtrts(id, &g_out.rts, rc); })},
    {"CMECS", 0, rc_of([](Id id, Rc rc) { cmecs(id, &g_out.state, rc); })},
    {"CMACCI", 0, rc_of(cmacci)},
    {"CMALLC", 1, rc_of(cmallc)},
};
// The calls that submit one verb on an allocated conversation.
inline const std::vector<Call> kVerbCalls(kCalls.begin(), kCalls.begin() + 9);
inline CM_RETURN_CODE run(const char *name, ConvId &id) {
  return std::find_if(kCalls.begin(), kCalls.end(), [&](const Call &c) { return c.name == name; })
      ->run(id);
}

// Starts a loop iteration afresh: lets the node finish what is pending, drops
// every conversation (without ending TPs at the node) and clears the node.
inline void restart_node() {
  while (snt_pending_count() > 0) snt_complete_pending(0);
  if (fInitCPIC != 0) {
    Locked lock;
    void *pointer = nullptr;
    for (uint32_t h = vtm_get_next_used(pGCB->CCCBTable, 0, &pointer); h != NB_NULL_HANDLE;
         h = vtm_get_next_used(pGCB->CCCBTable, h, &pointer)) {
      SCC_set_tp_id(static_cast<CCCB *>(pointer), kNoTp);
      SCC_free_cccb(static_cast<CCCB *>(pointer));
    }
  }
  fresh_node();
}

// A conversation made by CMINIT and placed in a context as if allocated
// there: TpId `context` (all eight bytes), node conversation `appc_id` (0:
// not yet in the node), local LU `lu`.
inline CCCB *conversation_in(unsigned char context, uint32_t appc_id, const char *lu, ConvId &id) {
  CCCB *cccb = initialized_conversation(id);
  unsigned char tp[8];
  std::memset(tp, context, 8);
  SCC_set_tp_id(cccb, tp);
  cccb->ulAppcConvId = appc_id;
  std::memset(cccb->LocalLUName, 0, 8);
  std::memcpy(cccb->LocalLUName, lu, std::strlen(lu));
  return cccb;
}

}  // namespace conversation_test
