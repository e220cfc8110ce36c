// CMINIT: a conversation in Initialize state, with or without side
// information, and the choice of its local LU.
#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

struct Init {
  unsigned char id[8];
  CM_RETURN_CODE rc;
};

Init init(const std::string &name) {
  Init r;
  std::memset(r.id, 0xAB, sizeof r.id);
  r.rc = -1;
  std::string sym = padded(name, 8);
  cminit(r.id, reinterpret_cast<unsigned char *>(sym.data()), &r.rc);
  return r;
}

CCCB *cccb_of(const unsigned char *id) {
  CCCB *cccb = nullptr;
  GCB *gcb = pGCB;
  SCC_find_cccb(id, &cccb, &gcb);
  return cccb;
}

std::string local_lu(const CCCB *cccb) {
  return std::string(reinterpret_cast<const char *>(cccb->LocalLUName), 8);
}

class Cminit : public ScriptedNode {};

TEST_F(Cminit, ABlankFirstByteMeansNoSideInformation) {
  for (const char *name : {"", " XYZ"}) {
    SCOPED_TRACE(name);
    const Init r = init(name);
    ASSERT_EQ(r.rc, CM_OK);
    EXPECT_EQ(snt_nof_count(), 0u);
    const CCCB *cccb = cccb_of(r.id);
    ASSERT_NE(cccb, nullptr);
    EXPECT_EQ(cccb->fInitializeState, 1);
    EXPECT_EQ(cccb->ulAppcConvId, 0u);
    EXPECT_EQ(text_of(cccb->SideInfo.sym_dest_name, 8), padded(name, 8));
    EXPECT_EQ(bytes(cccb->SideInfo.partner_LU_name, 17), std::vector<unsigned char>(17, ' '));
    EXPECT_EQ(bytes(cccb->SideInfo.mode_name, 8), std::vector<unsigned char>(8, 0x40));
    EXPECT_EQ(bytes(cccb->SideInfo.TP_name, 64), std::vector<unsigned char>(64, 0x40));
    EXPECT_EQ(cccb->SideInfo.TP_name_type, static_cast<uint32_t>(CM_APPLICATION_TP));
    EXPECT_EQ(cccb->SideInfo.conversation_security_type, static_cast<uint32_t>(CM_SECURITY_SAME));
    EXPECT_EQ(cccb->ulConversationType, static_cast<uint32_t>(CM_MAPPED_CONVERSATION));
    EXPECT_EQ(local_lu(cccb), std::string(8, '\0'));
  }
}

TEST_F(Cminit, ANodeHeldNameFillsTheSideInformation) {
  NodeEntry node;
  node.name = "PAYDEST";
  node.local_lu = "BILLING";
  node_holds(node);
  const Init r = init("PAYDEST");
  ASSERT_EQ(r.rc, CM_OK);
  EXPECT_EQ(nof_opcodes(), kAskedNode);
  const CCCB *cccb = cccb_of(r.id);
  ASSERT_NE(cccb, nullptr);
  EXPECT_EQ(bytes(cccb->SideInfo.partner_LU_name, 17), ebcdic_field("NET1.LU1", 17));
  EXPECT_EQ(bytes(cccb->SideInfo.TP_name, 64), ebcdic_field("PAYROLL", 64));
  EXPECT_EQ(cccb->SideInfo.conversation_security_type, 2u);
  EXPECT_EQ(local_lu(cccb), "BILLING ");
}

