// The frame every call runs in: the process lock for the whole call, the
// return code set to CM_OK first, a request trace record on entry and a
// response record on exit when the API trace is on, and the conversation
// lookup that answers an unknown ID with 24 and problem 0x20030005.
//
//   void cmflus(unsigned char *id, CM_RETURN_CODE *rc) {
//     CallFrame frame(kVerbCMFLUS, rc);
//     CCCB *cccb = frame.lookup(id);            // no trace argument is built
//     if (frame.tracing()) frame.request(cccb, id);
//     if (cccb == nullptr) { frame.unknown(id, 12); ... }
//     ...
//     if (frame.tracing()) frame.response(cccb);
//   }
//
// Every trace helper tests the trace bit before it builds an argument, so a
// call with tracing off pays one flag test per record.
#pragma once

#include <cstdint>

#include "internal.h"
#include "trace_verbs.h"

// Source units named by the library's assertion reports.
inline constexpr const char *kUnitCal1 = "vcpic/cpiccal1";
inline constexpr const char *kUnitCal2 = "vcpic/cpiccal2";
inline constexpr const char *kUnitCal3 = "vcpic/cpiccal3";
inline constexpr const char *kUnitTerm = "vcpic/cpicterm";
inline constexpr const char *kUnitUtil = "vcpic/cpicutil";

// Reports `text` through the node's assertion facility when `cond` is false;
// processing continues either way.
#define CPIC_ASSERT(unit, cond, text)                 \
  do {                                                \
    if (!(cond)) v0_assert((unit), __LINE__, (text)); \
  } while (0)

// True when the API trace is on.  The node daemon may switch it from another
// thread while the process runs, hence the atomic read.
inline bool api_trace_on() noexcept {
  return (__atomic_load_n(&ptrc[SNANODE_TRACE_API_BYTE], __ATOMIC_RELAXED) &
          SNANODE_TRACE_API_BIT) != 0;
}

// True unless the node's trace flags suppress audit records.
inline bool audit_records_on() noexcept {
  return (ptrc[SNANODE_TRACE_NO_AUDIT_BYTE] & SNANODE_TRACE_NO_AUDIT_BIT) == 0;
}

inline uintptr_t trace_arg(const void *p) noexcept {
  return reinterpret_cast<uintptr_t>(p);
}

class CallFrame {
 public:
  CallFrame(uint16_t verb, CM_RETURN_CODE *return_code) noexcept
      : token_(vpm_lock()), verb_(verb), return_code_(return_code) {
    *return_code_ = CM_OK;
  }
  ~CallFrame() { vpm_unlock(token_); }
  CallFrame(const CallFrame &) = delete;
  CallFrame &operator=(const CallFrame &) = delete;

  uint16_t verb() const noexcept { return verb_; }
  CM_RETURN_CODE *return_code() const noexcept { return return_code_; }
  void set(CM_RETURN_CODE rc) const noexcept { *return_code_ = rc; }

  bool tracing() const noexcept { return api_trace_on(); }

  // Request record: the CCCB (or null), the fourth argument (normally the
  // conversation ID) and up to five call arguments.
  void request(const CCCB *cccb, const void *arg4, const void *a1 = nullptr,
               const void *a2 = nullptr, const void *a3 = nullptr, const void *a4 = nullptr,
               const void *a5 = nullptr) const {
    seputrcp(1, verb_, const_cast<CCCB *>(cccb), arg4, trace_arg(a1), trace_arg(a2), trace_arg(a3),
             trace_arg(a4), trace_arg(a5));
  }

  // Response record: the CCCB (or null), the return code and up to five
  // out-parameters.
  void response(const CCCB *cccb, const void *a1 = nullptr, const void *a2 = nullptr,
                const void *a3 = nullptr, const void *a4 = nullptr,
                const void *a5 = nullptr) const {
    seputrcp(2, verb_, const_cast<CCCB *>(cccb), return_code_, trace_arg(a1), trace_arg(a2),
             trace_arg(a3), trace_arg(a4), trace_arg(a5));
  }

  // The conversation of `conversation_id`, or null.  Writes nothing.
  static CCCB *lookup(const unsigned char *conversation_id) noexcept {
    CCCB *cccb = nullptr;
    GCB *gcb = pGCB;
    SCC_find_cccb(conversation_id, &cccb, &gcb);
    return cccb;
  }

  // Answers an unknown conversation ID: problem 0x20030005 with the call's
  // probe and the 8 bytes of the ID, return code 24.
  void unknown(const unsigned char *conversation_id, uint32_t probe) const {
    nba_pd_print_problem(kProblemUnknownConversation, probe, "ba", 8u, conversation_id);
    *return_code_ = CM_PROGRAM_PARAMETER_CHECK;
  }

  // lookup() and, when nothing is found, unknown().
  CCCB *find(const unsigned char *conversation_id, uint32_t probe) const {
    CCCB *cccb = lookup(conversation_id);
    if (cccb == nullptr) unknown(conversation_id, probe);
    return cccb;
  }

 private:
  uint16_t token_;
  uint16_t verb_;
  CM_RETURN_CODE *return_code_;
};
