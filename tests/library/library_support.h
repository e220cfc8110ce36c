// Shared by the library tests: a fresh scripted node per test, the process
// lock, conversations made straight in the library's tables, checks of the
// verb records the node was handed, readers of the node's problem, audit and
// assertion records, and an EBCDIC oracle for the names the tests use.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "call_frame.h"
#include "internal.h"
#include "snanode/snanode_test.h"
#include "trace_verbs.h"

namespace lib_test {

// Holds the process lock for a scope, as a CPI-C call would.
class Locked {
 public:
  Locked() : token_(vpm_lock()) {}
  ~Locked() { vpm_unlock(token_); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;

 private:
  uint16_t token_;
};

// Completion routine for verbs the tests submit directly: the common steps
// every verb's routine runs, counted so tests see how it was called.
inline int g_routine_calls = 0;
inline uintptr_t g_last_correlator = 99;
extern "C" inline void test_completion(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  ++g_routine_calls;
  g_last_correlator = correlator;
  auto *cccb = static_cast<CCCB *>(vcb);
  SCC_complete_result(cccb);
  if (correlator != 0) SCC_complete_async(cccb);
}

// ---- the node's scripts and records ----

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

inline void push_script(uint16_t opcode, uint16_t primary = AP_OK, uint32_t secondary = 0,
                        int later = 0) {
  push(script(opcode, primary, secondary, later));
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

inline SNT_RECORD problem(uint32_t n) {
  SNT_RECORD record{};
  EXPECT_EQ(snt_problem(n, &record), 1) << "no problem record " << n;
  return record;
}

inline SNT_RECORD audit(uint32_t n) {
  SNT_RECORD record{};
  EXPECT_NE(snt_audit(n, &record), 0) << "no audit record " << n;
  return record;
}

// The n-th assertion as "source unit: expression".
inline std::string assertion(uint32_t n) {
  char file[128] = {};
  char expression[256] = {};
  if (snt_assertion(n, file, sizeof file, expression, sizeof expression) == 0) return "<none>";
  return std::string(file) + ": " + expression;
}

inline void suppress_audit_records() {
  ptrc[SNANODE_TRACE_NO_AUDIT_BYTE] |= SNANODE_TRACE_NO_AUDIT_BIT;
}

// ---- conversations ----

using Vcb = std::array<uint8_t, NAP_VCB_SIZE>;
using ConvId = std::array<unsigned char, 8>;

inline constexpr uint32_t kNodeConvId = 0x00A1B2C3;
inline constexpr unsigned char kTpId[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
inline constexpr unsigned char kBlankName[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

struct Conversation {
  unsigned char id[8] = {};
  CCCB *cccb = nullptr;
};

// Each test starts with a node that answers verbs from scripts only
// (unscripted verbs succeed at once) and no environment overrides.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("APPCLLU");
    unsetenv("APPCTPN");
    snt_reset();
    snt_script_verbs(1);
    g_routine_calls = 0;
    g_last_correlator = 99;
  }

  static void start() {
    Locked lock;
    SCC_init();
    ASSERT_EQ(fInitCPIC, 1);
  }

  static Conversation make_conversation() {
    Locked lock;
    Conversation c;
    EXPECT_EQ(SCC_cccb_init(c.id, &c.cccb), 1);
    return c;
  }

  // Builds a verb in the conversation's verb area and submits it the way a
  // conversation call does.
  static CM_RETURN_CODE submit(Conversation &c, uint16_t opcode, uint16_t trace_verb = 10) {
    Locked lock;
    SCC_vcb_init(c.cccb, opcode);
    SCC_set_completion_info(c.cccb, trace_verb, c.id);
    return SCC_submit_conversation_verb(c.cccb, test_completion);
  }

  static bool known(const unsigned char *id) {
    Locked lock;
    return CallFrame::lookup(id) != nullptr;
  }
};
using CoreTest = LibraryTest;
using VerbsTest = LibraryTest;

// Adds NOF scripting: unscripted side-information queries find nothing.
class ScriptedNode : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    snt_script_nof(1);
  }
  void TearDown() override { snt_reset(); }

  // Forgets scripts, counters and records; the library's state stays.
  static void fresh_node() {
    snt_reset();
    snt_script_nof(1);
    snt_script_verbs(1);
  }

