// Shared by the library tests.  Each test file is a test program of its own
// and each test case runs as a process of its own, so the library's
// process-wide state is fresh in every case.  Here: a fixture with a scripted
// node, the process lock, conversations made in the library's tables, checks
// of the verb records the node was handed and of its problem, audit and
// assertion records, an EBCDIC oracle, and side-information entries for the
// node to hold.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "call_frame.h"
#include "internal.h"
#include "side_info.h"
#include "snanode/snanode_test.h"
#include "trace_verbs.h"

namespace lib_test {

using Vcb = std::array<uint8_t, NAP_VCB_SIZE>;
using ConvId = std::array<unsigned char, 8>;
using Bytes = std::vector<unsigned char>;

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

// ---- the node's scripts and records ----

// Queues the node's answer to the next verb with `opcode` (0: any verb).
inline void push(uint16_t opcode, uint16_t primary = AP_OK, uint32_t secondary = 0, int later = 0,
                 SNT_FILL fill = nullptr, void *context = nullptr) {
  const SNT_VERB_SCRIPT s{opcode, primary, secondary, later, fill, context};
  snt_push_verb_script(&s);
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

// Every problem record as {code, probe}.
using Probes = std::vector<std::pair<uint32_t, uint32_t>>;
inline Probes problems() {
  Probes out;
  for (uint32_t n = 0; n < snt_problem_count(); ++n) {
    out.emplace_back(problem(n).code, problem(n).probe);
  }
  return out;
}

// Every assertion as "source unit: expression".
inline std::vector<std::string> assertions() {
  std::vector<std::string> out;
  for (uint32_t n = 0; n < snt_assert_count(); ++n) {
    char file[128] = {}, expression[256] = {};
    snt_assertion(n, file, sizeof file, expression, sizeof expression);
    out.push_back(std::string(file) + ": " + expression);
  }
  return out;
}

inline void suppress_audit_records() {
  ptrc[SNANODE_TRACE_NO_AUDIT_BYTE] |= SNANODE_TRACE_NO_AUDIT_BIT;
}

// ---- conversations ----

inline constexpr uint32_t kNodeConvId = 0x00A1B2C3;
inline constexpr unsigned char kTpId[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
inline constexpr unsigned char kNoTp[8] = {};  // a record outside any context
inline constexpr ConvId kUnknownId = {0x77, 0x66, 0x55, 0x44, 0, 0, 0, 0};

// Each test starts with a node that answers APPC verbs and NOF queries from
// scripts only (an unscripted verb succeeds at once, an unscripted query
// finds nothing) and with no environment overrides.
// Forgets scripts, counters and records; the library's state stays.
inline void fresh_node() {
  snt_reset();
  snt_script_verbs(1);
  snt_script_nof(1);
}
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("APPCLLU");
    unsetenv("APPCTPN");
    fresh_node();
  }
};

// The library's record of a conversation, or null when the ID is unknown.
inline CCCB *cccb_of(const ConvId &id) {
  Locked lock;
  CCCB *cccb = nullptr;
  GCB *gcb = pGCB;
  SCC_find_cccb(id.data(), &cccb, &gcb);
  return cccb;
}
inline bool known(const ConvId &id) {
  return cccb_of(id) != nullptr;
}

// Starts the library as the first creating call would.
inline void start_library() {
  Locked lock;
  if (fInitCPIC == 0) SCC_init();
  ASSERT_EQ(fInitCPIC, 1);
}

// A LibraryTest whose cases begin with the library started.
class StartedLibraryTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    start_library();
  }
};

// A record straight from the control-block routine.
inline CCCB *new_cccb(ConvId &id) {
  Locked lock;
  CCCB *cccb = nullptr;
  EXPECT_EQ(SCC_cccb_init(id.data(), &cccb), 1);
  return cccb;
}

// A conversation in Initialize state, made by CMINIT with a blank symbolic
// destination name (default characteristics, no side-information lookup).
inline CCCB *initialized_conversation(ConvId &id) {
  unsigned char blank[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  CM_RETURN_CODE rc = -1;
  cminit(id.data(), blank, &rc);
  EXPECT_EQ(rc, CM_OK);
  return cccb_of(id);
}

// A conversation the node knows (as after a successful allocate).
inline CCCB *active_conversation(ConvId &id, uint32_t conversation_type = CM_MAPPED_CONVERSATION,
                                 uint16_t processing_mode = 0) {
  CCCB *cccb = initialized_conversation(id);
  cccb->ulAppcConvId = kNodeConvId;
  SCC_set_tp_id(cccb, kTpId);
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

// A block of the library's long-lived memory, as it makes its own copies.
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
inline std::vector<uint16_t> submitted_opcodes(uint32_t from = 0) {
  std::vector<uint16_t> out;
  for (uint32_t i = from; i < snt_submitted_count(); ++i) out.push_back(snt_submitted_opcode(i));
  return out;
}

// One field of a verb record: its offset and its expected bytes.
struct Field {
  size_t offset;
  std::vector<uint8_t> bytes;
};
inline std::vector<uint8_t> raw(const void *p, size_t n) {
  const auto *b = static_cast<const uint8_t *>(p);
  return {b, b + n};
}
inline const auto u8 = [](uint8_t v) { return raw(&v, sizeof v); };
inline const auto u16 = [](uint16_t v) { return raw(&v, sizeof v); };
inline const auto u32 = [](uint32_t v) { return raw(&v, sizeof v); };
inline const auto ptr = [](const void *v) { return raw(&v, sizeof v); };
inline std::vector<Field> operator+(std::vector<Field> a, const std::vector<Field> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The common header of a conversation verb on an active_conversation().
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
      EXPECT_EQ(vcb[field.offset + i], field.bytes[i]) << what << ": byte " << field.offset + i;
    }
  }
  for (size_t i = 0; i < vcb.size(); ++i) {
    if (!listed[i]) {
      EXPECT_EQ(vcb[i], 0) << what << ": unlisted byte " << i;
    }
  }
}

