// Conversation control blocks: lookup by conversation ID, the defaults of a
// new conversation, failures while making one, freeing with and without the
// end of its context, and emptying one handle table.
#include <string>

#include "library/library_support.h"

namespace {

using namespace lib_test;

const unsigned char kContextA[8] = {1, 2, 3, 4, 5, 6, 7, 8};
const unsigned char kContextB[8] = {8, 7, 6, 5, 4, 3, 2, 1};

TEST_F(CoreTest, ConversationIdsBeforeStartUpAreUnknown) {
  unsigned char id[8] = {1, 0, 0, 0, 0, 0, 0, 0};
  CCCB *cccb = reinterpret_cast<CCCB *>(&BlankCccb);
  GCB *gcb = pGCB;
  EXPECT_EQ(SCC_find_cccb(id, &cccb, &gcb), 0);
  EXPECT_EQ(cccb, nullptr);
}

TEST_F(CoreTest, LookupUsesBytesZeroToThreeOnly) {
  start();
  Conversation c = make_conversation();
  uint32_t handle;
  std::memcpy(&handle, c.id, 4);
  EXPECT_EQ(handle, c.cccb->CCCBhandle);
  EXPECT_EQ(text_of(c.id + 4, 4), std::string(4, '\0'));

  unsigned char noisy[8];
  std::memcpy(noisy, c.id, 8);
  std::memset(noisy + 4, 0xA5, 4);
  CCCB *found = nullptr;
  GCB *gcb = pGCB;
  EXPECT_EQ(SCC_find_cccb(noisy, &found, &gcb), 1);
  EXPECT_EQ(found, c.cccb);

  // Once freed, the ID is stale and stays unknown.
  {
    Locked lock;
    SCC_free_cccb(c.cccb);
  }
  EXPECT_EQ(SCC_find_cccb(c.id, &found, &gcb), 0);
  EXPECT_EQ(found, nullptr);
  CM_RETURN_CODE rc = -1;
  snt_reset();
  CMCANC(c.id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, 0x20030005u);
}

TEST_F(CoreTest, NewConversationStartsWithTheDefaults) {
  start();
  Conversation c = make_conversation();
  const CCCB &b = *c.cccb;
  EXPECT_EQ(b.ulConversationType, uint32_t{CM_MAPPED_CONVERSATION});
  EXPECT_EQ(b.usProcessingMode, 0);
  EXPECT_EQ(b.SideInfo.conversation_security_type, uint32_t{CM_SECURITY_SAME});
  EXPECT_EQ(text_of(b.SideInfo.sym_dest_name, 8), std::string(8, ' '));
  EXPECT_EQ(text_of(b.SideInfo.partner_LU_name, 17), std::string(17, ' '));
  EXPECT_EQ(text_of(b.SideInfo.mode_name, 8), std::string(8, '\x40'));
  EXPECT_EQ(text_of(b.SideInfo.TP_name, 64), std::string(64, '\x40'));
  EXPECT_EQ(text_of(b.SideInfo.security_user_ID, 10), std::string(10, '\x40'));
  EXPECT_EQ(text_of(b.SideInfo.security_password, 10), std::string(10, '\x40'));
  EXPECT_EQ(text_of(b.SideInfo.local_LU_alias, 8), std::string(8, '\0'));
  EXPECT_EQ(b.SideInfo.usUserIDLen, 1);
  EXPECT_EQ(b.SideInfo.TP_name_type, uint32_t{CM_APPLICATION_TP});
  EXPECT_EQ(b.fInitializeState, 0);
  EXPECT_EQ(b.ulAppcConvId, 0u);
  EXPECT_EQ(b.pLogData, nullptr);
  // Two conversations get two different IDs.
  Conversation d = make_conversation();
  EXPECT_NE(std::memcmp(c.id, d.id, 4), 0);
}

TEST_F(CoreTest, MakingAConversationFailsCleanly) {
  start();
  const uint32_t blocks = snt_blocks_in_use(0);
  struct {
    void (*inject)(uint32_t);
    uint32_t probe;
  } cases[] = {{snt_fail_allocations, 1}, {snt_fail_table_inserts, 2}};
  for (const auto &c : cases) {
    snt_reset();
    c.inject(1);
    unsigned char id[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    CCCB *cccb = nullptr;
    {
      Locked lock;
      EXPECT_EQ(SCC_cccb_init(id, &cccb), 0);
    }
    EXPECT_EQ(snt_blocks_in_use(0), blocks) << c.probe;
    ASSERT_EQ(snt_problem_count(), 1u);
    const SNT_RECORD record = problem(0);
    EXPECT_EQ(record.code, 0x2003000Bu);
    EXPECT_EQ(record.probe, c.probe);
    EXPECT_STREQ(record.arg_types, "");
  }
}

// Which TP_ENDED verbs freeing a conversation sends, by its context.
struct FreeCase {
  const char *name;
  const unsigned char *tp_id;
  const unsigned char *current;
  bool sibling_shares_context;
  uint16_t last_verb;
  bool ends_context;
  bool waits;
};

TEST_F(CoreTest, FreeingTheLastConversationOfAnOldContextEndsIt) {
  const unsigned char none[8] = {};
  const FreeCase cases[] = {
      {"no context", none, none, false, 10, false, false},
      {"last of an old context", kContextA, kContextB, false, 10, true, false},
      {"after CMDEAL", kContextA, kContextB, false, kVerbCMDEAL, true, true},
      {"context still shared", kContextA, kContextB, true, 10, false, false},
      {"current context", kContextA, kContextA, false, 10, false, false},
  };
  start();
  for (const FreeCase &c : cases) {
    SCOPED_TRACE(c.name);
    snt_reset();
    snt_script_verbs(1);
    std::memcpy(pGCB->CurrentContext, c.current, 8);
    Conversation conv = make_conversation();
    std::memcpy(conv.cccb->TpId, c.tp_id, 8);
    conv.cccb->usTraceVerb = c.last_verb;
    Conversation sibling;
    if (c.sibling_shares_context) {
      sibling = make_conversation();
      std::memcpy(sibling.cccb->TpId, c.tp_id, 8);
    }
    {
      Locked lock;
      EXPECT_EQ(SCC_cccbs_using_tpid(c.tp_id), c.sibling_shares_context ? 2u : 1u);
      SCC_free_cccb(conv.cccb);
    }
    EXPECT_FALSE(known(conv.id));
    ASSERT_EQ(snt_submitted_count(), c.ends_context ? 1u : 0u);
    if (c.ends_context) {
      NAP_TP_ENDED_VCB vcb{};
      ASSERT_EQ(snt_submitted_vcb(0, &vcb, sizeof vcb), 1);
      EXPECT_EQ(vcb.opcode, NAP_TP_ENDED);
      EXPECT_EQ(vcb.type, 1);  // hard
      EXPECT_EQ(std::memcmp(vcb.tp_id, c.tp_id, 8), 0);
      EXPECT_EQ(snt_submitted_with_routine(0), c.waits ? 0 : 1);
    }
    // Verb blocks never outlive the verb.
    EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u);
    if (c.sibling_shares_context) {
      Locked lock;
      SCC_free_cccb(sibling.cccb);
    }
  }
}

TEST_F(CoreTest, FreeingReleasesOwnedBuffersAndAnUncollectedCompletion) {
  start();
  const uint32_t blocks = snt_blocks_in_use(0);
  Conversation c = make_conversation();
  Conversation other = make_conversation();
  {
    Locked lock;
    c.cccb->pLogData = kept_block(16);
    c.cccb->DeallcLogData = kept_block(16);
    c.cccb->fCompletionWaiting = 1;
    other.cccb->fCompletionWaiting = 1;
    pGCB->NumVerbsWaiting = 2;
    SCC_free_cccb(c.cccb);
    EXPECT_EQ(pGCB->NumVerbsWaiting, 1u);
    SCC_free_cccb(other.cccb);
  }
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
  EXPECT_EQ(snt_blocks_in_use(0), blocks);
  EXPECT_EQ(snt_assert_count(), 0u);

  // A flag without a count is reported; processing goes on with the
  // decrement, as after every assertion.
  Conversation odd = make_conversation();
  {
    Locked lock;
    odd.cccb->fCompletionWaiting = 1;
    pGCB->NumVerbsWaiting = 0;
    SCC_free_cccb(odd.cccb);
  }
  ASSERT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(assertion(0), "vcpic/cpicutil: pGCB->NumVerbsWaiting > 0");
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0xFFFFFFFFu);
  pGCB->NumVerbsWaiting = 0;
}

TEST_F(CoreTest, EmptyingATableReleasesItsEntriesOnly) {
  start();
  const uint32_t blocks = snt_blocks_in_use(0);
  Conversation a = make_conversation();
  Conversation b = make_conversation();
  void *slot = nullptr;
  {
    Locked lock;
    slot = kept_block(sizeof(SCD_SLOT));
    ASSERT_NE(vtm_get_free_entry(pGCB->SideInfoTable, slot), 0u);
    SCC_free_handles_from_table(pGCB->CCCBTable);
  }
  EXPECT_FALSE(known(a.id));
  EXPECT_FALSE(known(b.id));
  EXPECT_EQ(snt_blocks_in_use(0), blocks + 1);
  void *still = nullptr;
  EXPECT_NE(vtm_get_next_used(pGCB->SideInfoTable, 0, &still), 0u);
  EXPECT_EQ(still, slot);
  void *none = nullptr;
  EXPECT_EQ(vtm_get_next_used(pGCB->CCCBTable, 0, &none), 0u);
}

}  // namespace
