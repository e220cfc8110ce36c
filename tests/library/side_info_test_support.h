// Shared set-up of the side-information, CMINIT, context and CMTERM tests: a
// scripted node (NOF and APPC verbs), node records, and an EBCDIC oracle for
// the characters these tests use, written independently of the library's
// conversion tables.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "internal.h"
#include "snanode/snanode_test.h"

namespace side_info_test {

// EBCDIC of A-Z, 0-9, blank, period: enough for the names used here.
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

inline SNT_RECORD problem(uint32_t n) {
  SNT_RECORD r{};
  EXPECT_TRUE(snt_problem(n, &r)) << "no problem record " << n;
  return r;
}

// A node that answers from scripts only: unscripted queries find nothing,
// unscripted APPC verbs succeed at once.
class ScriptedNode : public ::testing::Test {
 protected:
  void SetUp() override { fresh_node(); }

  // Forgets scripts, counters and records; the library's state stays.
  static void fresh_node() {
    snt_reset();
    snt_script_nof(1);
    snt_script_verbs(1);
  }
  void TearDown() override { snt_reset(); }

  // Starts the library without asking the node for anything.
  static void start_library() {
    SCD_ENTRY none{};
    ASSERT_EQ(SCD_main(0, &none), CM_OK);
    ASSERT_EQ(fInitCPIC, 1);
  }
};

// A conversation made by CMINIT (blank name) and placed in a context as if
// it had been allocated there: TpId `context` (all eight bytes), node
// conversation id `appc_id` (0: not yet in the node), local LU `lu`.
inline CCCB *conversation_in(unsigned char context, uint32_t appc_id, const char *lu,
                             unsigned char *id_out) {
  CM_RETURN_CODE rc = -1;
  unsigned char blank[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  cminit(id_out, blank, &rc);
  EXPECT_EQ(rc, CM_OK);
  CCCB *cccb = nullptr;
  GCB *gcb = pGCB;
  SCC_find_cccb(id_out, &cccb, &gcb);
  if (cccb == nullptr) return nullptr;
  std::memset(cccb->TpId, context, sizeof cccb->TpId);
  cccb->ulAppcConvId = appc_id;
  std::memset(cccb->LocalLUName, 0, 8);
  std::memcpy(cccb->LocalLUName, lu, std::strlen(lu));
  return cccb;
}

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

}  // namespace side_info_test
