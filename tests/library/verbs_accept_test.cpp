// Accept: the process TP name defined once, the list of local TP names the
// RECEIVE_ALLOCATE offers, what its completion copies, the current context,
// and the record's fate after a failure.
#include <cstdlib>

#include "verbs_calls.h"

namespace verbs_test {
namespace {

class AcceptVerbs : public VerbsTest {};

const uint8_t kDefaultTpName[19] = {0xC3, 0xD7, 0xC9, 0xC3, 0x6D, 0xC4, 0xC5, 0xC6, 0xC1, 0xE4,
                                    0xD3, 0xE3, 0x6D, 0xE3, 0xD7, 0xD5, 0xC1, 0xD4, 0xC5};
const uint8_t kPayroll[7] = {0xD7, 0xC1, 0xE8, 0xD9, 0xD6, 0xD3, 0xD3};
const uint8_t kTpa[3] = {0xE3, 0xD7, 0xC1};
const uint8_t kTpb[3] = {0xE3, 0xD7, 0xC2};

std::vector<uint8_t> padded_name(const uint8_t *name, size_t length) {
  std::vector<uint8_t> out(64, 0x40);
  std::memcpy(out.data(), name, length);
  return out;
}

// What the node says about the incoming conversation, and what it saw.
struct Incoming {
  uint8_t tp_name[64];
  uint8_t tp_id[8];
  uint32_t conv_id;
  uint8_t user_id[10];
  uint8_t lu_alias[8];
  uint8_t mode_name[8];
  uint8_t partner[17];
  std::vector<std::vector<uint8_t>> offered;  // the names in tp_name_list
};

void answer_allocation(void *vcb, void *context) {
  auto &verb = *static_cast<NAP_RECEIVE_ALLOCATE *>(vcb);
  auto &in = *static_cast<Incoming *>(context);
  in.offered.clear();
  for (uint32_t i = 0; i < verb.tp_name_count; ++i) {
    in.offered.emplace_back(verb.tp_name_list + 64 * i, verb.tp_name_list + 64 * (i + 1));
  }
  std::memcpy(verb.rcv_tp_name, in.tp_name, 64);
  std::memcpy(verb.tp_id, in.tp_id, 8);
  verb.conv_id = in.conv_id;
  verb.rcv_sync_level = 1;
  verb.rcv_conv_type = 0;
  std::memcpy(verb.rcv_user_id, in.user_id, 10);
  std::memcpy(verb.rcv_lu_alias, in.lu_alias, 8);
  std::memcpy(verb.rcv_mode_name, in.mode_name, 8);
  std::memcpy(verb.rcv_partner_lu_name, in.partner, 17);
}

Incoming incoming_for(const uint8_t *name, size_t length, bool with_user) {
  Incoming in{};
  const auto padded = padded_name(name, length);
  std::memcpy(in.tp_name, padded.data(), 64);
  const uint8_t tp_id[8] = {0xAB, 0xCD, 0, 0, 0, 0, 0, 7};
  std::memcpy(in.tp_id, tp_id, 8);
  in.conv_id = 0x99;
  std::memset(in.user_id, 0x40, 10);
  if (with_user) std::memset(in.user_id, 0xE4, 4);
  std::memcpy(in.lu_alias, "LU2 X   ", 8);
  const uint8_t mode[8] = {0xC2, 0xC1, 0xE3, 0xC3, 0xC8, 0xF1, 0x40, 0x40};  // BATCH1
  std::memcpy(in.mode_name, mode, 8);
  // NETA.PARTNERLUXYZZ: 17 bytes, no blank, period at 4.
  const uint8_t partner[17] = {0xD5, 0xC5, 0xE3, 0xC1, 0x4B, 0xD7, 0xC1, 0xD9, 0xE3,
                               0xD5, 0xC5, 0xD9, 0xD3, 0xE4, 0xE7, 0xE8, 0xE9};
  std::memcpy(in.partner, partner, 17);
  return in;
}

CM_RETURN_CODE accept_conversation(ConvId &id) {
  CM_RETURN_CODE rc = -1;
  cmaccp(id.data(), &rc);
  return rc;
}

uint32_t count_opcode(uint16_t opcode) {
  uint32_t n = 0;
  for (uint32_t i = 0; i < snt_submitted_count(); ++i) n += snt_submitted_opcode(i) == opcode;
  return n;
}

TEST_F(AcceptVerbs, DefaultProcessNameIsDefinedOnceAndOffered) {
  unsetenv("APPCTPN");
  Incoming in = incoming_for(kDefaultTpName, 19, false);
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in));
  ConvId first{};
  ASSERT_EQ(accept_conversation(first), CM_OK);
  EXPECT_EQ(count_opcode(NAP_DEFINE_LOCAL_TP), 1u);
  expect_record(submitted(0),
                {{0, u16(NAP_DEFINE_LOCAL_TP)}, {12, padded_name(kDefaultTpName, 19)}},
                "define the process name");
  ASSERT_EQ(in.offered.size(), 1u);
  EXPECT_EQ(in.offered[0], padded_name(kDefaultTpName, 19));
  EXPECT_EQ(pGCB->fDefaultTpNameDefined, 1);

