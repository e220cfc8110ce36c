// The conversation calls against the scripted node: CMINIT, contexts and
// CMTERM, the verb record each call family builds, the state rules, the
// results and completions of the verbs, allocate, accept and the local TP
// names, and the API trace reaching its file.
#include <unistd.h>

#include <filesystem>
#include <map>

#include "library/support.h"
#include "support/read_lines.h"

namespace {

using namespace lib_test;

class Conversations : public LibraryTest {};

// Out-parameters that outlive a non-blocking call.
struct OutParms {
  unsigned char buffer[64] = {};
  CM_INT32 length = 16, data = -1, received = -1, status = -1, rts = -1, state = -1;
} g_out;

// A conversation call and the probe of its unknown-ID report.
struct Call {
  std::string name;
  uint32_t probe;
  std::function<CM_RETURN_CODE(ConvId &)> run;
};
using Id = unsigned char *;
using Rc = CM_RETURN_CODE *;
const std::vector<Call> kCalls = {
    {"CMSEND", 16,
     rc_of([](Id id, Rc rc) { cmsend(id, g_out.buffer, &g_out.length, &g_out.rts, rc); })},
    {"CMFLUS", 12, rc_of(cmflus)},
    {"CMPTR", 13, rc_of(cmptr)},
    {"CMCFM", 3, rc_of([](Id id, Rc rc) { cmcfm(id, &g_out.rts, rc); })},
    {"CMCFMD", 4, rc_of(cmcfmd)},
    {"CMSERR", 17, rc_of([](Id id, Rc rc) { cmserr(id, &g_out.rts, rc); })},
    {"CMRTS", 15, rc_of(cmrts)},
    {"CMRCV", 14, rc_of([](Id id, Rc rc) {
       cmrcv(id, g_out.buffer, &g_out.length, &g_out.data, &g_out.received, &g_out.status,
             &g_out.rts, rc);
     })},
    {"CMDEAL", 5, rc_of(cmdeal)},
    {"CMTRTS", 31, rc_of([](Id id, Rc rc) { cmtrts(id, &g_out.rts, rc); })},
    {"CMECS", 0, rc_of([](Id id, Rc rc) { cmecs(id, &g_out.state, rc); })},
    {"CMACCI", 0, rc_of(cmacci)},
    {"CMALLC", 1, rc_of(cmallc)},
};
// The calls that submit one verb on an allocated conversation.
const std::vector<Call> kVerbCalls(kCalls.begin(), kCalls.begin() + 9);
CM_RETURN_CODE run(const char *name, ConvId &id) {
  return std::find_if(kCalls.begin(), kCalls.end(), [&](const Call &c) { return c.name == name; })
      ->run(id);
}

// Starts a loop iteration afresh: lets the node finish what is pending, drops
// every conversation (without ending TPs at the node) and clears the node.
void restart_node() {
  while (snt_pending_count() > 0) snt_complete_pending(0);
  if (fInitCPIC != 0) {
    Locked lock;
    void *pointer = nullptr;
    for (uint32_t h = vtm_get_next_used(pGCB->CCCBTable, 0, &pointer); h != NB_NULL_HANDLE;
         h = vtm_get_next_used(pGCB->CCCBTable, h, &pointer)) {
      SCC_set_tp_id(static_cast<CCCB *>(pointer), kNoTp);
      SCC_free_cccb(static_cast<CCCB *>(pointer));
    }
  }
  fresh_node();
}

// A conversation made by CMINIT and placed in a context as if allocated
// there: TpId `context` (all eight bytes), node conversation `appc_id` (0:
// not yet in the node), local LU `lu`.
CCCB *conversation_in(unsigned char context, uint32_t appc_id, const char *lu, ConvId &id) {
  CCCB *cccb = initialized_conversation(id);
  unsigned char tp[8];
  std::memset(tp, context, 8);
  SCC_set_tp_id(cccb, tp);
  cccb->ulAppcConvId = appc_id;
  std::memset(cccb->LocalLUName, 0, 8);
  std::memcpy(cccb->LocalLUName, lu, std::strlen(lu));
  return cccb;
}

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

// ---- verb records ----

void with(CCCB &c, uint32_t send_type, uint32_t prepare_or_deallocate) {
  c.ulSendType = send_type;
  c.ulPrepareToReceiveType = c.ulDeallocateType = prepare_or_deallocate;
}

// One call per row on an active conversation, after `set`: the verb it hands
// the node, byte for byte, submitted without completion routine.
TEST_F(Conversations, EachCallSubmitsItsRecord) {
  const void *buffer = g_out.buffer;
  auto send = [&](uint8_t type) {
    return std::vector<Field>{{26, u16(16)}, {32, ptr(buffer)}, {40, u8(type)}};
  };
  auto receive = [&](uint8_t fill) {
    return std::vector<Field>{{26, u8(1)}, {27, u8(fill)}, {30, u16(16)}, {40, ptr(buffer)}};
  };
  const uint32_t B = CM_BASIC_CONVERSATION, M = CM_MAPPED_CONVERSATION;
  using Set = std::function<void(CCCB &)>;
  auto st = [](uint32_t send_type, uint32_t other) -> Set {
    return [=](CCCB &c) { with(c, send_type, other); };
  };
  auto rt = [](uint32_t receive_type, uint32_t fill) -> Set {
    return [=](CCCB &c) { c.ulReceiveType = receive_type, c.ulFill = fill; };
  };
  const Set none = [](CCCB &) {}, send_error = [](CCCB &c) { c.ulErrorDirection = 1; };
  // clang-format off
  const struct {
    const char *call;
    uint32_t type;
    Set set;
    uint16_t opcode;
    std::vector<Field> fields;  // besides the header
  } rows[] = {
      {"CMCFM", M, none, NAP_CONFIRM, {}},
      {"CMCFMD", M, none, NAP_CONFIRMED, {}},
      {"CMFLUS", B, none, NAP_FLUSH, {}},
      {"CMRTS", M, none, NAP_REQUEST_TO_SEND, {}},
      {"CMPTR", M, st(0, 0), NAP_PREPARE_TO_RECEIVE, {}},
      {"CMPTR", M, st(0, 1), NAP_PREPARE_TO_RECEIVE, {{24, u8(1)}}},
      {"CMPTR", M, st(0, 2), NAP_PREPARE_TO_RECEIVE, {}},
      {"CMSEND", M, st(0, 0), NAP_SEND_DATA, send(0)},  // buffer data
      {"CMSEND", M, st(1, 0), NAP_SEND_DATA, send(1)},  // and flush
      {"CMSEND", M, st(2, 0), NAP_SEND_DATA, send(2)},  // and confirm
      {"CMSEND", M, st(3, 1), NAP_SEND_DATA, send(3)},  // and prepare to receive, flush
      {"CMSEND", M, st(3, 0), NAP_SEND_DATA, send(4)},  // ... sync level
      {"CMSEND", M, st(3, 2), NAP_SEND_DATA, send(4)},  // ... confirm
      {"CMSEND", M, st(4, 1), NAP_SEND_DATA, send(5)},  // and deallocate, flush
      {"CMSEND", M, st(4, 0), NAP_SEND_DATA, send(6)},  // ... sync level
      {"CMSEND", M, st(4, 2), NAP_SEND_DATA, send(6)},  // ... confirm
      {"CMSEND", B, st(4, 3), NAP_SEND_DATA, send(7)},  // ... abend
      {"CMSERR", M, send_error, NAP_SEND_ERROR, {{26, u8(1)}}},
      {"CMSERR", B, none, NAP_SEND_ERROR, {}},
      {"CMRCV", M, rt(0, 0), NAP_RECEIVE_AND_WAIT, receive(1)},
      {"CMRCV", B, rt(0, 1), NAP_RECEIVE_AND_WAIT, receive(0)},
      {"CMRCV", B, rt(1, 0), NAP_RECEIVE_IMMEDIATE, receive(1)},
      {"CMRCV", M, rt(1, 1), NAP_RECEIVE_IMMEDIATE, receive(0)},
      {"CMDEAL", B, st(0, 0), NAP_DEALLOCATE, {{25, u8(0)}}},
      {"CMDEAL", M, st(0, 1), NAP_DEALLOCATE, {{25, u8(1)}}},
      {"CMDEAL", B, st(0, 2), NAP_DEALLOCATE, {{25, u8(0)}}},
      {"CMDEAL", M, st(0, 3), NAP_DEALLOCATE, {{25, u8(5)}}},
      {"CMDEAL", B, st(0, 3), NAP_DEALLOCATE, {{25, u8(2)}}},  // log data follows
      {"CMTRTS", B, none, NAP_TEST_RTS, {}},
      {"CMECS", M, none, NAP_GET_STATE, {}},
  };
  // clang-format on
  for (const auto &row : rows) {
    const std::string what = std::string(row.call) + " " + std::to_string(row.fields.size());
    restart_node();
    ConvId id{};
    CCCB *cccb = active_conversation(id, row.type);
    row.set(*cccb);
    // A basic conversation deallocated by abend sends its log data.
    const bool log_data = row.type == B && row.opcode == NAP_DEALLOCATE &&
                          cccb->ulDeallocateType == CM_DEALLOCATE_ABEND;
    if (log_data) {
      cccb->pLogData = kept_block(20);
      cccb->usLogDataLength = 20;
    }
    const void *log = cccb->pLogData;
    EXPECT_EQ(run(row.call, id), CM_OK) << what;
    ASSERT_GE(snt_submitted_count(), 1u) << what;
    EXPECT_EQ(snt_submitted_with_routine(0), 0) << what;
    EXPECT_EQ(pGCB->NumVerbsOutstanding + pGCB->NumVerbsWaiting, 0u) << what;
    const auto log_fields = std::vector<Field>{{26, u16(20)}, {32, ptr(log)}};
    expect_record(submitted(0),
                  header(row.opcode, static_cast<uint8_t>(row.type)) + row.fields +
                      (log_data ? log_fields : std::vector<Field>{}),
                  what);
  }
}

// ---- results, completions and the state rules ----

// Each call: a result that ends the conversation (or a deallocate's success)
// frees it once a non-blocking call's completion is collected; another keeps it.
TEST_F(Conversations, EveryVerbsResultEndsOrKeepsTheConversation) {
  for (const Call &call : kVerbCalls) {
    for (uint16_t mode : {0, CM_NON_BLOCKING}) {
      for (uint16_t primary : {AP_OK, AP_DEALLOC_NORMAL, AP_PROG_ERROR_NO_TRUNC}) {
        const std::string what =
            call.name + " mode " + std::to_string(mode) + " primary " + std::to_string(primary);
        restart_node();
        ConvId id{};
        CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, mode);
        push(0, primary, 0, mode);
        const CM_RETURN_CODE rc = call.run(id);
        const bool ends =
            primary == AP_DEALLOC_NORMAL || (primary == AP_OK && call.name == "CMDEAL");
        CM_RETURN_CODE result = rc;
        if (mode == CM_NON_BLOCKING) {
          ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE) << what;
          EXPECT_EQ(std::pair(snt_submitted_with_routine(0), pGCB->NumVerbsOutstanding),
                    std::pair(1, 1u))
              << what;
          ASSERT_EQ(snt_complete_pending(0), 1) << what;
          EXPECT_EQ(std::pair(pGCB->NumVerbsOutstanding, pGCB->NumVerbsWaiting), std::pair(0u, 1u))
              << what;
          EXPECT_EQ(cccb_of(id), cccb) << what << ": kept until collected";
          const Waited w = wait_one();
          EXPECT_EQ(w.id, id) << what;
          result = w.conversation_rc;
          EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << what << ": one completion only";
        }
        EXPECT_EQ(result == CM_OK, primary == AP_OK) << what;
        EXPECT_EQ(known(id), !ends) << what;
        if (!ends) continue;
        EXPECT_EQ(call.run(id), CM_PROGRAM_PARAMETER_CHECK) << what;
        EXPECT_EQ(problems(), (Probes{{kProblemUnknownConversation, call.probe}})) << what;
      }
    }
  }
}