TEST_F(Cminit, AnUnknownOrDeletedNameGives24AndAnIdNobodyKnows) {
  NodeEntry node;
  node.name = "GONE";
  node_holds(node);
  SCD_ENTRY gone = named("GONE");
  ASSERT_EQ(SCD_main(SCD_DELETE, &gone), CM_OK);

  struct {
    const char *name;
    uint32_t node_verbs;
  } const cases[] = {{"UNKNOWN", 3}, {"GONE", 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    fresh_node();
    const Init r = init(c.name);
    EXPECT_EQ(r.rc, CM_PROGRAM_PARAMETER_CHECK);
    EXPECT_EQ(snt_nof_count(), c.node_verbs);
    ASSERT_EQ(snt_audit_count(), 1u);
    SNT_RECORD audit{};
    ASSERT_TRUE(snt_audit(0, &audit));
    EXPECT_EQ(audit.code, kAuditSymDestNotFound);
    EXPECT_EQ(audit.probe, 0u);
    EXPECT_STREQ(audit.arg_types, "s");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(audit.bytes[0]), 8), padded(c.name, 8));
    EXPECT_EQ(cccb_of(r.id), nullptr);

    // The next call refuses the ID.
    unsigned char context[8];
    CM_INT32 length = 0;
    CM_RETURN_CODE rc = -1;
    cmectx(const_cast<unsigned char *>(r.id), context, &length, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
    ASSERT_EQ(snt_problem_count(), 1u);
    EXPECT_EQ(problem(0).code, kProblemUnknownConversation);
  }

  // With audit records suppressed the failure is the same, silently.
  fresh_node();
  ptrc[SNANODE_TRACE_NO_AUDIT_BYTE] |= SNANODE_TRACE_NO_AUDIT_BIT;
  EXPECT_EQ(init("UNKNOWN").rc, CM_PROGRAM_PARAMETER_CHECK);
  ptrc[SNANODE_TRACE_NO_AUDIT_BYTE] &= static_cast<unsigned char>(~SNANODE_TRACE_NO_AUDIT_BIT);
  EXPECT_EQ(snt_audit_count(), 0u);
}

TEST_F(Cminit, LocalLuPrecedence) {
  struct {
    const char *what;
    const char *side_info_lu;  // nullptr: blank name, no lookup
    const char *env;           // APPCLLU as the library holds it
    bool context;              // a current context whose LU is CTXLU
    const char *expected;
  } const cases[] = {
      {"nothing", nullptr, "", false, ""},
      {"side information", "SIALIAS", "", false, "SIALIAS"},
      {"APPCLLU over side information", "SIALIAS", "ENVLU", false, "ENVLU"},
      {"APPCLLU alone", nullptr, "ENVLU", false, "ENVLU"},
      {"context over APPCLLU when side information names none", "", "ENVLU", true, "CTXLU"},
      {"context, no lookup", nullptr, "ENVLU", true, "CTXLU"},
      {"APPCLLU over side information with a context", "SIALIAS", "ENVLU", true, "ENVLU"},
      {"side information with a context", "SIALIAS", "", true, "SIALIAS"},
  };
  start_library();
  int n = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    std::memset(pGCB->EnvLUAlias, 0, 8);
    std::memcpy(pGCB->EnvLUAlias, c.env, std::strlen(c.env));
    std::memset(pGCB->CurrentContext, 0, 8);
    std::memset(pGCB->CurrentContextLU, 0, 8);
    if (c.context) {
      pGCB->CurrentContext[0] = 0x77;
      std::memcpy(pGCB->CurrentContextLU, "CTXLU", 5);
    }
    std::string name;
    if (c.side_info_lu != nullptr) {
      NodeEntry node;
      node.name = name = "LU" + std::to_string(n++);
      node.local_lu = c.side_info_lu;
      node_holds(node);
    }
    const Init r = init(name);
    ASSERT_EQ(r.rc, CM_OK);
    std::string expected(8, '\0');
    std::memcpy(expected.data(), c.expected, std::strlen(c.expected));
    if (c.side_info_lu != nullptr && std::string(c.expected) == c.side_info_lu) {
      expected = padded(c.expected, 8);  // the node's alias arrives blank padded
    }
    EXPECT_EQ(local_lu(cccb_of(r.id)), expected);
  }
}

TEST_F(Cminit, FailedStartOrStorageGives20AndLeavesTheIdAlone) {
  struct {
    const char *what;
    void (*inject)(uint32_t);
  } const cases[] = {
      {"library cannot start", snt_fail_table_inits},
      {"no memory for the CCCB", snt_fail_allocations},
      {"no handle for the CCCB", snt_fail_table_inserts},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    c.inject(1);
    const Init failed = init("");
    EXPECT_EQ(failed.rc, CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_EQ(bytes(failed.id, 8), std::vector<unsigned char>(8, 0xAB));
    // The next CMINIT (for the first case: the next start) works.
    const Init next = init("");
    EXPECT_EQ(next.rc, CM_OK);
    EXPECT_NE(cccb_of(next.id), nullptr);
  }
}

}  // namespace