  // The record as submitted.
  const Vcb record = submitted(1);
  void *list = nullptr;
  std::memcpy(&list, &record[200], sizeof list);
  EXPECT_NE(list, nullptr);
  expect_record(record,
                {{0, u16(NAP_RECEIVE_ALLOCATE_CPIC)},
                 {3, u8(1)},
                 {84, raw(first.data(), 4)},
                 {192, u32(1)},
                 {200, ptr(list)}},
                "receive allocate");
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u) << "the name list is given back";

  ConvId second{};
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in));
  ASSERT_EQ(accept_conversation(second), CM_OK);
  EXPECT_EQ(count_opcode(NAP_DEFINE_LOCAL_TP), 1u) << "defined once per process";
  EXPECT_NE(first, second);
}

TEST_F(AcceptVerbs, EnvironmentNameAndSpecifiedNamesAreOfferedInTableOrder) {
  setenv("APPCTPN", "PAYROLL", 1);
  for (const char *name : {"TPA", "TPB"}) {
    CM_INT32 length = 3;
    CM_RETURN_CODE rc = -1;
    cmsltp(reinterpret_cast<unsigned char *>(const_cast<char *>(name)), &length, &rc);
    ASSERT_EQ(rc, CM_OK) << name;
  }
  Incoming in = incoming_for(kTpb, 3, false);
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in));
  ConvId id{};
  ASSERT_EQ(accept_conversation(id), CM_OK);
  ASSERT_EQ(in.offered.size(), 3u);
  EXPECT_EQ(in.offered[0], padded_name(kTpa, 3));
  EXPECT_EQ(in.offered[1], padded_name(kTpb, 3));
  EXPECT_EQ(in.offered[2], padded_name(kPayroll, 7));
  EXPECT_EQ(pGCB->NumLocTPNames, 3);
  // The record remembers which of its names was allocated.
  CCCB *cccb = cccb_of(id);
  ASSERT_NE(cccb, nullptr);
  const auto *matched = static_cast<LOCAL_TP_RECORD *>(
      vtm_get_pointer(pGCB->LocTPNameTable, cccb->ulLocTPNameHandle));
  ASSERT_NE(matched, nullptr);
  EXPECT_EQ(std::memcmp(matched->TPName, kTpb, 3), 0);
}

TEST_F(AcceptVerbs, CompletionCopiesTheIncomingConversation) {
  Incoming in = incoming_for(kDefaultTpName, 19, false);
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in));
  ConvId id{};
  ASSERT_EQ(accept_conversation(id), CM_OK);
  CCCB *cccb = cccb_of(id);
  ASSERT_NE(cccb, nullptr);
  EXPECT_EQ(cccb->fInitializeState, 0);
  EXPECT_EQ(cccb->ulAppcConvId, 0x99u);
  EXPECT_EQ(std::memcmp(cccb->TpId, in.tp_id, 8), 0);
  EXPECT_EQ(std::memcmp(cccb->SideInfo.TP_name, in.tp_name, 64), 0);
  EXPECT_EQ(cccb->ulSyncLevel, 1u);
  EXPECT_EQ(cccb->ulConversationType, 0u);
  EXPECT_EQ(cccb->SideInfo.usModeNameLen, 6);
  EXPECT_EQ(std::memcmp(cccb->SideInfo.mode_name, in.mode_name, 8), 0);
  EXPECT_EQ(cccb->SideInfo.usUserIDLen, 0);
  EXPECT_EQ(cccb->SideInfo.usPartnerLULen, 17);
  EXPECT_EQ(cccb->SideInfo.usPartnerLUPeriodPos, 4);
  EXPECT_EQ(cccb->SideInfo.usPartnerLUQualified, 1);
  EXPECT_EQ(std::memcmp(cccb->SideInfo.partner_LU_name, in.partner, 17), 0);
  EXPECT_EQ(std::memcmp(cccb->LocalLUName, "LU2     ", 8), 0) << "cut at the first blank";
  ASSERT_EQ(snt_audit_count(), 1u);
  EXPECT_EQ(audit(0).code, kAuditAccepted);
  EXPECT_EQ(audit(0).probe, 1u);
  EXPECT_EQ(std::memcmp(audit(0).bytes[0], id.data(), 8), 0);
}