// ---- completions ----

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

// EBCDIC of A-Z, 0-9, blank and period, written independently of the
// library's conversion tables.
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
inline Bytes ebcdic_field(const std::string &text, size_t size) {
  Bytes out(size, 0x40);
  for (size_t i = 0; i < text.size() && i < size; ++i) out[i] = ebcdic(text[i]);
  return out;
}

inline std::string text_of(const void *data, size_t size) {
  return std::string(static_cast<const char *>(data), size);
}
inline Bytes bytes(const void *data, size_t size) {
  const auto *b = static_cast<const unsigned char *>(data);
  return Bytes(b, b + size);
}
inline std::string padded(const std::string &text, size_t size, char fill = ' ') {
  std::string out = text;
  out.resize(size, fill);
  return out;
}

// An entry of the node's side information (ASCII, blank padded).
struct NodeEntry {
  std::string name = "NODEDEST", partner = "NET1.LU1";
  uint32_t tp_name_type = 0;
  std::string tp_name = "PAYROLL", mode = "#INTER";
  uint32_t security = 2;
  std::string user = "CLERK", password = "SECRET";
  std::string local_lu{};  // empty: eight zero bytes
};
inline NOF_SIDE_INFO_DATA node_record(const NodeEntry &e) {
  NOF_SIDE_INFO_DATA r{};
  auto put = [](unsigned char *field, size_t size, const std::string &text) {
    std::memcpy(field, padded(text, size).data(), size);
  };
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

// Queues the node's answer to the next NOF verb with `opcode`: a result, or
// for a query "I hold this entry".
inline void node_answers(uint16_t opcode, uint16_t primary, uint32_t secondary) {
  SNT_NOF_SCRIPT script{};
  script.opcode = opcode;
  script.primary_rc = primary;
  script.secondary_rc = secondary;
  snt_push_nof_script(&script);
}
inline void node_holds(const NodeEntry &e) {
  SNT_NOF_SCRIPT script{};
  script.opcode = NOF_QUERY_SIDE_INFO_OPCODE;
  const NOF_SIDE_INFO_DATA record = node_record(e);
  std::memcpy(script.record, &record, sizeof record);
  snt_push_nof_script(&script);
}
inline std::vector<uint16_t> nof_opcodes() {
  std::vector<uint16_t> out;
  for (uint32_t i = 0; i < snt_nof_count(); ++i) out.push_back(snt_nof_opcode(i));
  return out;
}
inline const std::vector<uint16_t> kAskedNode = {NOF_OPEN_OPCODE, NOF_QUERY_SIDE_INFO_OPCODE,
                                                 NOF_CLOSE_OPCODE};

inline SCD_ENTRY named(const std::string &name) {
  SCD_ENTRY e{};
  std::memcpy(e.sym_dest_name, padded(name, 8).data(), 8);
  return e;
}

// ---- calls ----

// Makes a call whose last parameter is its return code, and returns that.
template <typename F, typename... Args>
CM_RETURN_CODE rc_call(F call, Args... args) {
  CM_RETURN_CODE rc = -1;
  call(args..., &rc);
  return rc;
}
// Adapts a call taking (ID, ..., return code) to one returning its code.
template <typename F>
std::function<CM_RETURN_CODE(ConvId &)> rc_of(F call) {
  return [call](ConvId &id) {
    CM_RETURN_CODE rc = -1;
    call(id.data(), &rc);
    return rc;
  };
}

// Calls that take a text and its length (a name, log data, a user ID or a
// password): setting one, and extracting one into a buffer that starts filled
// with '~' and a length of -7, so that what the call did not write shows.
using TextCall = void (*)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *);
inline CM_RETURN_CODE set_text(TextCall fn, ConvId &id, std::string text, CM_INT32 length) {
  CM_RETURN_CODE rc = -1;
  fn(id.data(), reinterpret_cast<unsigned char *>(text.data()), &length, &rc);
  return rc;
}
inline CM_RETURN_CODE set_text(TextCall fn, ConvId &id, const std::string &text) {
  return set_text(fn, id, text, static_cast<CM_INT32>(text.size()));
}
struct Extracted {
  CM_RETURN_CODE rc = -1;
  std::string text;
  CM_INT32 length = -7;
};
inline std::tuple<CM_RETURN_CODE, std::string, CM_INT32> fields(const Extracted &e) {
  return {e.rc, e.text, e.length};
}
inline Extracted extract_text(TextCall fn, ConvId &id, size_t buffer_size = 80) {
  Extracted out;
  out.text.assign(buffer_size, '~');
  fn(id.data(), reinterpret_cast<unsigned char *>(out.text.data()), &out.length, &out.rc);
  return out;
}

}  // namespace lib_test
