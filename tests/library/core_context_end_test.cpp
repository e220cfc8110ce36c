// Ending a context at the node: waited for with the node's answer returned,
// or submitted and forgotten with its block freed by whoever finishes last,
// and the shortage of memory reported as the node would.
#include "library/core_support.h"

namespace {

using core_test::CoreTest;
using core_test::Locked;
using core_test::problem;
using core_test::push_script;

const unsigned char kTp[8] = {9, 8, 7, 6, 5, 4, 3, 2};

struct Answer {
  uint16_t primary = 0;
  uint32_t secondary = 0;
};

// Ends kTp and waits for the node's answer, under the lock as callers do.
Answer end_and_wait(uint8_t end_type) {
  Answer answer;
  Locked lock;
  SCC_context_ended(kTp, end_type, &answer.primary, &answer.secondary);
  return answer;
}

TEST_F(CoreTest, WaitedEndReturnsTheNodesAnswer) {
  push_script(NAP_TP_ENDED, 0x0100, 0xF1000000);
  const Answer answer = end_and_wait(0);
  EXPECT_EQ(answer.primary, 0x0100);
  EXPECT_EQ(answer.secondary, 0xF1000000u);
  ASSERT_EQ(snt_submitted_count(), 1u);
  EXPECT_EQ(snt_submitted_with_routine(0), 0);
  NAP_TP_ENDED_VCB vcb{};
  ASSERT_EQ(snt_submitted_vcb(0, &vcb, sizeof vcb), 1);
  EXPECT_EQ(vcb.opcode, NAP_TP_ENDED);
  EXPECT_EQ(vcb.type, 0);
  EXPECT_EQ(std::memcmp(vcb.tp_id, kTp, 8), 0);
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u);
}

TEST_F(CoreTest, ForgottenEndFreesItsBlockWhenTheNodeIsDone) {
  for (bool later : {false, true}) {
    SCOPED_TRACE(later);
    snt_reset();
    snt_script_verbs(1);
    push_script(NAP_TP_ENDED, 0x0200, 0, later);
    {
      Locked lock;
      SCC_context_ended(kTp, 1);
    }
    ASSERT_EQ(snt_submitted_count(), 1u);
    EXPECT_EQ(snt_submitted_with_routine(0), 1);
    if (later) {
      EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 1u);
      ASSERT_EQ(snt_complete_pending(0), 1);
    }
    EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u);
    // Its failure is nobody's business.
    EXPECT_EQ(snt_problem_count(), 0u);
  }
}

TEST_F(CoreTest, NoMemoryForTheEndIsReportedThroughTheAnswer) {
  snt_fail_allocations(1);
  const Answer answer = end_and_wait(1);
  EXPECT_EQ(answer.primary, 0x11F0);
  EXPECT_EQ(answer.secondary, 12u);
  EXPECT_EQ(snt_submitted_count(), 0u);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, 0x2003000Bu);
  EXPECT_EQ(problem(0).probe, 17u);

  snt_fail_allocations(1);
  {
    Locked lock;
    SCC_context_ended(kTp, 1);  // nothing to report to, nothing sent
  }
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(snt_problem_count(), 2u);
}

}  // namespace
