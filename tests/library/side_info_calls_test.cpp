// XCMSSI, XCMESI and XCMDSI as an application uses them.
#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

SIDE_INFO app_entry(const std::string &name) {
  SIDE_INFO e;
  std::memset(&e, 0, sizeof e);
  put(e.sym_dest_name, 8, name);
  put(e.partner_LU_name, 17, "NETA.lux");
  e.TP_name_type = CM_APPLICATION_TP;
  put(e.TP_name, 64, "Payroll-1");
  put(e.mode_name, 8, "#in!er");
  e.conversation_security_type = CM_SECURITY_PROGRAM;
  put(e.security_user_ID, 8, "clerk");
  put(e.security_password, 8, "secret");
  return e;
}

std::string text(const unsigned char *field, size_t size) {
  return std::string(reinterpret_cast<const char *>(field), size);
}

CM_RETURN_CODE set(SIDE_INFO entry, CM_INT32 length = sizeof(SIDE_INFO)) {
  unsigned char key[8] = {};
  CM_RETURN_CODE rc = -1;
  xcmssi(key, &entry, &length, &rc);
  return rc;
}

CM_RETURN_CODE extract(const std::string &name, SIDE_INFO &out, CM_INT32 length = sizeof(SIDE_INFO),
                       CM_INT32 entry_number = 0) {
  CM_RETURN_CODE rc = -1;
  std::string key = padded(name, 8);
  xcmesi(&entry_number, reinterpret_cast<unsigned char *>(key.data()), &out, &length, &rc);
  return rc;
}

CM_RETURN_CODE remove(const std::string &name) {
  CM_RETURN_CODE rc = -1;
  unsigned char key[8] = {};
  std::string sym = padded(name, 8);
  xcmdsi(key, reinterpret_cast<unsigned char *>(sym.data()), &rc);
  return rc;
}

class SideInfoCalls : public ScriptedNode {};

TEST_F(SideInfoCalls, SetAndExtractRoundTrip) {
  ASSERT_EQ(set(app_entry("ROUND")), CM_OK);
  SIDE_INFO out;
  std::memset(&out, 'Q', sizeof out);
  ASSERT_EQ(extract("ROUND", out), CM_OK);
  EXPECT_EQ(snt_nof_count(), 0u) << "a set entry must not need the node";
  EXPECT_EQ(text(out.sym_dest_name, 8), "ROUND   ");
  EXPECT_EQ(text(out.partner_LU_name, 17), "NETA.LUX         ");  // table A folds case
  EXPECT_EQ(text(out.reserved, 3), "QQQ");                        // not written
  EXPECT_EQ(out.TP_name_type, CM_APPLICATION_TP);
  EXPECT_EQ(text(out.TP_name, 64), padded("Payroll-1", 64));
  EXPECT_EQ(text(out.mode_name, 8), std::string("#IN\0ER  ", 8));  // '!' is outside the table
  EXPECT_EQ(out.conversation_security_type, CM_SECURITY_PROGRAM);
  EXPECT_EQ(text(out.security_user_ID, 8), "clerk   ");
  EXPECT_EQ(text(out.security_password, 8), std::string(8, '\0'));  // never returned

  // Neither the key of XCMSSI nor the entry number of XCMESI changes anything.
  SIDE_INFO again;
  std::memset(&again, 'Q', sizeof again);
  ASSERT_EQ(extract("ROUND", again, sizeof(SIDE_INFO), 77), CM_OK);
  EXPECT_EQ(std::memcmp(&out, &again, sizeof out), 0);

  // What the conversation would use: EBCDIC, lengths worked out.
  SCD_ENTRY stored = named("ROUND");
  ASSERT_EQ(SCD_main(SCD_LOOKUP, &stored), CM_OK);
  EXPECT_EQ(stored.usPartnerLUQualified, 1);
  EXPECT_EQ(stored.usPartnerLUPeriodPos, 4);
  EXPECT_EQ(stored.usModeNameLen, 6);
  EXPECT_EQ(stored.usUserIDLen, 5);
  EXPECT_EQ(stored.security_password[8], 0x40);
  EXPECT_EQ(stored.security_password[9], 0x40);
  EXPECT_EQ(bytes(stored.local_LU_alias, 8), std::vector<unsigned char>(8, 0));
}

