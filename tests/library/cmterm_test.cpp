// CMTERM: ends the current context and drops exactly its conversations.
#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

CM_RETURN_CODE terminate(CM_END_TYPE end_type) {
  CM_RETURN_CODE rc = -1;
  cmterm(&end_type, &rc);
  return rc;
}

bool known(const unsigned char *id) {
  CCCB *cccb = nullptr;
  GCB *gcb = pGCB;
  return SCC_find_cccb(id, &cccb, &gcb) == 1;
}

class Cmterm : public ScriptedNode {};

TEST_F(Cmterm, BadEndTypeOrNoContextFreesNothing) {
  unsigned char id[8];
  conversation_in(0x51, 1, "LU", id);
  std::memset(pGCB->CurrentContext, 0, 8);
  struct {
    CM_END_TYPE end_type;
    CM_RETURN_CODE rc;
  } const cases[] = {
      {2, CM_PARAMETER_ERROR}, {-1, CM_PARAMETER_ERROR}, {CM_HARD, CM_OK}, {CM_SOFT, CM_OK}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.end_type);
    EXPECT_EQ(terminate(c.end_type), c.rc);
    EXPECT_EQ(snt_submitted_count(), 0u);
    EXPECT_TRUE(known(id));
  }
  // A bad end type is refused even with a current context.
  std::memset(pGCB->CurrentContext, 0x51, 8);
  EXPECT_EQ(terminate(2), CM_PARAMETER_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_TRUE(known(id));
}

TEST_F(Cmterm, FreesExactlyTheCurrentContextsConversations) {
  struct {
    CM_END_TYPE end_type;
    uint8_t node_end_type;
  } const cases[] = {{CM_HARD, 1}, {CM_SOFT, 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.end_type);
    fresh_node();
    const uint32_t blocks_before = snt_blocks_in_use(kMemKept);
    unsigned char id_a[8], id_b[8], id_other[8];
    CCCB *a = conversation_in(0x61, 7, "CTXLU", id_a);
    CCCB *other = conversation_in(0x62, 8, "LU", id_other);
    CCCB *b = conversation_in(0x61, 9, "CTXLU", id_b);
    ASSERT_TRUE(a && b && other);
    // a: a non-blocking verb outstanding and log data; b: an uncollected
    // completion.
    a->usVerbsOutstanding = 1;
    pGCB->NumVerbsOutstanding += 1;
    a->pLogData = static_cast<unsigned char *>(nba_mm_alloc(16, kMemKept, nba_blank_name, 0, 0));
    a->usLogDataLength = 16;
    b->fCompletionWaiting = 1;
    pGCB->NumVerbsWaiting += 1;
    std::memset(pGCB->CurrentContext, 0x61, 8);
    std::memcpy(pGCB->CurrentContextLU, "CTXLU\0\0\0", 8);

    EXPECT_EQ(terminate(c.end_type), CM_OK);

    ASSERT_EQ(snt_submitted_count(), 1u) << "only the end of the context goes to the node";
    NAP_TP_ENDED_VCB vcb{};
    ASSERT_TRUE(snt_submitted_vcb(0, &vcb, sizeof vcb));
    EXPECT_EQ(vcb.opcode, NAP_TP_ENDED);
    EXPECT_EQ(bytes(vcb.tp_id, 8), std::vector<unsigned char>(8, 0x61));
    EXPECT_EQ(vcb.type, c.node_end_type);
    EXPECT_FALSE(snt_submitted_with_routine(0)) << "the end must be waited for";

    EXPECT_FALSE(known(id_a));
    EXPECT_FALSE(known(id_b));
    ASSERT_TRUE(known(id_other));
    unsigned char context[8];
    CM_INT32 length = 0;
    EXPECT_EQ(extract_context(id_other, context, &length), CM_OK);
    EXPECT_EQ(bytes(context, 8), std::vector<unsigned char>(8, 0x62));
    unsigned char dummy[8];
    EXPECT_EQ(extract_context(id_a, dummy, &length), CM_PROGRAM_PARAMETER_CHECK);

    EXPECT_EQ(bytes(pGCB->CurrentContext, 8), std::vector<unsigned char>(8, 0));
    EXPECT_EQ(bytes(pGCB->CurrentContextLU, 8), std::vector<unsigned char>(8, 0));
    EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
    EXPECT_EQ(pGCB->NumVerbsOutstanding, 0u) << "a later CMWAIT would wait for nothing";
    EXPECT_EQ(snt_assert_count(), 0u);
    // The other conversation's CCCB is all that is left of this case.
    EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks_before + 1);

    // Nothing outstanding and nothing to collect: CMWAIT answers at once.
    unsigned char waited[8];
    CM_RETURN_CODE conversation_rc = -1, rc = -1;
    cmwait(waited, &conversation_rc, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
    std::memset(other->TpId, 0, 8);
  }
}

TEST_F(Cmterm, WhenTheNodeCannotEndTheContextEverythingIsKept) {
  struct {
    const char *what;
    uint16_t primary;
    uint32_t secondary;
    bool no_memory;
    CM_RETURN_CODE rc;
    uint32_t problem_code;
    uint32_t probe;
  } const cases[] = {
      {"unknown TP id", AP_PARAMETER_CHECK, AP_BAD_TP_ID, false, CM_PROGRAM_PARAMETER_CHECK, 0, 0},
      {"node gone", AP_COMM_SUBSYSTEM_NOT_LOADED, 0, false, CM_PRODUCT_SPECIFIC_ERROR,
       kProblemUnmappedResult, 1},
      {"no memory for the verb", 0, 0, true, CM_PRODUCT_SPECIFIC_ERROR, kProblemNoResource, 17},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_node();
    unsigned char id[8];
    ASSERT_NE(conversation_in(0x71, 3, "CTXLU", id), nullptr);
    std::memset(pGCB->CurrentContext, 0x71, 8);
    if (c.no_memory) {
      snt_fail_allocations(1);
    } else {
      SNT_VERB_SCRIPT script{};
      script.opcode = NAP_TP_ENDED;
      script.primary_rc = c.primary;
      script.secondary_rc = c.secondary;
      snt_push_verb_script(&script);
    }
    EXPECT_EQ(terminate(CM_HARD), c.rc);
    EXPECT_TRUE(known(id));
    EXPECT_EQ(bytes(pGCB->CurrentContext, 8), std::vector<unsigned char>(8, 0x71));
    if (c.problem_code != 0) {
      ASSERT_GE(snt_problem_count(), 1u);
      EXPECT_EQ(problem(0).code, c.problem_code);
      EXPECT_EQ(problem(0).probe, c.probe);
    } else {
      EXPECT_EQ(snt_problem_count(), 0u);
    }
  }
}

}  // namespace