// The library states a conversation record can be in, as the calls test them.
enum State { kReset, kInitialize, kIncoming, kActive, kBusy, kConfirmPending };

void enter(State state, ConvId &id) {
  if (state == kReset) {
    start_library();
    id = ConvId{0x55, 0x66, 0x77, 0x01};
  } else if (state == kInitialize) {
    initialized_conversation(id);
  } else if (state == kIncoming) {
    incoming_conversation(id);
  } else if (state == kBusy) {  // a non-blocking flush in progress
    active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
    push(NAP_FLUSH, AP_OK, 0, 1);
    ASSERT_EQ(rc_of(cmflus)(id), CM_OPERATION_INCOMPLETE);
  } else {
    active_conversation(id)->fConfirmRequested = state == kConfirmPending;
  }
}

// Each call in each state: a return code before the node is asked, or kNode
// when the verb goes to the node (whose default answer is success).
TEST_F(Conversations, StateRulesOfEveryCall) {
  constexpr CM_RETURN_CODE kNode = 1000;
  const std::array<CM_RETURN_CODE, 6> verb = {24, 25, 25, kNode, 37, kNode};
  const std::map<std::string, std::array<CM_RETURN_CODE, 6>> special = {
      {"CMTRTS", {24, 25, 25, kNode, 37, 25}},
      {"CMECS", {24, 0, 0, kNode, 37, kNode}},
      {"CMACCI", {24, 25, kNode, 25, 37, 25}},
      {"CMALLC", {24, kNode, 25, 25, 37, 25}}};
  for (const Call &call : kCalls) {
    const auto outcomes = special.count(call.name) ? special.at(call.name) : verb;
    for (int s = kReset; s <= kConfirmPending; ++s) {
      const std::string what = call.name + " in state " + std::to_string(s);
      restart_node();
      ConvId id{};
      enter(static_cast<State>(s), id);
      CCCB *cccb = cccb_of(id);
      Vcb area_before{};
      if (cccb != nullptr) std::memcpy(area_before.data(), cccb->vcb.bytes, area_before.size());
      const uint32_t submitted_before = snt_submitted_count();
      const CM_RETURN_CODE rc = call.run(id);
      if (outcomes[s] == kNode) {
        EXPECT_EQ(rc, CM_OK) << what;
        EXPECT_GT(snt_submitted_count(), submitted_before) << what;
        continue;
      }
      EXPECT_EQ(rc, outcomes[s]) << what;
      // A refused allocate still starts a TP and ends it again.
      const bool tp_round_trip = call.name == "CMALLC" && s != kReset;
      const std::vector<uint16_t> none, round_trip = {NAP_START_TP, NAP_TP_ENDED};
      EXPECT_EQ(submitted_opcodes(submitted_before), tp_round_trip ? round_trip : none) << what;
      if (tp_round_trip) {
        EXPECT_EQ(submitted(submitted_before + 1)[20], 1) << what << ": ended hard";
      }
      if (cccb != nullptr) {
        EXPECT_EQ(std::memcmp(area_before.data(), cccb->vcb.bytes, area_before.size()), 0)
            << what << ": a refused call leaves the verb area alone";
      }
      if (s == kReset) {
        const Probes reported = {{kProblemUnknownConversation, call.probe}};
        EXPECT_EQ(problems(), call.name == "CMECS" ? Probes{} : reported) << what;
      }
      if (call.name == "CMECS" && rc == CM_OK) {
        EXPECT_EQ(g_out.state,
                  s == kInitialize ? CM_INITIALIZE_STATE : CM_INITIALIZE_INCOMING_STATE)
            << what;
      }
    }
  }
}