  // Starts the library without asking the node for anything.
  static void start_library() {
    SCD_ENTRY none{};
    ASSERT_EQ(SCD_main(0, &none), CM_OK);
    ASSERT_EQ(fInitCPIC, 1);
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
inline CCCB *cccb_of(const unsigned char *id) {
  Locked lock;
  CCCB *cccb = nullptr;
  GCB *gcb = pGCB;
  SCC_find_cccb(id, &cccb, &gcb);
  return cccb;
}
inline CCCB *cccb_of(const ConvId &id) {
  return cccb_of(id.data());
}

// Starts the library as the first creating call would.
inline void start_library() {
  Locked lock;
  if (fInitCPIC == 0) SCC_init();
}

// A conversation in Initialize state, made by CMINIT with a blank symbolic
// destination name (default characteristics, no side-information lookup).
inline CCCB *initialized_conversation(unsigned char *id) {
  CM_RETURN_CODE rc = -1;
  cminit(id, const_cast<unsigned char *>(kBlankName), &rc);
  EXPECT_EQ(rc, CM_OK);
  return cccb_of(id);
}
inline CCCB *initialized_conversation(ConvId &id) {
  return initialized_conversation(id.data());
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

// A conversation made by CMINIT (blank name) and placed in a context as if
// it had been allocated there: TpId `context` (all eight bytes), node
// conversation id `appc_id` (0: not yet in the node), local LU `lu`.
inline CCCB *conversation_in(unsigned char context, uint32_t appc_id, const char *lu,
                             unsigned char *id_out) {
  CCCB *cccb = initialized_conversation(id_out);
  if (cccb == nullptr) return nullptr;
  std::memset(cccb->TpId, context, sizeof cccb->TpId);
  cccb->ulAppcConvId = appc_id;
  std::memset(cccb->LocalLUName, 0, 8);
  std::memcpy(cccb->LocalLUName, lu, std::strlen(lu));
  return cccb;
}

// A block of the library's long-lived memory, as the library makes its own
// copies (log data, table entries).
inline unsigned char *kept_block(size_t size) {
  return static_cast<unsigned char *>(
      nba_mm_alloc(static_cast<uint32_t>(size), kMemKept, nba_blank_name, 0, 0));
}

// ---- verb records ----

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

// ---- completions ----

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

// ---- names and side information ----

// EBCDIC of A-Z, 0-9, blank, period, written independently of the library's
// conversion tables: enough for the names used here.
inline unsigned char ebcdic(char c) {
  if (c >= 'A' && c <= 'I') return static_cast<unsigned char>(0xC1 + (c - 'A'));
  if (c >= 'J' && c <= 'R') return static_cast<unsigned char>(0xD1 + (c - 'J'));
  if (c >= 'S' && c <= 'Z') return static_cast<unsigned char>(0xE2 + (c - 'S'));
  if (c >= '0' && c <= '9') return static_cast<unsigned char>(0xF0 + (c - '0'));
  if (c == '.') return 0x4B;
  if (c == ' ') return 0x40;
  ADD_FAILURE() << "no EBCDIC oracle for '" << c << "'";
  return 0;
}

// `text` in EBCDIC, padded with X'40' to `size` bytes.
inline std::vector<unsigned char> ebcdic_field(const std::string &text, size_t size) {
  std::vector<unsigned char> out(size, 0x40);
  for (size_t i = 0; i < text.size() && i < size; ++i) out[i] = ebcdic(text[i]);
  return out;
}

inline std::string text_of(const unsigned char *data, size_t size) {
  return std::string(reinterpret_cast<const char *>(data), size);
}

inline std::vector<unsigned char> bytes(const unsigned char *data, size_t size) {
  return std::vector<unsigned char>(data, data + size);
}

// `text` padded with ASCII blanks to `size` bytes.
inline void put(unsigned char *field, size_t size, const std::string &text) {
  std::memset(field, ' ', size);
  std::memcpy(field, text.data(), std::min(size, text.size()));
}

inline std::string padded(const std::string &text, size_t size) {
  std::string out = text;
  out.resize(size, ' ');
  return out;
}

struct NodeEntry {
  std::string name = "NODEDEST";
  std::string partner = "NET1.LU1";
  uint32_t tp_name_type = 0;
  std::string tp_name = "PAYROLL";
  std::string mode = "#INTER";
  uint32_t security = 2;
  std::string user = "CLERK";
  std::string password = "SECRET";
  std::string local_lu;  // empty: eight zero bytes
};

inline NOF_SIDE_INFO_DATA node_record(const NodeEntry &e) {
  NOF_SIDE_INFO_DATA r{};
  r.overlay_size = sizeof r;
  put(r.sym_dest_name, 8, e.name);
  put(r.partner_lu_name, 17, e.partner);
  r.tp_name_type = e.tp_name_type;
  put(r.tp_name, 64, e.tp_name);
  put(r.mode_name, 8, e.mode);
  r.conversation_security_type = e.security;
  put(r.security_user_id, 10, e.user);
  put(r.security_password, 10, e.password);
  if (!e.local_lu.empty()) put(r.lu_alias, 8, e.local_lu);
  return r;
}

// Queues the node's answer "I hold this entry" for the next query.
inline void node_holds(const NodeEntry &e) {
  SNT_NOF_SCRIPT script{};
  script.opcode = NOF_QUERY_SIDE_INFO_OPCODE;
  const NOF_SIDE_INFO_DATA record = node_record(e);
  std::memcpy(script.record, &record, sizeof record);
  snt_push_nof_script(&script);
}

inline void node_answers(uint16_t opcode, uint16_t primary, uint32_t secondary) {
  SNT_NOF_SCRIPT script{};
  script.opcode = opcode;
  script.primary_rc = primary;
  script.secondary_rc = secondary;
  snt_push_nof_script(&script);
}

inline std::vector<uint16_t> nof_opcodes() {
  std::vector<uint16_t> out;
  for (uint32_t i = 0; i < snt_nof_count(); ++i) out.push_back(snt_nof_opcode(i));
  return out;
}

inline const std::vector<uint16_t> kAskedNode = {NOF_OPEN_OPCODE, NOF_QUERY_SIDE_INFO_OPCODE,
                                                 NOF_CLOSE_OPCODE};

inline CM_RETURN_CODE extract_context(const unsigned char *id, unsigned char *context,
                                      CM_INT32 *length) {
  CM_RETURN_CODE rc = -1;
  cmectx(const_cast<unsigned char *>(id), context, length, &rc);
  return rc;
}

inline SCD_ENTRY named(const std::string &name) {
  SCD_ENTRY e{};
  std::memcpy(e.sym_dest_name, padded(name, 8).data(), 8);
  return e;
}

}  // namespace lib_test
