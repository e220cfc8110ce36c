// CMINIT, contexts and CMTERM against the scripted node: the characteristics
// a new conversation gets, the local LU it uses, which contexts a program may
// switch to, and what CMTERM ends.
#include "library/conversation_support.h"

namespace {

using namespace conversation_test;

// ---- CMINIT ----

struct Init {
  ConvId id;
  CM_RETURN_CODE rc = -1;
};
Init init(const std::string &name) {
  Init r;
  r.id.fill(0xAB);
  std::string sym = padded(name, 8);
  cminit(r.id.data(), reinterpret_cast<unsigned char *>(sym.data()), &r.rc);
  return r;
}

TEST_F(Conversations, CminitWithoutSideInformationGivesTheDefaults) {
  const Init r = init(" XYZ");
  ASSERT_EQ(r.rc, CM_OK);
  EXPECT_EQ(snt_nof_count(), 0u) << "a blank first byte means no side information";
  const CCCB *b = cccb_of(r.id);
  ASSERT_NE(b, nullptr);
  const SCD_ENTRY &s = b->SideInfo;
  EXPECT_EQ(
      std::tuple(b->fInitializeState, b->ulAppcConvId + b->usProcessingMode, b->ulConversationType,
                 s.usUserIDLen, s.TP_name_type, s.conversation_security_type),
      std::tuple(1, 0u, uint32_t{CM_MAPPED_CONVERSATION}, 1, uint32_t{CM_APPLICATION_TP},
                 uint32_t{CM_SECURITY_SAME}));
  EXPECT_EQ(text_of(s.sym_dest_name, 8) + text_of(s.partner_LU_name, 17),
            " XYZ" + std::string(21, ' '));
  EXPECT_EQ(text_of(s.mode_name, 8) + text_of(s.TP_name, 64) + text_of(s.security_user_ID, 10) +
                text_of(s.security_password, 10),
            std::string(92, '\x40'));
  EXPECT_EQ(text_of(s.local_LU_alias, 8) + text_of(b->LocalLUName, 8), std::string(16, '\0'));
}

TEST_F(Conversations, CminitOfAnUnknownOrDeletedNameGives24AndAnIdNobodyKnows) {
  node_holds({.name = "GONE"});
  SCD_ENTRY gone = named("GONE");
  ASSERT_EQ(SCD_main(SCD_DELETE, &gone), CM_OK);
  for (auto [name, node_verbs] : {std::pair{"UNKNOWN", 3u}, std::pair{"GONE", 0u}}) {
    SCOPED_TRACE(name);
    fresh_node();
    const Init r = init(name);
    EXPECT_EQ(r.rc, CM_PROGRAM_PARAMETER_CHECK);
    EXPECT_EQ(snt_nof_count(), node_verbs);
    ASSERT_EQ(snt_audit_count(), 1u);
    EXPECT_EQ(audit(0).code, kAuditSymDestNotFound);
    EXPECT_EQ(text_of(audit(0).bytes[0], 8), padded(name, 8));
    EXPECT_FALSE(known(r.id));
  }
  fresh_node();
  suppress_audit_records();
  EXPECT_EQ(init("UNKNOWN").rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_audit_count(), 0u);
}

// The side information fills the conversation; its local LU gives way to
// APPCLLU, which gives way to the current context where side information
// names none.
TEST_F(Conversations, CminitLocalLuPrecedence) {
  const struct {
    const char *side_info_lu;  // null: blank name, no lookup
    const char *env;           // APPCLLU as the library holds it
    bool context;              // a current context whose LU is CTXLU
    const char *expected;
  } cases[] = {
      {nullptr, "", false, ""},
      {"SIALIAS", "", false, "SIALIAS "},
      {"SIALIAS", "ENVLU", false, "ENVLU"},
      {nullptr, "ENVLU", false, "ENVLU"},
      {"", "ENVLU", true, "CTXLU"},
      {nullptr, "ENVLU", true, "CTXLU"},
      {"SIALIAS", "ENVLU", true, "ENVLU"},
      {"SIALIAS", "", true, "SIALIAS "},
  };
  start_library();
  for (size_t n = 0; n < std::size(cases); ++n) {
    const auto &c = cases[n];
    SCOPED_TRACE(n);
    std::memcpy(pGCB->EnvLUAlias, padded(c.env, 8, '\0').data(), 8);
    std::memset(pGCB->CurrentContext, c.context ? 0x77 : 0, 8);
    std::memcpy(pGCB->CurrentContextLU, padded(c.context ? "CTXLU" : "", 8, '\0').data(), 8);
    const NodeEntry node{.name = c.side_info_lu ? "LU" + std::to_string(n) : "",
                         .local_lu = c.side_info_lu ? c.side_info_lu : ""};
    if (c.side_info_lu != nullptr) node_holds(node);
    const Init r = init(node.name);
    ASSERT_EQ(r.rc, CM_OK);
    const CCCB *cccb = cccb_of(r.id);
    EXPECT_EQ(text_of(cccb->LocalLUName, 8), padded(c.expected, 8, '\0'));
    EXPECT_EQ(bytes(cccb->SideInfo.partner_LU_name, 17),
              c.side_info_lu ? ebcdic_field("NET1.LU1", 17) : Bytes(17, ' '));
  }
}

TEST_F(Conversations, CminitWithoutStartOrStorageGives20AndLeavesNothing) {
  const std::pair<void (*)(uint32_t), Probes> cases[] = {
      {snt_fail_table_inits, {{kProblemStartup, 1}}},
      {snt_fail_allocations, {{kProblemNoResource, 1}}},
      {snt_fail_table_inserts, {{kProblemNoResource, 2}}}};
  for (const auto &[inject, expected] : cases) {
    const uint32_t blocks = snt_blocks_in_use(0);
    fresh_node();
    inject(1);
    const Init failed = init("");
    EXPECT_EQ(failed.rc, CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_EQ(bytes(failed.id.data(), 8), Bytes(8, 0xAB)) << "the ID is left alone";
    EXPECT_EQ(problems(), expected);
    if (fInitCPIC) {
      EXPECT_EQ(snt_blocks_in_use(0), blocks);
    }
    const Init next = init("");  // for the first case: the next start
    EXPECT_EQ(next.rc, CM_OK);
    EXPECT_TRUE(known(next.id));
  }
}

// ---- contexts and CMTERM ----

CM_RETURN_CODE extract_context(ConvId &id, unsigned char *context, CM_INT32 *length) {
  return rc_call(cmectx, id.data(), context, length);
}

TEST_F(Conversations, ExtractContextReadsTheContextOfAConversationInTheNode) {
  ConvId fresh{}, live{}, unknown = kUnknownId;
  conversation_in(0x11, 0, "LU", fresh);
  conversation_in(0x22, 5, "LU", live);
  unsigned char context[8] = {0xAB, 0xAB};
  CM_INT32 length = -1;
  EXPECT_EQ(extract_context(fresh, context, &length), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(std::pair(length, context[0]), std::pair(-1, uint8_t{0xAB}));
  EXPECT_EQ(extract_context(live, context, &length), CM_OK);
  EXPECT_EQ(std::pair(length, bytes(context, 8)), std::pair(8, Bytes(8, 0x22)));
  EXPECT_EQ(extract_context(unknown, context, &length), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(problems(), (Probes{{kProblemUnknownConversation, 6}}));
}

TEST_F(Conversations, SetContext) {
  const struct {
    unsigned char current;  // 0: none
    bool current_in_use;    // a conversation still runs under the current context
    unsigned char wanted;
    CM_INT32 length;
    CM_RETURN_CODE rc;
    bool ends_current;
  } cases[] = {
      {0x31, true, 0x32, 7, CM_PROGRAM_PARAMETER_CHECK, false},
      {0x31, true, 0x32, 9, CM_PROGRAM_PARAMETER_CHECK, false},
      {0x31, true, 0x31, 8, CM_OK, false},                       // already current
      {0x31, true, 0x99, 8, CM_PROGRAM_PARAMETER_CHECK, false},  // no conversation uses it
      {0, false, 0x32, 8, CM_OK, false},
      {0x31, true, 0x32, 8, CM_OK, false},
      {0x31, false, 0x32, 8, CM_OK, true},  // away from an unused context
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << int{c.current} << c.current_in_use << int{c.wanted});
    fresh_node();
    ConvId a{}, b{};
    conversation_in(c.current_in_use ? c.current : 0x55, 1, "CURLU", a);
    conversation_in(0x32, 2, "NEWLU", b);
    std::memset(pGCB->CurrentContext, c.current, 8);
    std::memcpy(pGCB->CurrentContextLU, "OLDLU\0\0\0", 8);
    unsigned char wanted[8];
    std::memset(wanted, c.wanted, sizeof wanted);
    CM_INT32 length = c.length;
    EXPECT_EQ(rc_call(cmsctx, wanted, &length), c.rc);
    const bool switched = c.rc == CM_OK && c.wanted != c.current;
    EXPECT_EQ(bytes(pGCB->CurrentContext, 8), Bytes(8, switched ? c.wanted : c.current));
    EXPECT_EQ(text_of(pGCB->CurrentContextLU, 8), padded(switched ? "NEWLU" : "OLDLU", 8, '\0'));
    ASSERT_EQ(snt_submitted_count(), c.ends_current ? 1u : 0u);
    if (c.ends_current) {
      expect_record(submitted(0), {{0, u16(NAP_TP_ENDED)}, {12, Bytes(8, 0x31)}, {20, u8(1)}},
                    "hard end");
      EXPECT_TRUE(snt_submitted_with_routine(0)) << "must not wait for the node";
    }
    std::memset(pGCB->CurrentContext, 0, 8);  // no context left for the next case
    for (ConvId *id : {&a, &b}) SCC_set_tp_id(cccb_of(*id), kNoTp);
  }
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u) << "the TP-ended block leaked";
}

CM_RETURN_CODE terminate(CM_END_TYPE end_type) {
  return rc_call(cmterm, &end_type);
}

TEST_F(Conversations, CmtermWithABadEndTypeOrNoContextFreesNothing) {
  ConvId id{};
  conversation_in(0x51, 1, "LU", id);
  const std::pair<CM_END_TYPE, CM_RETURN_CODE> cases[] = {
      {2, CM_PARAMETER_ERROR}, {-1, CM_PARAMETER_ERROR}, {CM_HARD, CM_OK}, {CM_SOFT, CM_OK}};
  for (const auto &[end_type, rc] : cases) EXPECT_EQ(terminate(end_type), rc) << end_type;
  std::memset(pGCB->CurrentContext, 0x51, 8);
  EXPECT_EQ(terminate(2), CM_PARAMETER_ERROR) << "even with a current context";
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_TRUE(known(id));
}

TEST_F(Conversations, CmtermFreesExactlyTheCurrentContextsConversations) {
  for (auto [end_type, node_type] : {std::pair{CM_HARD, 1}, std::pair{CM_SOFT, 0}}) {
    SCOPED_TRACE(end_type);
    fresh_node();
    const uint32_t blocks_before = snt_blocks_in_use(kMemKept);
    ConvId id_a{}, id_b{}, id_other{};
    CCCB *a = conversation_in(0x61, 7, "CTXLU", id_a);
    CCCB *other = conversation_in(0x62, 8, "LU", id_other);
    CCCB *b = conversation_in(0x61, 9, "CTXLU", id_b);
    // a: a non-blocking verb outstanding and log data; b: an uncollected
    // completion.
    a->usVerbsOutstanding = 1;
    pGCB->NumVerbsOutstanding += 1;
    a->pLogData = kept_block(16);
    a->usLogDataLength = 16;
    b->fCompletionWaiting = 1;
    pGCB->NumVerbsWaiting += 1;
    std::memset(pGCB->CurrentContext, 0x61, 8);
    std::memcpy(pGCB->CurrentContextLU, "CTXLU\0\0\0", 8);

    EXPECT_EQ(terminate(end_type), CM_OK);
    ASSERT_EQ(snt_submitted_count(), 1u) << "only the end of the context goes to the node";
    expect_record(submitted(0), {{0, u16(NAP_TP_ENDED)}, {12, Bytes(8, 0x61)}, {20, u8(node_type)}},
                  "end");
    EXPECT_FALSE(snt_submitted_with_routine(0)) << "the end must be waited for";
    EXPECT_FALSE(known(id_a) || known(id_b));
    EXPECT_TRUE(known(id_other));
    EXPECT_EQ(text_of(pGCB->CurrentContext, 8) + text_of(pGCB->CurrentContextLU, 8),
              std::string(16, '\0'));
    EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << "CMWAIT waits for nothing";
    EXPECT_EQ(snt_assert_count(), 0u);
    // The other conversation's record is all that is left of this case.
    EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks_before + 1);
    const unsigned char ended[8] = {0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0x61};
    EXPECT_EQ(SCC_cccbs_using_tpid(ended), 0u) << "the dropped records still count";
    SCC_set_tp_id(other, kNoTp);
  }
}

TEST_F(Conversations, CmtermKeepsEverythingWhenTheNodeCannotEndTheContext) {
  const std::tuple<uint16_t, uint32_t, CM_RETURN_CODE, Probes> cases[] = {
      {AP_PARAMETER_CHECK, AP_BAD_TP_ID, CM_PROGRAM_PARAMETER_CHECK, {}},
      {AP_COMM_SUBSYSTEM_NOT_LOADED, 0, CM_PRODUCT_SPECIFIC_ERROR, {{kProblemUnmappedResult, 1}}},
  };
  for (const auto &[primary, secondary, rc, expected] : cases) {
    SCOPED_TRACE(primary);
    fresh_node();
    ConvId id{};
    conversation_in(0x71, 3, "CTXLU", id);
    std::memset(pGCB->CurrentContext, 0x71, 8);
    push(NAP_TP_ENDED, primary, secondary);
    EXPECT_EQ(terminate(CM_HARD), rc);
    EXPECT_TRUE(known(id));
    EXPECT_EQ(bytes(pGCB->CurrentContext, 8), Bytes(8, 0x71));
    EXPECT_EQ(problems(), expected);
  }
}

}  // namespace