// The next verb drops a completion nobody collected.
TEST_F(Conversations, TheNextVerbDropsAnUncollectedCompletion) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, CM_NON_BLOCKING);
  push(NAP_FLUSH, AP_PROG_ERROR_NO_TRUNC, 0, 1);
  ASSERT_EQ(rc_of(cmflus)(id), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(pGCB->NumVerbsWaiting, 1u);
  push(NAP_REQUEST_TO_SEND, AP_OK, 0, 1);
  ASSERT_EQ(rc_of(cmrts)(id), CM_OPERATION_INCOMPLETE);
  EXPECT_TRUE(pGCB->NumVerbsWaiting == 0 && cccb->fCompletionWaiting == 0);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK, "the flush result is gone");
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(Conversations, NodeStatesAreTranslated) {
  // clang-format off
  const std::pair<uint8_t, CM_CONVERSATION_STATE> rows[] = {
      {0, CM_INITIALIZE_STATE}, {1, CM_SEND_STATE}, {2, CM_RECEIVE_STATE}, {3, CM_CONFIRM_STATE},
      {4, CM_CONFIRM_SEND_STATE}, {5, CM_CONFIRM_DEALLOCATE_STATE}, {9, CM_SEND_PENDING_STATE},
      {6, -1}, {8, -1}, {10, -1}};
  // clang-format on
  auto answer = [](void *vcb, void *state) {
    static_cast<NAP_GET_STATE_VCB *>(vcb)->conv_state = *static_cast<uint8_t *>(state);
  };
  for (auto [node_state, expected] : rows) {
    SCOPED_TRACE(int{node_state});
    restart_node();
    ConvId id{};
    // Non-blocking conversations get their state synchronously too.
    active_conversation(id, CM_BASIC_CONVERSATION, CM_NON_BLOCKING);
    push(NAP_GET_STATE, AP_OK, 0, 0, answer, &node_state);
    g_out.state = -1;
    EXPECT_EQ(run("CMECS", id), expected >= 0 ? CM_OK : CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_EQ(snt_submitted_with_routine(0), 0);
    EXPECT_EQ(g_out.state, expected);
    EXPECT_EQ(problems(), (expected >= 0 ? Probes{} : Probes{{kProblemBadState, 0}}));
    EXPECT_EQ(cccb_of(id)->usProcessingMode, 1) << "the processing mode is left as it was";
  }
  // A refused GET_STATE is a product error and ends nothing.
  restart_node();
  ConvId id{};
  active_conversation(id);
  push(NAP_GET_STATE, AP_DEALLOC_NORMAL);
  EXPECT_EQ(run("CMECS", id), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(problem(0).code, kProblemGetStateFailed);
  EXPECT_TRUE(known(id));
}

// ---- Send_Data, Send_Error and Confirmed ----

unsigned char *library_log_data(const std::vector<uint8_t> &data) {
  unsigned char *block = kept_block(data.size());
  std::memcpy(block, data.data(), data.size());
  return block;
}

struct Received {
  CM_INT32 data = -1, length = -1, status = -1, rts = -1;
  CM_RETURN_CODE rc = -1;
};
Received receive(ConvId &id, CM_INT32 requested) {
  Received r;
  cmrcv(id.data(), g_out.buffer, &requested, &r.data, &r.length, &r.status, &r.rts, &r.rc);
  return r;
}
CM_RETURN_CODE send(ConvId &id, CM_INT32 length) {
  g_out.length = length;
  return run("CMSEND", id);
}

TEST_F(Conversations, LengthsAboveTheLimitAreRefusedBeforeTheNodeIsAsked) {
  const std::pair<CM_INT32, bool> cases[] = {{0, true}, {32767, true}, {32768, false}, {-1, false}};
  for (bool sending : {true, false}) {
    for (const auto &[length, accepted] : cases) {
      SCOPED_TRACE(testing::Message() << (sending ? "send " : "receive ") << length);
      restart_node();
      ConvId id{};
      active_conversation(id);
      const Received r = sending ? Received{.rc = send(id, length)} : receive(id, length);
      EXPECT_EQ(r.rc, accepted ? CM_OK : CM_PROGRAM_PARAMETER_CHECK);
      ASSERT_EQ(snt_submitted_count(), accepted ? 1u : 0u);
      if (accepted) {
        const Vcb vcb = submitted(0);
        EXPECT_EQ(vcb[sending ? 26 : 30] | (vcb[sending ? 27 : 31] << 8), length);
      } else {
        EXPECT_EQ(problems(), (Probes{{kProblemBadLength, sending ? 1u : 0u}}));
        EXPECT_EQ(static_cast<uint32_t>(problem(0).args[0]), static_cast<uint32_t>(length));
      }
      if (!sending) {
        EXPECT_EQ(r.length, 0) << "cleared before any check";
        EXPECT_EQ(r.data, accepted ? 0 : -1) << "untouched when refused";
      }
    }
  }
  g_out.length = 16;
}

TEST_F(Conversations, LogDataGoesOnceAndIsNeededWhereItIsSent) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION);
  cccb->ulErrorDirection = CM_SEND_ERROR;
  cccb->pLogData = library_log_data({1, 2, 3, 4});
  cccb->usLogDataLength = 4;
  const void *log_data = cccb->pLogData;
  EXPECT_EQ(run("CMSERR", id), CM_OK);
  expect_record(submitted(0),
                header(NAP_SEND_ERROR, 0) +
                    std::vector<Field>{{26, u8(1)}, {28, u16(4)}, {32, ptr(log_data)}},
                "first send error");
  EXPECT_TRUE(cccb->pLogData == nullptr && cccb->usLogDataLength == 0);
  EXPECT_EQ(run("CMSERR", id), CM_OK);
  expect_record(submitted(1), header(NAP_SEND_ERROR, 0) + std::vector<Field>{{26, u8(1)}},
                "second send error");

  // A length without a copy is refused without submitting: by Send_Error, by
  // Deallocate, and by Send_Data for its follow-on.
  fresh_node();
  cccb->usLogDataLength = 3;
  EXPECT_EQ(run("CMSERR", id), CM_PRODUCT_SPECIFIC_ERROR);
  with(*cccb, CM_BUFFER_DATA, CM_DEALLOCATE_ABEND);
  EXPECT_EQ(run("CMDEAL", id), CM_PRODUCT_SPECIFIC_ERROR);
  with(*cccb, CM_SEND_AND_DEALLOCATE, CM_DEALLOCATE_ABEND);
  EXPECT_EQ(send(id, 1), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(problems(),
            (Probes{{kProblemLogData, 2}, {kProblemLogData, 1}, {kProblemNoResource, 16}}));
  EXPECT_EQ(cccb->usVerbsOutstanding, 0);
  EXPECT_EQ(cccb->DeallcLogData, nullptr);
  EXPECT_TRUE(known(id));
}

CCCB *abend_with_log_data(ConvId &id, uint16_t processing_mode = 0) {
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, processing_mode);
  with(*cccb, CM_SEND_AND_DEALLOCATE, CM_DEALLOCATE_ABEND);
  cccb->pLogData = library_log_data({9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
  cccb->usLogDataLength = 10;
  return cccb;
}

TEST_F(Conversations, SendAndDeallocateAbendSendsDataThenDeallocate) {
  ConvId id{};
  abend_with_log_data(id);
  const uint32_t kept_before = snt_blocks_in_use(kMemKept);
  const void *library_copy = cccb_of(id)->pLogData;
  static std::vector<uint8_t> sent;
  push(NAP_DEALLOCATE, AP_OK, 0, 0, [](void *vcb, void *) {
    const auto &verb = *static_cast<NAP_DEALLOCATE_VCB *>(vcb);
    sent.assign(verb.log_data_pointer, verb.log_data_pointer + verb.log_data_length);
  });
  EXPECT_EQ(send(id, 3), CM_OK);
  EXPECT_EQ(submitted_opcodes(),
            (std::vector<uint16_t>{NAP_SEND_DATA, NAP_DEALLOCATE, NAP_TP_ENDED}));
  expect_record(submitted(0),
                header(NAP_SEND_DATA, 0) +
                    std::vector<Field>{{26, u16(3)}, {32, ptr(g_out.buffer)}, {40, u8(0)}},
                "the data first");
  // The DEALLOCATE carries the log data in a copy of its own.
  const Vcb deallocate = submitted(1);
  void *copy = nullptr;
  std::memcpy(&copy, &deallocate[32], sizeof copy);
  EXPECT_NE(copy, library_copy);
  expect_record(
      deallocate,
      header(NAP_DEALLOCATE, 0) + std::vector<Field>{{25, u8(2)}, {26, u16(10)}, {32, ptr(copy)}},
      "then the deallocate");
  EXPECT_EQ(sent, (std::vector<uint8_t>{9, 8, 7, 6, 5, 4, 3, 2, 1, 0}));
  EXPECT_FALSE(known(id));
  // The record, its log data and the copy are all given back.
  EXPECT_EQ(snt_blocks_in_use(kMemKept), kept_before - 2);

  // A failed follow-on still ends the conversation; failed data keeps it and
  // drops only the copy.
  for (uint16_t failing : {NAP_DEALLOCATE, NAP_SEND_DATA}) {
    restart_node();
    ConvId other{};
    CCCB *cccb = abend_with_log_data(other);
    push(failing, AP_STATE_CHECK);
    EXPECT_EQ(send(other, 1), CM_PROGRAM_STATE_CHECK);
    EXPECT_EQ(known(other), failing == NAP_SEND_DATA);
    if (failing == NAP_SEND_DATA) {
      EXPECT_EQ(snt_submitted_count(), 1u);
      EXPECT_TRUE(cccb->DeallcLogData == nullptr && cccb->usDeallcLogDataLength == 0);
      EXPECT_NE(cccb->pLogData, nullptr) << "the program's log data stays set";
    }
    EXPECT_EQ(snt_assert_count(), 0u);
  }

  // Non-blocking, the two verbs make one completion.
  restart_node();
  abend_with_log_data(id, CM_NON_BLOCKING);
  push(NAP_SEND_DATA, AP_OK, 0, 1);
  push(NAP_DEALLOCATE, AP_OK, 0, 1);
  ASSERT_EQ(send(id, 1), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_EQ(std::pair(pGCB->NumVerbsWaiting, pGCB->NumVerbsOutstanding), std::pair(0u, 1u))
      << "nothing to collect before the DEALLOCATE completes";
  EXPECT_EQ(submitted_opcodes(), (std::vector<uint16_t>{NAP_SEND_DATA, NAP_DEALLOCATE}));
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_FALSE(known(id));
  EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << "exactly one completion";
}

TEST_F(Conversations, RequestToSendComesFromTheNodeEvenOnFailure) {
  for (const char *name : {"CMSEND", "CMCFM", "CMSERR"}) {
    for (uint16_t primary : {AP_OK, AP_STATE_CHECK}) {
      ConvId id{};
      active_conversation(id);
      push(0, primary, 0, 0, [](void *vcb, void *) { static_cast<uint8_t *>(vcb)[24] = 1; });
      g_out.rts = -1;
      EXPECT_EQ(run(name, id), primary == AP_OK ? CM_OK : CM_PROGRAM_STATE_CHECK) << name;
      EXPECT_EQ(g_out.rts, CM_REQ_TO_SEND_RECEIVED) << name << " primary " << primary;
    }
  }
}

TEST_F(Conversations, ConfirmationFlagsAreClearedAndAConfirmedDeallocationEnds) {
  ConvId plain{}, dealloc{}, error{};
  CCCB *cccb = active_conversation(plain);
  cccb->fConfirmRequested = 1;
  EXPECT_EQ(run("CMCFMD", plain), CM_OK);
  EXPECT_EQ(cccb->fConfirmRequested, 0);
  EXPECT_TRUE(known(plain));

  cccb = active_conversation(dealloc);
  cccb->fConfirmRequested = cccb->fConfirmDeallocReceived = 1;
  push(NAP_CONFIRMED, AP_STATE_CHECK);
  EXPECT_EQ(run("CMCFMD", dealloc), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb->fConfirmRequested, 1) << "a refused Confirmed ends nothing";
  EXPECT_EQ(run("CMCFMD", dealloc), CM_OK);
  EXPECT_FALSE(known(dealloc)) << "confirming a deallocation ends the conversation";

  cccb = active_conversation(error);
  cccb->fConfirmRequested = cccb->fConfirmDeallocReceived = 1;
  EXPECT_EQ(run("CMSERR", error), CM_OK);
  EXPECT_EQ(cccb->fConfirmRequested + cccb->fConfirmDeallocReceived, 0);
}

// ---- Receive and Test_Request_To_Send_Received ----

struct ReceiveAnswer {
  uint16_t what_received, data_length;
  uint8_t rts;
};
void answer_receive(void *vcb, void *context) {
  auto &verb = *static_cast<NAP_RECEIVE_VCB *>(vcb);
  const auto &answer = *static_cast<const ReceiveAnswer *>(context);
  verb.what_received = answer.what_received;
  verb.data_length = answer.data_length;
  verb.rts_received = answer.rts;
}

TEST_F(Conversations, WhatReceivedIsSplitIntoDataAndStatus) {
  // clang-format off
  const struct {
    uint16_t what;
    CM_INT32 data, status;
    uint16_t confirm_requested, confirm_dealloc;
    uint32_t assertions;
  } rows[] = {
      {0x0000, 0, 0, 0, 0, 0}, {0x0001, 0, 1, 0, 0, 0}, {0x0002, 0, 2, 1, 0, 0},
      {0x0003, 0, 3, 1, 0, 0}, {0x0004, 0, 4, 1, 1, 0}, {0x0100, 1, 0, 0, 0, 0},
      {0x0103, 1, 3, 1, 0, 0}, {0x0104, 1, 4, 1, 1, 0}, {0x0200, 2, 0, 0, 0, 0},
      {0x0202, 2, 2, 1, 0, 0}, {0x0400, 3, 0, 0, 0, 0}, {0x0105, 0, 0, 0, 0, 2},
      {0x0401, 0, 0, 0, 0, 2}, {0x0300, 0, 0, 0, 0, 2}, {0xFFFF, 0, 0, 0, 0, 2},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    restart_node();
    ConvId id{};
    CCCB *cccb = active_conversation(id);
    ReceiveAnswer answer{row.what, 42, 1};
    push(0, AP_OK, 0, 0, answer_receive, &answer);
    const Received r = receive(id, 50);
    EXPECT_EQ(r.rc, CM_OK);
    EXPECT_EQ(std::vector<CM_INT32>({r.data, r.status, r.length, r.rts}),
              std::vector<CM_INT32>({row.data, row.status, 42, 1}));
    EXPECT_EQ(std::pair(cccb->fConfirmRequested, cccb->fConfirmDeallocReceived),
              std::pair(row.confirm_requested, row.confirm_dealloc));
    EXPECT_EQ(assertions(), std::vector<std::string>(row.assertions, "vcpic/cpiccal3: FALSE"));
  }
  // The outputs are written after a failure too; a purged record does not
  // end the conversation.
  ConvId id{};
  active_conversation(id);
  ReceiveAnswer answer{0x0100, 7, 0};
  push(0, AP_PROG_ERROR_PURGING, 0, 0, answer_receive, &answer);
  const Received r = receive(id, 10);
  EXPECT_EQ(r.rc, CM_PROGRAM_ERROR_PURGING);
  EXPECT_EQ(std::vector<CM_INT32>({r.data, r.length, r.rts}),
            std::vector<CM_INT32>({CM_DATA_RECEIVED, 7, 0}));
  EXPECT_TRUE(known(id));
}

TEST_F(Conversations, NonBlockingReceiveWritesOutputsAtCompletion) {
  ConvId id{};
  active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  static ReceiveAnswer answer{0x0203, 12, 1};
  push(0, AP_OK, 0, 1, answer_receive, &answer);
  g_out.received = -1;
  ASSERT_EQ(run("CMRCV", id), CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(g_out.received, 0);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_EQ(std::vector<CM_INT32>({g_out.data, g_out.status, g_out.received, g_out.rts}),
            std::vector<CM_INT32>({CM_COMPLETE_DATA_RECEIVED, CM_CONFIRM_SEND_RECEIVED, 12, 1}));
}

TEST_F(Conversations, TestRequestToSendIsSynchronousAndAnswersFromThePrimary) {
  const std::tuple<uint16_t, CM_RETURN_CODE, CM_INT32> rows[] = {
      {AP_OK, CM_OK, CM_REQ_TO_SEND_RECEIVED},
      {AP_UNSUCCESSFUL, CM_OK, CM_REQ_TO_SEND_NOT_RECEIVED},
      {AP_STATE_CHECK, CM_PROGRAM_STATE_CHECK, -1},  // -1: left as it was
      {AP_DEALLOC_ABEND, CM_DEALLOCATED_ABEND, -1},
  };
  for (const auto &[primary, rc, rts] : rows) {
    SCOPED_TRACE(primary);
    restart_node();
    ConvId id{};
    active_conversation(id, CM_BASIC_CONVERSATION, CM_NON_BLOCKING);
    push(NAP_TEST_RTS, primary);
    g_out.rts = -1;
    EXPECT_EQ(run("CMTRTS", id), rc);
    EXPECT_EQ(g_out.rts, rts);
    EXPECT_EQ(known(id), primary != AP_DEALLOC_ABEND);
    EXPECT_EQ(snt_submitted_with_routine(0) + pGCB->NumVerbsWaiting + pGCB->NumVerbsOutstanding,
              0u);
  }
}

// ---- Deallocate ----

TEST_F(Conversations, DeallocateOfAConversationNeverAllocatedIsLocalAndOnlyByAbend) {
  ConvId fresh{}, incoming{};
  CCCB *cccb = initialized_conversation(fresh);
  cccb->ulDeallocateType = CM_DEALLOCATE_FLUSH;
  EXPECT_EQ(run("CMDEAL", fresh), CM_PROGRAM_STATE_CHECK);
  EXPECT_TRUE(known(fresh)) << "still usable";
  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  EXPECT_EQ(run("CMDEAL", fresh), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 0u) << "purely local";
  EXPECT_FALSE(known(fresh));
  incoming_conversation(incoming)->ulDeallocateType = CM_DEALLOCATE_ABEND;
  EXPECT_EQ(run("CMDEAL", incoming), CM_PROGRAM_STATE_CHECK);
  EXPECT_TRUE(known(incoming));
}

TEST_F(Conversations, DeallocateWritesAnAuditRecord) {
  ConvId id{};
  std::memcpy(active_conversation(id)->SideInfo.local_LU_alias, "LUALIAS1", 8);
  ASSERT_EQ(run("CMDEAL", id), CM_OK);
  ASSERT_EQ(snt_audit_count(), 1u);
  const SNT_RECORD r = audit(0);
  EXPECT_EQ(
      std::tuple(r.code, std::string(r.arg_types), bytes(r.bytes[0], 8), text_of(r.bytes[1], 8)),
      std::tuple(kAuditDeallocated, "ba ca", bytes(id.data(), 8), "LUALIAS1"));
}

// ---- Allocate ----

const unsigned char kLocalLu[8] = {'L', 'O', 'C', 'A', 'L', 'L', 'U', ' '};

// An initialised conversation with side information as CMINIT would fill it.
CCCB *ready_to_allocate(ConvId &id, bool qualified = false, uint32_t security = CM_SECURITY_NONE) {
  CCCB *cccb = initialized_conversation(id);
  SCD_ENTRY &side = cccb->SideInfo;
  if (qualified) {
    std::memcpy(side.partner_LU_name, ebcdic_field("NETA.PARTNER", 17).data(), 17);
    side.usPartnerLUQualified = 1;
  } else {
    std::memcpy(side.partner_LU_name, "PARTNER1", 8);
  }
  std::memset(side.mode_name, 0xD4, 3);
  std::memset(side.TP_name, 0xE3, 5);
  side.conversation_security_type = security;
  std::memset(side.security_user_ID, 0xE4, 10);
  std::memset(side.security_password, 0xD7, 10);
  std::memcpy(cccb->LocalLUName, kLocalLu, 8);
  cccb->ulSyncLevel = CM_CONFIRM;
  cccb->ulReturnControl = 1;
  return cccb;
}

TEST_F(Conversations, AllocateRecordsFollowSideInformation) {
  for (auto [qualified, security] :
       {std::pair{false, CM_SECURITY_SAME}, std::pair{true, CM_SECURITY_PROGRAM}}) {
    SCOPED_TRACE(qualified);
    restart_node();
    ConvId id{};
    CCCB *cccb = ready_to_allocate(id, qualified, security);
    ASSERT_EQ(run("CMALLC", id), CM_OK);
    ASSERT_EQ(snt_submitted_count(), 2u);
    expect_record(submitted(0),
                  {{0, u16(NAP_START_TP)}, {12, raw(kLocalLu, 8)}, {28, raw(pGCB->TpName, 64)}},
                  "start TP");
    const SCD_ENTRY &side = cccb->SideInfo;
    std::vector<Field> fields = {{0, u16(NAP_B_ALLOCATE)},
                                 {2, u8(1)},
                                 {3, u8(1)},
                                 {12, raw(cccb->TpId, 8)},
                                 {25, u8(CM_CONFIRM)},
                                 {28, u8(1)},
                                 {48, raw(side.mode_name, 8)},
                                 {56, raw(side.TP_name, 64)},
                                 {120, u8(static_cast<uint8_t>(security))},
                                 {142, raw(side.security_user_ID, 10)}};
    if (qualified) {
      fields.push_back({132, raw(side.security_password, 10)});
      fields.push_back({169, raw(side.partner_LU_name, 17)});
    } else {
      fields.push_back({40, raw("PARTNER1", 8)});
    }
    expect_record(submitted(1), fields, "allocate");
    EXPECT_NE(cccb->ulAppcConvId, 0u);
  }
}

TEST_F(Conversations, EachAllocateWithoutContextStartsItsOwnTp) {
  ConvId first{}, second{}, quiet{};
  CCCB *a = ready_to_allocate(first);
  CCCB *b = ready_to_allocate(second);
  ASSERT_EQ(run("CMALLC", first), CM_OK);
  ASSERT_EQ(run("CMALLC", second), CM_OK);
  EXPECT_NE(std::memcmp(a->TpId, b->TpId, 8), 0);
  EXPECT_EQ(text_of(pGCB->CurrentContext, 8), std::string(8, '\0')) << "none becomes current";
  // TP started, allocated, for each conversation.
  const std::pair<uint32_t, const unsigned char *> expected[] = {{kAuditTpStarted, a->TpId},
                                                                 {kAuditAllocated, first.data()},
                                                                 {kAuditTpStarted, b->TpId},
                                                                 {kAuditAllocated, second.data()}};
  ASSERT_EQ(snt_audit_count(), 4u);
  for (uint32_t n = 0; n < 4; ++n) {
    EXPECT_EQ(audit(n).code, expected[n].first);
    EXPECT_EQ(bytes(audit(n).bytes[0], 8), bytes(expected[n].second, 8));
  }
  EXPECT_STREQ(audit(1).arg_types, "ba ca");
  suppress_audit_records();
  ready_to_allocate(quiet);
  ASSERT_EQ(run("CMALLC", quiet), CM_OK);
  EXPECT_EQ(snt_audit_count(), 4u);

  // The current context of the same LU is used instead; another LU's is not.
  fresh_node();
  ConvId same{}, other{};
  CCCB *cccb = ready_to_allocate(same);
  std::memset(pGCB->CurrentContext, 9, 8);
  std::memcpy(pGCB->CurrentContextLU, kLocalLu, 8);
  ASSERT_EQ(run("CMALLC", same), CM_OK);
  EXPECT_EQ(bytes(cccb->TpId, 8), Bytes(8, 9));
  std::memcpy(ready_to_allocate(other)->LocalLUName, "OTHERLU ", 8);
  ASSERT_EQ(run("CMALLC", other), CM_OK);
  EXPECT_EQ(submitted_opcodes(),
            (std::vector<uint16_t>{NAP_B_ALLOCATE, NAP_START_TP, NAP_B_ALLOCATE}));
}

TEST_F(Conversations, AllocateFailuresEndTheTpOrTheConversation) {
  const std::vector<uint16_t> start = {NAP_START_TP}, alloc = {NAP_START_TP, NAP_B_ALLOCATE},
                              end = {NAP_START_TP, NAP_B_ALLOCATE, NAP_TP_ENDED};
  // clang-format off
  const struct {
    uint16_t opcode, primary;
    uint32_t secondary;
    CM_RETURN_CODE rc;
    const std::vector<uint16_t> &verbs;
    bool ends;  // the conversation
  } rows[] = {
      {NAP_START_TP, AP_PARAMETER_CHECK, AP_UNKNOWN_PARTNER_LU, CM_PARAMETER_ERROR, start, true},
      {NAP_B_ALLOCATE, AP_PARAMETER_CHECK, AP_BAD_MODE_NAME, CM_PARAMETER_ERROR, end, false},
      {NAP_B_ALLOCATE, AP_PARAMETER_CHECK, AP_BAD_FIELD, CM_PROGRAM_PARAMETER_CHECK, end, false},
      {NAP_B_ALLOCATE, AP_UNSUCCESSFUL, 0, CM_UNSUCCESSFUL, end, false},
      {NAP_B_ALLOCATE, AP_STATE_CHECK, 0, CM_PROGRAM_STATE_CHECK, alloc, false},
      {NAP_B_ALLOCATE, AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_RETRY, CM_ALLOCATE_FAILURE_RETRY, end, true},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(row.primary);
    restart_node();
    ConvId id{};
    CCCB *cccb = ready_to_allocate(id);
    push(row.opcode, row.primary, row.secondary);
    EXPECT_EQ(run("CMALLC", id), row.rc);
    EXPECT_EQ(submitted_opcodes(), row.verbs);
    EXPECT_EQ(known(id), !row.ends);
    if (!row.ends) {
      EXPECT_EQ(cccb->ulAppcConvId, 0u) << "still in Initialize state";
    }
  }
}

TEST_F(Conversations, NonBlockingAllocateCompletesThroughWaitOrIsCancelled) {
  for (bool cancel_pending : {false, true}) {
    restart_node();
    ConvId id{};
    CCCB *cccb = ready_to_allocate(id);
    cccb->usProcessingMode = CM_NON_BLOCKING;
    push(NAP_B_ALLOCATE, AP_OK, 0, 1);
    EXPECT_EQ(run("CMALLC", id), CM_OPERATION_INCOMPLETE);
    EXPECT_EQ(snt_submitted_with_routine(0), 0) << "the TP start is synchronous";
    EXPECT_EQ(snt_submitted_with_routine(1), 1);
    EXPECT_EQ(cccb->ulAppcConvId, 0u);
    cccb->fCancelPending = cancel_pending;  // as CMCANC leaves it while the ALLOCATE is out
    ASSERT_EQ(snt_complete_pending(0), 1);
    if (!cancel_pending) {
      EXPECT_NE(cccb->ulAppcConvId, 0u);
      expect_completion(id, CM_OK);
      continue;
    }
    // The new conversation is cancelled at the node.
    ASSERT_EQ(snt_submitted_count(), 3u);
    const Vcb cancel = submitted(2);
    EXPECT_NE(cancel[20] | cancel[21] | cancel[22] | cancel[23], 0) << "the new conversation";
    expect_record(
        cancel,
        {{0, u16(NAP_CANCEL)}, {2, u8(1)}, {12, raw(cccb->TpId, 8)}, {20, raw(&cancel[20], 4)}},
        "cancel");
    EXPECT_TRUE(cccb->ulAppcConvId == 0 && cccb->fCancelPending == 0);
    EXPECT_EQ(problems(), (Probes{{kProblemCancelPending, 1}}));
    EXPECT_EQ(wait_one().conversation_rc, CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_FALSE(known(id));
  }
}

// ---- Accept and the local TP names ----

Bytes ebcdic_tp_name(const std::string &name) {
  Bytes out(64, 0x40);
  for (size_t i = 0; i < name.size(); ++i) out[i] = name[i] == '_' ? 0x6D : ebcdic(name[i]);
  return out;
}

// The incoming conversation the node reports, and the names it was offered.
struct Incoming {
  Bytes tp_name = ebcdic_tp_name("CPIC_DEFAULT_TPNAME");
  bool with_user = false;
  uint8_t tp_id[8] = {0xAB, 0xCD, 0, 0, 0, 0, 0, 7};
  std::vector<Bytes> offered;
};
void answer_allocation(void *vcb, void *context) {
  auto &verb = *static_cast<NAP_RECEIVE_ALLOCATE *>(vcb);
  auto &in = *static_cast<Incoming *>(context);
  in.offered.clear();
  for (uint32_t i = 0; i < verb.tp_name_count; ++i) {
    in.offered.push_back(bytes(verb.tp_name_list + 64 * i, 64));
  }
  std::memcpy(verb.rcv_tp_name, in.tp_name.data(), 64);
  std::memcpy(verb.tp_id, in.tp_id, 8);
  verb.conv_id = 0x99;
  verb.rcv_sync_level = 1;
  verb.rcv_conv_type = 0;
  std::memset(verb.rcv_user_id, 0x40, 10);
  if (in.with_user) std::memset(verb.rcv_user_id, 0xE4, 4);
  std::memcpy(verb.rcv_lu_alias, "LU2 X   ", 8);
  std::memcpy(verb.rcv_mode_name, ebcdic_field("BATCH1", 8).data(), 8);
  std::memcpy(verb.rcv_partner_lu_name, ebcdic_field("NETA.PARTNERLUXYZ", 17).data(), 17);
}

const auto accept_conversation = rc_of(cmaccp);

TEST_F(Conversations, AcceptDefinesTheProcessNameOnceAndCopiesTheIncomingConversation) {
  Incoming in;
  push(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in);
  ConvId first{}, second{};
  ASSERT_EQ(accept_conversation(first), CM_OK);
  EXPECT_EQ(submitted_opcodes(),
            (std::vector<uint16_t>{NAP_DEFINE_LOCAL_TP, NAP_RECEIVE_ALLOCATE_CPIC}));
  Vcb define = submitted(0);
  std::fill(define.begin() + 76, define.end(), 0);  // the block is 76 bytes
  expect_record(define, {{0, u16(NAP_DEFINE_LOCAL_TP)}, {12, in.tp_name}}, "define");
  EXPECT_EQ(in.offered, std::vector<Bytes>{in.tp_name});
  const Vcb record = submitted(1);
  expect_record(record,
                {{0, u16(NAP_RECEIVE_ALLOCATE_CPIC)},
                 {3, u8(1)},
                 {84, raw(first.data(), 4)},
                 {192, u32(1)},
                 {200, raw(&record[200], sizeof(void *))}},
                "receive allocate");
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u) << "the name list is given back";

  const CCCB *cccb = cccb_of(first);
  const SCD_ENTRY &s = cccb->SideInfo;
  EXPECT_EQ(std::tuple(cccb->fInitializeState, cccb->ulAppcConvId, cccb->ulSyncLevel,
                       cccb->ulConversationType),
            std::tuple(0, 0x99u, 1u, 0u));
  EXPECT_EQ(bytes(cccb->TpId, 8), bytes(in.tp_id, 8));
  EXPECT_EQ(bytes(s.TP_name, 64), in.tp_name);
  EXPECT_EQ(bytes(s.mode_name, 8), ebcdic_field("BATCH1", 8));
  EXPECT_EQ(bytes(s.partner_LU_name, 17), ebcdic_field("NETA.PARTNERLUXYZ", 17));
  EXPECT_EQ(std::vector<int>({s.usModeNameLen, s.usUserIDLen, s.usPartnerLULen,
                              s.usPartnerLUPeriodPos, s.usPartnerLUQualified}),
            std::vector<int>({6, 0, 17, 4, 1}));
  EXPECT_EQ(text_of(cccb->LocalLUName, 8), "LU2     ") << "cut at the first blank";
  ASSERT_EQ(snt_audit_count(), 1u);
  EXPECT_EQ(audit(0).code, kAuditAccepted);
  EXPECT_EQ(bytes(audit(0).bytes[0], 8), bytes(first.data(), 8));

  suppress_audit_records();
  push(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in);
  ASSERT_EQ(accept_conversation(second), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 3u) << "defined once per process";
  EXPECT_NE(first, second);
  EXPECT_EQ(snt_audit_count(), 1u);
}

CM_RETURN_CODE specify(std::string name, CM_INT32 length) {
  return rc_call(cmsltp, reinterpret_cast<unsigned char *>(name.data()), &length);
}
CM_RETURN_CODE specify(const std::string &name) {
  return specify(name, static_cast<CM_INT32>(name.size()));
}
CM_RETURN_CODE release(std::string name) {
  CM_INT32 length = static_cast<CM_INT32>(name.size());
  return rc_call(cmrltp, reinterpret_cast<unsigned char *>(name.data()), &length);
}

TEST_F(Conversations, AcceptOffersTheSpecifiedNamesAndTheEnvironmentsInTableOrder) {
  setenv("APPCTPN", "PAYROLL", 1);
  ASSERT_EQ(specify("TPA"), CM_OK);
  ASSERT_EQ(specify("TPB"), CM_OK);
  Incoming in;
  in.tp_name = ebcdic_tp_name("TPB");
  push(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in);
  ConvId id{};
  ASSERT_EQ(accept_conversation(id), CM_OK);
  EXPECT_EQ(in.offered, (std::vector<Bytes>{ebcdic_tp_name("TPA"), ebcdic_tp_name("TPB"),
                                            ebcdic_tp_name("PAYROLL")}));
  EXPECT_EQ(pGCB->NumLocTPNames, 3);
  // The record remembers which of its names was allocated.
  const auto *matched = static_cast<LOCAL_TP_RECORD *>(
      vtm_get_pointer(pGCB->LocTPNameTable, cccb_of(id)->ulLocTPNameHandle));
  ASSERT_NE(matched, nullptr);
  EXPECT_EQ(bytes(matched->TPName, 64), ebcdic_tp_name("TPB"));
}

TEST_F(Conversations, AcceptIncomingWithAUserIdMakesTheIncomingTpCurrent) {
  for (bool with_user : {false, true}) {
    SCOPED_TRACE(with_user);
    start_library();
    std::memset(pGCB->CurrentContext, 1, 8);
    Incoming in;
    in.with_user = with_user;
    push(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in);
    ConvId id{};
    ASSERT_EQ(rc_call(cminic, id.data()), CM_OK);
    const uint32_t before = snt_submitted_count();
    ASSERT_EQ(run("CMACCI", id), CM_OK);
    // The unused previous context is ended either way.
    const auto verbs = submitted_opcodes(before);
    ASSERT_EQ(std::count(verbs.begin(), verbs.end(), NAP_TP_ENDED), 1);
    const auto ended = std::find(verbs.begin(), verbs.end(), NAP_TP_ENDED) - verbs.begin();
    EXPECT_EQ(bytes(&submitted(before + ended)[12], 8), Bytes(8, 1));
    EXPECT_EQ(bytes(pGCB->CurrentContext, 8), with_user ? bytes(in.tp_id, 8) : Bytes(8, 1));
    if (with_user) {
      EXPECT_EQ(text_of(pGCB->CurrentContextLU, 8), "LU2 X   ");
      EXPECT_EQ(cccb_of(id)->SideInfo.usUserIDLen, 4);
    }
  }
}

TEST_F(Conversations, FailedAcceptsAndNonBlockingAcceptIncoming) {
  // CMACCP: no record is left.
  push(NAP_RECEIVE_ALLOCATE_CPIC, AP_STATE_CHECK);
  ConvId id{};
  EXPECT_EQ(accept_conversation(id), CM_PROGRAM_STATE_CHECK);
  EXPECT_FALSE(known(id));
  EXPECT_EQ(problems(), (Probes{{kProblemInbound, 3}}));
  EXPECT_EQ(problem(0).args[0], static_cast<uint64_t>(CM_PROGRAM_STATE_CHECK));
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u);

  // CMACCI: the record stays for another try, and accepts only once.
  ConvId incoming{};
  ASSERT_EQ(rc_call(cminic, incoming.data()), CM_OK);
  push(NAP_RECEIVE_ALLOCATE_CPIC, AP_UNSUCCESSFUL);
  EXPECT_EQ(run("CMACCI", incoming), CM_UNSUCCESSFUL);
  ASSERT_TRUE(known(incoming));
  cccb_of(incoming)->usProcessingMode = CM_NON_BLOCKING;
  Incoming in;
  in.with_user = true;
  push(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 1, answer_allocation, &in);
  ASSERT_EQ(run("CMACCI", incoming), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(incoming, CM_OK);
  EXPECT_EQ(cccb_of(incoming)->ulAppcConvId, 0x99u);
  EXPECT_EQ(text_of(pGCB->CurrentContext, 8), std::string(8, '\0'))
      << "a completion nobody waited for does not switch the context";
  EXPECT_EQ(run("CMACCI", incoming), CM_PROGRAM_STATE_CHECK) << "already accepted";
}

TEST_F(Conversations, LocalTpNamesAreCheckedDefinedOnceAndReleasedOnce) {
  const std::pair<std::string, CM_RETURN_CODE> rows[] = {
      {"A", CM_OK},
      {std::string(64, 'Z'), CM_OK},
      {"lower_case.and$#@%&'()*+,-./0123456789:;<=>?\"", CM_OK},
      {std::string(65, 'Z'), CM_PROGRAM_PARAMETER_CHECK},
      {"", CM_PROGRAM_PARAMETER_CHECK},
      {"TP A", CM_PROGRAM_PARAMETER_CHECK},
      {"TP!", CM_PROGRAM_PARAMETER_CHECK},
      {"TP{", CM_PROGRAM_PARAMETER_CHECK},
      {std::string("TP\x80", 3), CM_PROGRAM_PARAMETER_CHECK},
  };
  EXPECT_EQ(release("TPA"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(fInitCPIC, 0) << "releasing does not start the library";
  uint32_t defined = 0;
  for (const auto &[name, rc] : rows) {
    EXPECT_EQ(specify(name), rc) << "'" << name << "'";
    defined += rc == CM_OK;
    EXPECT_EQ(snt_submitted_count(), defined) << "'" << name << "'";
  }
  EXPECT_EQ(specify("TPX", -1), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(pGCB->NumLocTPNames, defined);
  EXPECT_EQ(snt_problem_count(), 0u);

  fresh_node();
  const uint32_t blocks = snt_blocks_in_use(kMemKept);
  ASSERT_EQ(specify("TPA"), CM_OK);
  ASSERT_EQ(specify("TPA"), CM_OK);
  ASSERT_EQ(specify("tpa"), CM_OK) << "names keep their case";
  EXPECT_EQ(release("TPA"), CM_OK);
  EXPECT_EQ(release("TPA"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(release("tpa"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, defined);
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks) << "records are given back";
  EXPECT_EQ(submitted_opcodes(), (std::vector<uint16_t>{NAP_DEFINE_LOCAL_TP, NAP_DEFINE_LOCAL_TP,
                                                        NAP_DELETE_LOCAL_TP, NAP_DELETE_LOCAL_TP}));
  Vcb deleted = submitted(2);
  std::fill(deleted.begin() + 76, deleted.end(), 0);  // the block is 76 bytes
  expect_record(deleted, {{0, u16(NAP_DELETE_LOCAL_TP)}, {12, ebcdic_tp_name("TPA")}}, "delete");
}

TEST_F(Conversations, LocalTpNamesRefusedByTheNodeOrWithoutStorage) {
  push(NAP_DEFINE_LOCAL_TP, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  EXPECT_EQ(specify("TPA"), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(pGCB->NumLocTPNames, 0);
  EXPECT_STREQ(problem(0).arg_types, "es");
  EXPECT_EQ(problem(0).bytes[0][0], 0xE3);
  ASSERT_EQ(specify("TPA"), CM_OK) << "nothing was kept of the refused name";
  push(NAP_DELETE_LOCAL_TP, AP_STATE_CHECK);
  EXPECT_EQ(release("TPA"), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(pGCB->NumLocTPNames, 1) << "the record stays";
  EXPECT_EQ(release("TPA"), CM_OK);
  snt_fail_allocations(1);
  EXPECT_EQ(specify("TPB"), CM_PRODUCT_SPECIFIC_ERROR);
  snt_fail_table_inserts(1);
  EXPECT_EQ(specify("TPC"), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 4u);
  EXPECT_EQ(pGCB->NumLocTPNames, 0);
  EXPECT_EQ(problems(), (Probes{{kProblemDefineLocalTp, 2},
                                {kProblemDeleteLocalTp, 0},
                                {kProblemNoResource, 7},
                                {kProblemNoResource, 8}}));

  // Without any name the accept goes nowhere.
  fresh_node();
  push(NAP_DEFINE_LOCAL_TP, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  ConvId id{};
  EXPECT_EQ(accept_conversation(id), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(submitted_opcodes(), std::vector<uint16_t>{NAP_DEFINE_LOCAL_TP});
  EXPECT_EQ(problems(), (Probes{{kProblemDefineLocalTp, 1}}));
  EXPECT_FALSE(known(id));
}

// The accept path defines the process TP name by itself; the first name the
// program specifies withdraws it, unless it came from the environment or the
// node refuses.
void withdraw(const char *env, bool refused, uint16_t names, uint16_t default_defined) {
  if (env != nullptr) setenv("APPCTPN", env, 1);
  ConvId id{};
  ASSERT_EQ(accept_conversation(id), CM_OK);
  ASSERT_EQ(pGCB->NumLocTPNames, 1);
  if (refused) push(NAP_DELETE_LOCAL_TP, AP_STATE_CHECK);
  const uint32_t before = snt_submitted_count();
  ASSERT_EQ(specify("TPA"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, names);
  EXPECT_EQ(pGCB->fDefaultTpNameDefined, default_defined);
  if (env == nullptr) {
    EXPECT_EQ(submitted_opcodes(before),
              (std::vector<uint16_t>{NAP_DEFINE_LOCAL_TP, NAP_DELETE_LOCAL_TP}));
    EXPECT_EQ(raw(&submitted(before + 1)[12], 64), raw(pGCB->TpName, 64));
  }
  EXPECT_EQ(problems(), (refused ? Probes{{kProblemDeleteLocalTp, 1}} : Probes{}));
  ASSERT_EQ(specify("TPB"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, names + 1) << "a second name withdraws nothing more";
}
TEST_F(Conversations, TheFirstSpecifiedNameWithdrawsTheImplicitProcessName) {
  withdraw(nullptr, false, 1, 0);
}
TEST_F(Conversations, ARefusedWithdrawalKeepsTheProcessName) {
  withdraw(nullptr, true, 2, 1);
}
TEST_F(Conversations, AProcessNameFromTheEnvironmentIsKept) {
  withdraw("PAYROLL", false, 2, 1);
}

// ---- the API trace reaching its file ----

TEST_F(Conversations, TraceRecordsReachTheFileAndChangeNoResult) {
  namespace fs = std::filesystem;
  const fs::path file = fs::temp_directory_path() / ("cpic_trace." + std::to_string(getpid()));
  fs::remove(file);
  setenv("SNANODE_TRACE_FILE", file.c_str(), 1);
  ConvId id{};
  CM_RETURN_CODE conversation_rc = 0, rc = -1;
  cmwait(id.data(), &conversation_rc, &rc);  // trace off: nothing written
  EXPECT_FALSE(fs::exists(file));

  ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  cmwait(id.data(), &conversation_rc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  auto lines = test_support::read_lines(file);
  fs::remove(file);
  ASSERT_EQ(lines.size(), 6u);
  for (size_t separator : {0, 2}) {
    EXPECT_TRUE(lines[separator].starts_with("CPIC ==== ")) << lines[separator];
    lines[separator] = "<separator>";
  }
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "<separator>", "CPIC CMWAIT request", "<separator>",
                       "CPIC CMWAIT response, result = CM_PROGRAM_STATE_CHECK",
                       "CPIC  Conversation ID = 00000000", "CPIC  Async result = CM_OK"}));

  // A file that cannot be written changes no result.
  setenv("SNANODE_TRACE_FILE", "/proc/self/no/such/api.trc", 1);
  cmchck(id.data(), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  ptrc[SNANODE_TRACE_API_BYTE] &= static_cast<unsigned char>(~SNANODE_TRACE_API_BIT);
}

}  // namespace
