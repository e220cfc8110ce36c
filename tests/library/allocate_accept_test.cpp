// Allocate, Accept and the local TP names against the scripted node, and the
// API trace reaching its file.
#include "library/conversation_support.h"

namespace {

using namespace conversation_test;

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
