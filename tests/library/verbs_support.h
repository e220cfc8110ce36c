// Shared by the conversation-verb tests: a scripted node, conversations made
// straight in the library's tables, and checks of submitted verb records.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "core_support.h"
#include "internal.h"
#include "trace_verbs.h"
#include "snanode/snanode_test.h"

namespace verbs_test {

using core_test::Locked;
using core_test::problem;

using Vcb = std::array<uint8_t, NAP_VCB_SIZE>;
using ConvId = std::array<unsigned char, 8>;

inline constexpr uint32_t kNodeConvId = 0x00A1B2C3;
inline constexpr unsigned char kTpId[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};

class VerbsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("APPCLLU");
    unsetenv("APPCTPN");
    snt_reset();
    snt_script_verbs(1);
  }
};

// Starts a loop iteration afresh: lets the node finish what is pending, drops
// every conversation (without ending TPs at the node) and clears the node's
// scripts and records.
inline void restart_node() {
  while (snt_pending_count() > 0) snt_complete_pending(0);
  if (fInitCPIC != 0) {
    Locked lock;
    void *pointer = nullptr;
    for (uint32_t h = vtm_get_next_used(pGCB->CCCBTable, 0, &pointer); h != NB_NULL_HANDLE;
         h = vtm_get_next_used(pGCB->CCCBTable, h, &pointer)) {
      auto *cccb = static_cast<CCCB *>(pointer);
      std::memset(cccb->TpId, 0, sizeof cccb->TpId);
      SCC_free_cccb(cccb);
    }
  }
  snt_reset();
  snt_script_verbs(1);
}

// The library's own record of a conversation, or null when the ID is unknown.
inline CCCB *cccb_of(const ConvId &id) {
  Locked lock;
  CCCB *cccb = nullptr;
  GCB *gcb = pGCB;
  SCC_find_cccb(id.data(), &cccb, &gcb);
  return cccb;
}

// Starts the library as the first creating call would.
inline void start_library() {
  Locked lock;
  if (fInitCPIC == 0) SCC_init();
}

