// Specify and Release Local TP Name: argument checks, one definition per
// name, release, refusals by the node, and the withdrawal of the process TP
// name the accept path defined by itself.
#include <cstdlib>

#include "verbs_calls.h"

namespace verbs_test {
namespace {

class LocalTpNames : public VerbsTest {};

CM_RETURN_CODE specify(const std::string &name, CM_INT32 length) {
  std::string copy = name;
  CM_RETURN_CODE rc = -1;
  cmsltp(reinterpret_cast<unsigned char *>(copy.data()), &length, &rc);
  return rc;
}
CM_RETURN_CODE specify(const std::string &name) {
  return specify(name, static_cast<CM_INT32>(name.size()));
}

CM_RETURN_CODE release(const std::string &name) {
  std::string copy = name;
  CM_INT32 length = static_cast<CM_INT32>(name.size());
  CM_RETURN_CODE rc = -1;
  cmrltp(reinterpret_cast<unsigned char *>(copy.data()), &length, &rc);
  return rc;
}

TEST_F(LocalTpNames, ArgumentsAreChecked) {
  const std::vector<std::pair<std::string, CM_RETURN_CODE>> rows = {
      {"A", CM_OK},
      {std::string(64, 'Z'), CM_OK},
      {"lower_case.and$#@%&'()*+,-./0123456789:;<=>?\"", CM_OK},
      {std::string(65, 'Z'), CM_PROGRAM_PARAMETER_CHECK},
      {"", CM_PROGRAM_PARAMETER_CHECK},
      {"TP A", CM_PROGRAM_PARAMETER_CHECK},
      {"TP!", CM_PROGRAM_PARAMETER_CHECK},
      {"TP[", CM_PROGRAM_PARAMETER_CHECK},
      {"TP{", CM_PROGRAM_PARAMETER_CHECK},
      {std::string("TP\x80", 3), CM_PROGRAM_PARAMETER_CHECK},
  };
  uint32_t defined = 0;
  for (const auto &[name, rc] : rows) {
    EXPECT_EQ(specify(name), rc) << "'" << name << "'";
    if (rc == CM_OK) ++defined;
    EXPECT_EQ(snt_submitted_count(), defined) << "'" << name << "'";
  }
  EXPECT_EQ(specify("TPX", -1), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(pGCB->NumLocTPNames, defined);
  EXPECT_EQ(snt_problem_count(), 0u);
}

TEST_F(LocalTpNames, DefinitionBlockCarriesTheConvertedName) {
  ASSERT_EQ(specify("TPA"), CM_OK);
  Vcb block = submitted(0);
  std::vector<uint8_t> name(64, 0x40);
  name[0] = 0xE3;
  name[1] = 0xD7;
  name[2] = 0xC1;
  std::vector<Field> fields = {{0, u16(NAP_DEFINE_LOCAL_TP)}, {12, name}};
  // The block is 76 bytes; the rest of the copy is not the library's.
  std::fill(block.begin() + 76, block.end(), 0);
  expect_record(block, fields, "define local TP");

  ASSERT_EQ(release("TPA"), CM_OK);
  block = submitted(1);
  std::fill(block.begin() + 76, block.end(), 0);
  fields[0] = {0, u16(NAP_DELETE_LOCAL_TP)};
  expect_record(block, fields, "delete local TP");
}

TEST_F(LocalTpNames, NameIsDefinedOnceAndReleasedOnce) {
  start_library();
  const uint32_t blocks = snt_blocks_in_use(kMemKept);
  ASSERT_EQ(specify("TPA"), CM_OK);
  ASSERT_EQ(specify("TPA"), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 1u);
  EXPECT_EQ(pGCB->NumLocTPNames, 1);
  // Names keep their case: tpa is another name.
  ASSERT_EQ(specify("tpa"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, 2);

  EXPECT_EQ(release("TPA"), CM_OK);
  EXPECT_EQ(release("TPA"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(release("NEVER"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(pGCB->NumLocTPNames, 1);
  EXPECT_EQ(release("tpa"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, 0);
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks) << "records are given back";
}

TEST_F(LocalTpNames, ReleaseBeforeAnythingElseFindsNothing) {
  EXPECT_EQ(release("TPA"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(fInitCPIC, 0) << "releasing does not start the library";
}

TEST_F(LocalTpNames, NodeRefusals) {
  push(script(NAP_DEFINE_LOCAL_TP, AP_PARAMETER_CHECK, AP_BAD_FIELD));
  EXPECT_EQ(specify("TPA"), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(pGCB->NumLocTPNames, 0);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemDefineLocalTp);
  EXPECT_EQ(problem(0).probe, 2u);
  EXPECT_EQ(std::string(problem(0).arg_types), "es");
  EXPECT_EQ(problem(0).args[0], 64u);
  EXPECT_EQ(problem(0).bytes[0][0], 0xE3);

  ASSERT_EQ(specify("TPA"), CM_OK) << "nothing was kept of the refused name";
  push(script(NAP_DELETE_LOCAL_TP, AP_STATE_CHECK));
  EXPECT_EQ(release("TPA"), CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(snt_problem_count(), 2u);
  EXPECT_EQ(problem(1).code, kProblemDeleteLocalTp);
  EXPECT_EQ(problem(1).probe, 0u);
  EXPECT_EQ(pGCB->NumLocTPNames, 1) << "the record stays";
  EXPECT_EQ(release("TPA"), CM_OK);
}

TEST_F(LocalTpNames, NoRecordWithoutMemoryOrTableRoom) {
  start_library();
  snt_fail_allocations(1);
  EXPECT_EQ(specify("TPA"), CM_PRODUCT_SPECIFIC_ERROR);
  snt_fail_table_inserts(1);
  EXPECT_EQ(specify("TPB"), CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(snt_problem_count(), 2u);
  EXPECT_EQ(problem(0).code, kProblemNoResource);
  EXPECT_EQ(problem(0).probe, 7u);
  EXPECT_EQ(problem(1).code, kProblemNoResource);
  EXPECT_EQ(problem(1).probe, 8u);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(pGCB->NumLocTPNames, 0);
}

// Accepts once so that the process TP name gets defined by the accept path.
void accept_once() {
  ConvId id{};
  CM_RETURN_CODE rc = -1;
  cmaccp(id.data(), &rc);
  ASSERT_EQ(rc, CM_OK);
}

TEST_F(LocalTpNames, FirstSpecifiedNameWithdrawsTheImplicitProcessName) {
  unsetenv("APPCTPN");
  accept_once();
  ASSERT_EQ(pGCB->NumLocTPNames, 1);
  ASSERT_EQ(pGCB->fDefaultTpNameDefined, 1);
  ASSERT_EQ(specify("TPA"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, 1);
  EXPECT_EQ(pGCB->fDefaultTpNameDefined, 0);
  const Vcb deleted = last_submitted();
  EXPECT_EQ(snt_submitted_opcode(snt_submitted_count() - 1), NAP_DELETE_LOCAL_TP);
  EXPECT_EQ(std::memcmp(&deleted[12], pGCB->TpName, 64), 0);
  // A second name withdraws nothing more.
  ASSERT_EQ(specify("TPB"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, 2);
}

TEST_F(LocalTpNames, RefusedWithdrawalKeepsTheProcessName) {
  unsetenv("APPCTPN");
  accept_once();
  push(script(NAP_DELETE_LOCAL_TP, AP_STATE_CHECK));
  EXPECT_EQ(specify("TPA"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, 2);
  EXPECT_EQ(pGCB->fDefaultTpNameDefined, 1);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemDeleteLocalTp);
  EXPECT_EQ(problem(0).probe, 1u);
}

TEST_F(LocalTpNames, ProcessNameFromEnvironmentIsKept) {
  setenv("APPCTPN", "PAYROLL", 1);
  accept_once();
  ASSERT_EQ(specify("TPA"), CM_OK);
  EXPECT_EQ(pGCB->NumLocTPNames, 2);
  EXPECT_EQ(pGCB->fDefaultTpNameDefined, 1);
}

}  // namespace
}  // namespace verbs_test
