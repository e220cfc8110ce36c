// CMECTX, CMSCTX and SCC_context_valid.
#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

class Contexts : public ScriptedNode {};

TEST_F(Contexts, ExtractReadsTheContextOfAConversationInTheNode) {
  unsigned char id_new[8], id_live[8];
  conversation_in(0x11, 0, "LU", id_new);
  conversation_in(0x22, 5, "LU", id_live);
  unsigned char context[8];
  std::memset(context, 0xAB, sizeof context);
  CM_INT32 length = -1;

  EXPECT_EQ(extract_context(id_new, context, &length), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(length, -1);
  EXPECT_EQ(bytes(context, 8), std::vector<unsigned char>(8, 0xAB));

  EXPECT_EQ(extract_context(id_live, context, &length), CM_OK);
  EXPECT_EQ(length, 8);
  EXPECT_EQ(bytes(context, 8), std::vector<unsigned char>(8, 0x22));

  unsigned char unknown[8] = {0x7F, 0x7F, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(extract_context(unknown, context, &length), CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(snt_problem_count(), 1u);
  const SNT_RECORD r = problem(0);
  EXPECT_EQ(r.code, kProblemUnknownConversation);
  EXPECT_EQ(r.probe, 6u);
  EXPECT_STREQ(r.arg_types, "ba");
  EXPECT_EQ(r.args[0], 8u);
  EXPECT_EQ(bytes(r.bytes[0], 8), bytes(unknown, 8));
}

TEST_F(Contexts, SetContext) {
  struct {
    const char *what;
    unsigned char current;  // 0: none
    bool current_in_use;    // a conversation still runs under the current context
    unsigned char wanted;
    CM_INT32 length;
    CM_RETURN_CODE rc;
    bool ends_current;
  } const cases[] = {
      {"length 7", 0x31, true, 0x32, 7, CM_PROGRAM_PARAMETER_CHECK, false},
      {"length 9", 0x31, true, 0x32, 9, CM_PROGRAM_PARAMETER_CHECK, false},
      {"already current", 0x31, true, 0x31, 8, CM_OK, false},
      {"no conversation uses it", 0x31, true, 0x99, 8, CM_PROGRAM_PARAMETER_CHECK, false},
      {"from no context", 0, false, 0x32, 8, CM_OK, false},
      {"away from a used context", 0x31, true, 0x32, 8, CM_OK, false},
      {"away from an unused context", 0x31, false, 0x32, 8, CM_OK, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_node();
    unsigned char id_a[8], id_b[8];
    CCCB *a = conversation_in(c.current_in_use ? c.current : 0x55, 1, "CURLU", id_a);
    CCCB *b = conversation_in(0x32, 2, "NEWLU", id_b);
    ASSERT_TRUE(a && b);
    std::memset(pGCB->CurrentContext, c.current, 8);
    std::memcpy(pGCB->CurrentContextLU, "OLDLU\0\0\0", 8);

    unsigned char wanted[8];
    std::memset(wanted, c.wanted, sizeof wanted);
    CM_INT32 length = c.length;
    CM_RETURN_CODE rc = -1;
    cmsctx(wanted, &length, &rc);
    EXPECT_EQ(rc, c.rc);

    const bool switched = c.rc == CM_OK && c.wanted != c.current;
    EXPECT_EQ(bytes(pGCB->CurrentContext, 8),
              std::vector<unsigned char>(8, switched ? c.wanted : c.current));
    EXPECT_EQ(text_of(pGCB->CurrentContextLU, 8),
              std::string(switched ? "NEWLU\0\0\0" : "OLDLU\0\0\0", 8));
    ASSERT_EQ(snt_submitted_count(), c.ends_current ? 1u : 0u);
    if (c.ends_current) {
      NAP_TP_ENDED_VCB vcb{};
      ASSERT_TRUE(snt_submitted_vcb(0, &vcb, sizeof vcb));
      EXPECT_EQ(vcb.opcode, NAP_TP_ENDED);
      EXPECT_EQ(bytes(vcb.tp_id, 8), std::vector<unsigned char>(8, c.current));
      EXPECT_EQ(vcb.type, 1);  // hard
      EXPECT_TRUE(snt_submitted_with_routine(0)) << "must not wait for the node";
    }
    // Leave no context behind for the next case.
    std::memset(pGCB->CurrentContext, 0, 8);
    for (unsigned char *id : {id_a, id_b}) {
      CCCB *cccb = nullptr;
      GCB *gcb = pGCB;
      if (SCC_find_cccb(id, &cccb, &gcb)) std::memset(cccb->TpId, 0, 8);
    }
  }
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u) << "the TP-ended block leaked";
}

TEST_F(Contexts, ContextValidFindsTheFirstConversationOrTheCurrentContext) {
  unsigned char id1[8], id2[8], id3[8];
  conversation_in(0x41, 1, "LU", id1);
  CCCB *first = conversation_in(0x42, 2, "LU", id2);
  conversation_in(0x42, 3, "LU", id3);

  unsigned char context[8];
  std::memset(context, 0x42, 8);
  CCCB *found = nullptr;
  EXPECT_EQ(SCC_context_valid(context, &found), 1);
  EXPECT_EQ(found, first);

  std::memset(pGCB->CurrentContext, 0x43, 8);
  std::memset(context, 0x43, 8);
  CCCB *untouched = reinterpret_cast<CCCB *>(0x1);
  EXPECT_EQ(SCC_context_valid(context, &untouched), 1);
  EXPECT_EQ(untouched, reinterpret_cast<CCCB *>(0x1));

  std::memset(context, 0x44, 8);
  EXPECT_EQ(SCC_context_valid(context, &found), 0);
}

}  // namespace