TEST_F(SideInfoCalls, ExtractShapesFieldsByType) {
  struct {
    const char *what;
    const char *partner;
    int32_t tp_type;
    int32_t security;
    const char *partner_back;
    bool security_written;
  } const cases[] = {
      {"long alias", "LONGALIAS12", 0, CM_SECURITY_PROGRAM_STRONG, "LONGALIA         ", true},
      {"security same", "ALIAS", 0, CM_SECURITY_SAME, "ALIAS            ", false},
      {"security none", "ALIAS", 0, CM_SECURITY_NONE, "ALIAS            ", false},
      {"service TP", "ALIAS", 1, CM_SECURITY_PROGRAM, "ALIAS            ", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    SIDE_INFO in = app_entry("SHAPE");
    put(in.partner_LU_name, 17, c.partner);
    in.TP_name_type = c.tp_type;
    if (c.tp_type == CM_SNA_SERVICE_TP) put(in.TP_name, 64, "\x06XYZ");
    in.conversation_security_type = c.security;
    ASSERT_EQ(set(in), CM_OK);
    SIDE_INFO out;
    std::memset(&out, 'Q', sizeof out);
    ASSERT_EQ(extract("SHAPE", out), CM_OK);
    EXPECT_EQ(text(out.partner_LU_name, 17), c.partner_back);
    EXPECT_EQ(out.conversation_security_type, c.security);
    EXPECT_EQ(text(out.security_user_ID, 8), c.security_written ? "clerk   " : "QQQQQQQQ");
    EXPECT_EQ(text(out.security_password, 8),
              c.security_written ? std::string(8, '\0') : "QQQQQQQQ");
    if (c.tp_type == CM_SNA_SERVICE_TP) {
      EXPECT_EQ(text(out.TP_name, 64), padded("\x06XYZ", 64));
    }
  }
}

TEST_F(SideInfoCalls, SetRefusesBadEntriesAndStoresNothing) {
  struct {
    const char *what;
    CM_INT32 length;
    const char *name;
    int32_t tp_type;
    int32_t security;
    bool problem_record;
  } const cases[] = {
      {"length 128", 128, "BAD", 0, 2, true},      {"length 0", 0, "BAD", 0, 2, true},
      {"blank name", 124, " BAD", 0, 2, false},    {"all blank name", 124, "", 0, 2, false},
      {"TP name type 2", 124, "BAD", 2, 2, false}, {"TP name type -1", 124, "BAD", -1, 2, false},
      {"security 3", 124, "BAD", 0, 3, false},     {"security 4", 124, "BAD", 0, 4, false},
      {"security 6", 124, "BAD", 0, 6, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_node();
    SIDE_INFO in = app_entry(c.name);
    in.TP_name_type = c.tp_type;
    in.conversation_security_type = c.security;
    EXPECT_EQ(set(in, c.length), CM_PROGRAM_PARAMETER_CHECK);
    ASSERT_EQ(snt_problem_count(), c.problem_record ? 1u : 0u);
    if (c.problem_record) {
      const SNT_RECORD r = problem(0);
      EXPECT_EQ(r.code, kProblemSideInfoLength);
      EXPECT_EQ(r.probe, 1u);
      EXPECT_STREQ(r.arg_types, "l");
      EXPECT_EQ(r.args[0], static_cast<uint64_t>(c.length));
    }
    SIDE_INFO out;
    EXPECT_EQ(extract(c.name, out), CM_PROGRAM_PARAMETER_CHECK) << "something was stored";
  }
}

TEST_F(SideInfoCalls, ExtractChecksTheLengthAndLeavesTheEntryOnFailure) {
  ASSERT_EQ(set(app_entry("THERE")), CM_OK);
  SIDE_INFO out;
  std::memset(&out, 'Q', sizeof out);
  EXPECT_EQ(extract("THERE", out, 120), CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemSideInfoLength);
  EXPECT_EQ(problem(0).probe, 0u);
  EXPECT_EQ(problem(0).args[0], 120u);
  EXPECT_EQ(extract("NOTTHERE", out), CM_PROGRAM_PARAMETER_CHECK);
  SIDE_INFO untouched;
  std::memset(&untouched, 'Q', sizeof untouched);
  EXPECT_EQ(std::memcmp(&out, &untouched, sizeof out), 0);
}

TEST_F(SideInfoCalls, DeletingANameOnlyTheNodeHolds) {
  NodeEntry node;
  node.name = "NODEONLY";
  node_holds(node);
  EXPECT_EQ(remove("NODEONLY"), CM_OK);
  EXPECT_EQ(nof_opcodes(), kAskedNode);

  SIDE_INFO out;
  EXPECT_EQ(extract("NODEONLY", out), CM_PROGRAM_PARAMETER_CHECK);
  unsigned char id[8];
  CM_RETURN_CODE rc = -1;
  std::string sym = padded("NODEONLY", 8);
  cminit(id, reinterpret_cast<unsigned char *>(sym.data()), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_nof_count(), 3u) << "a deleted name must not be asked of the node";
  EXPECT_EQ(remove("NODEONLY"), CM_PROGRAM_PARAMETER_CHECK);

  ASSERT_EQ(set(app_entry("NODEONLY")), CM_OK);
  EXPECT_EQ(extract("NODEONLY", out), CM_OK);
  EXPECT_EQ(text(out.partner_LU_name, 17), "NETA.LUX         ");

  // Unknown everywhere: 24, and nothing is remembered.
  EXPECT_EQ(remove("NOWHERE"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(remove("NOWHERE"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_nof_count(), 9u);
}

}  // namespace