TEST_F(AcceptVerbs, AuditRecordCanBeSuppressed) {
  suppress_audit_records();
  ConvId id{};
  ASSERT_EQ(accept_conversation(id), CM_OK);
  EXPECT_EQ(snt_audit_count(), 0u);
  EXPECT_NE(cccb_of(id), nullptr);
}

TEST_F(AcceptVerbs, UserIdMakesTheIncomingTpCurrent) {
  for (bool with_user : {false, true}) {
    const unsigned char previous[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    start_library();
    std::memcpy(pGCB->CurrentContext, previous, 8);
    Incoming in = incoming_for(kDefaultTpName, 19, with_user);
    push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 0, answer_allocation, &in));
    ConvId id{};
    CM_RETURN_CODE rc = -1;
    cminic(id.data(), &rc);
    ASSERT_EQ(rc, CM_OK);
    const uint32_t before = snt_submitted_count();
    cmacci(id.data(), &rc);
    ASSERT_EQ(rc, CM_OK);
    // The unused previous context is ended either way.
    uint32_t ended = 0;
    for (uint32_t i = before; i < snt_submitted_count(); ++i) {
      if (snt_submitted_opcode(i) != NAP_TP_ENDED) continue;
      ++ended;
      EXPECT_EQ(std::memcmp(&submitted(i)[12], previous, 8), 0) << with_user;
    }
    EXPECT_EQ(ended, 1u) << with_user;
    if (with_user) {
      EXPECT_EQ(std::memcmp(pGCB->CurrentContext, in.tp_id, 8), 0);
      EXPECT_EQ(std::memcmp(pGCB->CurrentContextLU, in.lu_alias, 8), 0);
      EXPECT_EQ(cccb_of(id)->SideInfo.usUserIDLen, 4);
    } else {
      EXPECT_EQ(std::memcmp(pGCB->CurrentContext, previous, 8), 0);
    }
  }
}

TEST_F(AcceptVerbs, FailedAcceptConversationLeavesNoRecord) {
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_STATE_CHECK));
  ConvId id{};
  EXPECT_EQ(accept_conversation(id), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb_of(id), nullptr);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemInbound);
  EXPECT_EQ(problem(0).probe, 3u);
  EXPECT_EQ(problem(0).args[0], static_cast<uint64_t>(CM_PROGRAM_STATE_CHECK));
  EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u);
  CM_RETURN_CODE rc = -1;
  cmdeal(id.data(), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
}

TEST_F(AcceptVerbs, FailedAcceptIncomingKeepsTheRecordForAnotherTry) {
  ConvId id{};
  CM_RETURN_CODE rc = -1;
  cminic(id.data(), &rc);
  ASSERT_EQ(rc, CM_OK);
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_UNSUCCESSFUL));
  cmacci(id.data(), &rc);
  EXPECT_EQ(rc, CM_UNSUCCESSFUL);
  ASSERT_NE(cccb_of(id), nullptr);
  cmacci(id.data(), &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_NE(cccb_of(id)->ulAppcConvId, 0u);
  cmacci(id.data(), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK) << "already accepted";
}

TEST_F(AcceptVerbs, NonBlockingAcceptIncomingCompletesThroughWait) {
  ConvId id{};
  CM_RETURN_CODE rc = -1;
  cminic(id.data(), &rc);
  ASSERT_EQ(rc, CM_OK);
  cccb_of(id)->usProcessingMode = 1;  // as CMSPM sets it
  Incoming in = incoming_for(kDefaultTpName, 19, true);
  push(script(NAP_RECEIVE_ALLOCATE_CPIC, AP_OK, 0, 1, answer_allocation, &in));
  cmacci(id.data(), &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_EQ(cccb_of(id)->ulAppcConvId, 0x99u);
  const unsigned char none[8] = {};
  EXPECT_EQ(std::memcmp(pGCB->CurrentContext, none, 8), 0)
      << "a completion nobody waited for does not switch the context";
}

TEST_F(AcceptVerbs, NoNameAtAllMeansNoAccept) {
  start_library();
  push(script(NAP_DEFINE_LOCAL_TP, AP_PARAMETER_CHECK, AP_BAD_FIELD));
  ConvId id{};
  EXPECT_EQ(accept_conversation(id), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(count_opcode(NAP_RECEIVE_ALLOCATE_CPIC), 0u);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemDefineLocalTp);
  EXPECT_EQ(problem(0).probe, 1u);
  EXPECT_EQ(cccb_of(id), nullptr);
}

}  // namespace
}  // namespace verbs_test