// A conversation in Initialize state, made by CMINIT with a blank symbolic
// destination name (default characteristics, no side-information lookup).
inline CCCB *initialized_conversation(ConvId &id) {
  unsigned char blank_name[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  CM_RETURN_CODE rc = -1;
  cminit(id.data(), blank_name, &rc);
  EXPECT_EQ(rc, CM_OK);
  return cccb_of(id);
}

// A conversation the node knows (as after a successful allocate).
inline CCCB *active_conversation(ConvId &id, uint32_t conversation_type = CM_MAPPED_CONVERSATION,
                                 uint16_t processing_mode = 0) {
  CCCB *cccb = initialized_conversation(id);
  cccb->ulAppcConvId = kNodeConvId;
  std::memcpy(cccb->TpId, kTpId, sizeof kTpId);
  cccb->ulConversationType = conversation_type;
  cccb->usProcessingMode = processing_mode;
  return cccb;
}

// A record made for an incoming conversation that has not accepted yet.
inline CCCB *incoming_conversation(ConvId &id) {
  CCCB *cccb = initialized_conversation(id);
  cccb->fInitializeState = 0;
  return cccb;
}

inline Vcb submitted(uint32_t n) {
  Vcb vcb{};
  EXPECT_NE(snt_submitted_vcb(n, vcb.data(), vcb.size()), 0) << "no submitted verb " << n;
  return vcb;
}

inline Vcb last_submitted() {
  return submitted(snt_submitted_count() - 1);
}

// One field of a verb record: its offset and its expected bytes.
struct Field {
  size_t offset;
  std::vector<uint8_t> bytes;
};

template <typename T>
std::vector<uint8_t> bytes_of(const T &value) {
  std::vector<uint8_t> out(sizeof value);
  std::memcpy(out.data(), &value, sizeof value);
  return out;
}
inline std::vector<uint8_t> u8(uint8_t v) {
  return {v};
}
inline std::vector<uint8_t> u16(uint16_t v) {
  return bytes_of(v);
}
inline std::vector<uint8_t> u32(uint32_t v) {
  return bytes_of(v);
}
inline std::vector<uint8_t> ptr(const void *p) {
  return bytes_of(p);
}
inline std::vector<uint8_t> raw(const void *p, size_t n) {
  const auto *b = static_cast<const uint8_t *>(p);
  return {b, b + n};
}

// The common header of a conversation verb on the conversation of
// active_conversation().
inline std::vector<Field> header(uint16_t opcode, uint8_t opext) {
  return {{0, u16(opcode)}, {2, u8(opext)}, {12, raw(kTpId, 8)}, {20, u32(kNodeConvId)}};
}

// Checks every listed field and that every other byte is zero.
inline void expect_record(const Vcb &vcb, const std::vector<Field> &fields,
                          const std::string &what) {
  std::array<bool, NAP_VCB_SIZE> listed{};
  for (const Field &field : fields) {
    for (size_t i = 0; i < field.bytes.size(); ++i) {
      listed[field.offset + i] = true;
      EXPECT_EQ(vcb[field.offset + i], field.bytes[i])
          << what << ": byte " << field.offset + i << " of field at " << field.offset;
    }
  }
  for (size_t i = 0; i < vcb.size(); ++i) {
    if (!listed[i]) {
      EXPECT_EQ(vcb[i], 0) << what << ": unlisted byte " << i;
    }
  }
}

inline std::vector<Field> operator+(std::vector<Field> a, const std::vector<Field> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline SNT_VERB_SCRIPT script(uint16_t opcode, uint16_t primary = AP_OK, uint32_t secondary = 0,
                              int later = 0, SNT_FILL fill = nullptr, void *context = nullptr) {
  SNT_VERB_SCRIPT s{};
  s.opcode = opcode;
  s.primary_rc = primary;
  s.secondary_rc = secondary;
  s.complete_later = later;
  s.fill = fill;
  s.context = context;
  return s;
}

inline void push(const SNT_VERB_SCRIPT &s) {
  snt_push_verb_script(&s);
}

// Writes one byte at a fixed offset of the completing verb; the context is a
// pair {offset, value} packed into a uintptr_t.
inline void fill_byte(void *vcb, void *context) {
  const auto packed = reinterpret_cast<uintptr_t>(context);
  static_cast<uint8_t *>(vcb)[packed >> 8] = static_cast<uint8_t>(packed & 0xFF);
}
inline void *byte_at(size_t offset, uint8_t value) {
  return reinterpret_cast<void *>((offset << 8) | value);
}

inline SNT_RECORD audit(uint32_t n) {
  SNT_RECORD record{};
  EXPECT_NE(snt_audit(n, &record), 0) << "no audit record " << n;
  return record;
}

inline std::string assertion(uint32_t n) {
  char file[128] = {};
  char expression[256] = {};
  EXPECT_NE(snt_assertion(n, file, sizeof file, expression, sizeof expression), 0);
  return std::string(file) + ": " + expression;
}

// One completion collected with CMWAIT.
struct Waited {
  ConvId id{};
  CM_RETURN_CODE conversation_rc = -1;
  CM_RETURN_CODE rc = -1;
};

inline Waited wait_one() {
  Waited w;
  cmwait(w.id.data(), &w.conversation_rc, &w.rc);
  return w;
}

// CMWAIT reports `id` with `conversation_rc`.
inline void expect_completion(const ConvId &id, CM_RETURN_CODE conversation_rc,
                              const std::string &what = "") {
  const Waited w = wait_one();
  EXPECT_EQ(w.rc, CM_OK) << what;
  EXPECT_EQ(w.id, id) << what;
  EXPECT_EQ(w.conversation_rc, conversation_rc) << what;
}

inline void suppress_audit_records() {
  ptrc[SNANODE_TRACE_NO_AUDIT_BYTE] |= SNANODE_TRACE_NO_AUDIT_BIT;
}

}  // namespace verbs_test
