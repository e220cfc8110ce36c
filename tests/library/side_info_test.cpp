// Side information: the store's three states per name and when the node is
// asked, failures of the node and of storage, the conversion of the node's
// record, XCMSSI, XCMESI and XCMDSI as an application uses them, and entries
// from the node's real configuration file.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "library/support.h"

namespace {

using namespace lib_test;

using SideInfo = StartedLibraryTest;

// An application entry, told from the node's by its mode length.
SCD_ENTRY application_entry(const std::string &name, uint16_t mode_length) {
  SCD_ENTRY e = named(name);
  e.usModeNameLen = mode_length;
  return e;
}

enum class State { kAbsent, kDefined, kDeleted };

// Where a name stands, found without changing it: by a lookup the node would
// answer "no such entry".
State state_of(const std::string &name) {
  const uint32_t before = snt_nof_count();
  SCD_ENTRY e = named(name);
  const CM_RETURN_CODE rc = SCD_main(SCD_LOOKUP, &e);
  if (snt_nof_count() != before) return State::kAbsent;
  return rc == CM_OK ? State::kDefined : State::kDeleted;
}

// A name is absent (the node is asked), defined by the program or the node,
// or deleted (nobody is asked, and the node's entry stays hidden).
TEST_F(SideInfo, ThreeStatesTimesThreeOperations) {
  const auto Absent = State::kAbsent, Defined = State::kDefined, Deleted = State::kDeleted;
  const CM_RETURN_CODE OK = CM_OK, P = CM_PROGRAM_PARAMETER_CHECK;
  // clang-format off
  const struct {
    State from;
    uint16_t op;
    CM_RETURN_CODE rc;
    bool node_asked;
    State to;
  } cases[] = {
      {Absent, SCD_LOOKUP, OK, true, Defined},   {Absent, SCD_SET, OK, false, Defined},
      {Absent, SCD_DELETE, OK, true, Deleted},   {Defined, SCD_LOOKUP, OK, false, Defined},
      {Defined, SCD_SET, OK, false, Defined},    {Defined, SCD_DELETE, OK, false, Deleted},
      {Deleted, SCD_LOOKUP, P, false, Deleted},  {Deleted, SCD_SET, OK, false, Defined},
      {Deleted, SCD_DELETE, P, false, Deleted},
  };
  // clang-format on
  int n = 0;
  for (const auto &c : cases) {
    const std::string name = "NAME" + std::to_string(n++);
    SCOPED_TRACE(name);
    SCD_ENTRY old = application_entry(name, 1);
    if (c.from != Absent) {
      ASSERT_EQ(SCD_main(SCD_SET, &old), CM_OK);
    }
    if (c.from == Deleted) {
      ASSERT_EQ(SCD_main(SCD_DELETE, &old), CM_OK);
    }
    const NodeEntry node{.name = name, .mode = "#BATCH"};  // mode length 6
    if (c.node_asked) node_holds(node);
    const uint32_t before = snt_nof_count();
    SCD_ENTRY e = c.op == SCD_SET ? application_entry(name, 2) : named(name);
    const SCD_ENTRY given = e;
    EXPECT_EQ(SCD_main(c.op, &e), c.rc);
    EXPECT_EQ(snt_nof_count() - before, c.node_asked ? 3u : 0u);
    if (c.op == SCD_LOOKUP && c.rc == CM_OK) {
      EXPECT_EQ(e.usModeNameLen, c.from == Absent ? 6 : 1) << "wrong entry returned";
    }
    if (c.rc != CM_OK) {
      EXPECT_EQ(std::memcmp(&e, &given, sizeof e), 0) << "entry written";
    }
    EXPECT_EQ(state_of(name), c.to);
    SCD_ENTRY now = named(name);
    if (c.op == SCD_SET) {
      ASSERT_EQ(SCD_main(SCD_LOOKUP, &now), CM_OK);
      EXPECT_EQ(now.usModeNameLen, 2) << "set did not replace the entry";
    }
  }
  EXPECT_EQ(snt_problem_count(), 0u);
}

TEST_F(SideInfo, TheNodeIsAskedOnceAndNamesMatchByteForByte) {
  NodeEntry node;
  node_holds(node);
  SCD_ENTRY first = named(node.name), second = named(node.name);
  ASSERT_EQ(SCD_main(SCD_LOOKUP, &first), CM_OK);
  EXPECT_EQ(nof_opcodes(), kAskedNode);
  node.mode = "#BATCH";
  node_holds(node);  // the node's configuration changed; it is not seen
  ASSERT_EQ(SCD_main(SCD_LOOKUP, &second), CM_OK);
  EXPECT_EQ(snt_nof_count(), 3u);
  EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);

  fresh_node();
  SCD_ENTRY abc = application_entry("ABC", 3), lower = named("abc"), zero_padded{};
  ASSERT_EQ(SCD_main(SCD_SET, &abc), CM_OK);
  std::memcpy(zero_padded.sym_dest_name, "ABC", 3);
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &lower), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &zero_padded), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_nof_count(), 6u) << "both asked the node, which holds neither";
}

// The node's failures: the close always follows a successful open, nothing
// is stored, and only results the library cannot explain are recorded.
TEST_F(SideInfo, FailuresOfTheNode) {
  const std::vector<uint16_t> open_only = {NOF_OPEN_OPCODE};
  const uint16_t L = SCD_LOOKUP, D = SCD_DELETE, Q = NOF_QUERY_SIDE_INFO_OPCODE;
  const CM_RETURN_CODE P = CM_PROGRAM_PARAMETER_CHECK, E = CM_PRODUCT_SPECIFIC_ERROR;
  // clang-format off
  const struct {
    uint16_t function, opcode, primary;
    uint32_t secondary;
    CM_RETURN_CODE rc;
    Probes problems;
  } cases[] = {
      {L, NOF_OPEN_OPCODE, AP_COMM_SUBSYSTEM_NOT_LOADED, 0, E, {{kProblemNofOpen, 0}}},
      {D, NOF_OPEN_OPCODE, AP_COMM_SUBSYSTEM_NOT_LOADED, 0, E, {{kProblemNofOpen, 1}}},
      {L, Q, AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY, P, {}},
      {L, Q, AP_STATE_CHECK, 0, E, {}},
      {L, Q, AP_UNEXPECTED_SYSTEM_ERROR, 0, E, {}},
      {D, Q, AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY, P, {}},
      {D, Q, AP_PARAMETER_CHECK, AP_BAD_FIELD, E, {{kProblemNofQuery, 1}}},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.function << " " << std::hex << c.primary);
    fresh_node();
    node_answers(c.opcode, c.primary, c.secondary);
    SCD_ENTRY e = named("FAILS");
    EXPECT_EQ(SCD_main(c.function, &e), c.rc);
    EXPECT_EQ(nof_opcodes(), c.opcode == NOF_OPEN_OPCODE ? open_only : kAskedNode);
    EXPECT_EQ(problems(), c.problems);
    if (!c.problems.empty() && c.opcode != NOF_OPEN_OPCODE) {
      EXPECT_STREQ(problem(0).arg_types, "x lx");
      EXPECT_EQ(problem(0).args[1], c.secondary);
    }
    fresh_node();
    EXPECT_EQ(state_of("FAILS"), State::kAbsent) << "nothing was stored";
  }
}

TEST_F(SideInfo, FailuresOfStorage) {
  // A lookup whose copy cannot be kept still fills the caller's entry.
  for (bool insert : {true, false}) {
    fresh_node();
    const NodeEntry node{.name = insert ? "VIAINS" : "VIAALLOC"};
    node_holds(node);
    insert ? snt_fail_table_inserts(1) : snt_fail_allocations(1);
    SCD_ENTRY e = named(node.name);
    ASSERT_EQ(SCD_main(SCD_LOOKUP, &e), CM_OK);
    EXPECT_EQ(e.conversation_security_type, 2u);
    EXPECT_EQ(problems(), (insert ? Probes{{kProblemNoResource, 87}} : Probes{}));
    EXPECT_EQ(state_of(node.name), State::kAbsent) << "the failed copy was served";
  }
  // Set and delete fail and leave the store as it was.
  const std::tuple<uint16_t, void (*)(uint32_t), uint32_t> cases[] = {
      {SCD_SET, snt_fail_allocations, 5},
      {SCD_SET, snt_fail_table_inserts, 6},
      {SCD_DELETE, snt_fail_allocations, 3},
      {SCD_DELETE, snt_fail_table_inserts, 4}};
  for (const auto &[function, inject, probe] : cases) {
    fresh_node();
    const NodeEntry node{.name = "S" + std::to_string(probe)};
    if (function == SCD_DELETE) node_holds(node);
    inject(1);
    SCD_ENTRY e = application_entry(node.name, 4);
    EXPECT_EQ(SCD_main(function, &e), CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_EQ(problems(), (Probes{{kProblemNoResource, probe}}));
    fresh_node();
    EXPECT_EQ(state_of(node.name), State::kAbsent);
  }
}

TEST(SideInfoStart, TheStoreNeedsAStartedLibrary) {
  snt_reset();
  snt_script_nof(1);
  snt_fail_table_inits(3);
  SCD_ENTRY e = named("ANY");
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &e), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(fInitCPIC, 0);
  EXPECT_EQ(snt_nof_count(), 0u);
}

// ---- the node's record ----

SCD_ENTRY convert(const NodeEntry &node) {
  const NOF_SIDE_INFO_DATA record = node_record(node);
  SCD_ENTRY e;
  std::memset(&e, 0xEE, sizeof e);  // every field must be written
  SCD_read_nof_response(&record, &e);
  return e;
}

TEST_F(SideInfo, TheNodesRecordIsConvertedAndKept) {
  // The last period decides; an earlier one is outside the set.  An alias is
  // kept as given, in ASCII.
  const std::tuple<const char *, uint16_t, uint16_t, std::string> partners[] = {
      {"NET1.LU1", 1, 4, text_of(ebcdic_field("NET1.LU1", 17).data(), 17)},
      {"NET.A.B", 1, 5,
       "\xD5\xC5\xE3" + std::string(1, '\0') + "\xC1\x4B\xC2" + std::string(10, '\x40')},
      {"LUALIAS", 0, 0, "LUALIAS          "},
      {"", 0, 0, std::string(17, ' ')}};
  for (const auto &[partner, qualified, period, stored] : partners) {
    SCOPED_TRACE(partner);
    const SCD_ENTRY e = convert({.partner = partner});
    EXPECT_EQ(std::tuple(e.usPartnerLUQualified, e.usPartnerLUPeriodPos, size_t{e.usPartnerLULen},
                         text_of(e.partner_LU_name, 17)),
              std::tuple(qualified, period, std::strlen(partner), stored));
  }
  NodeEntry node{.name = "KEPT", .local_lu = "BILLING"};
  const SCD_ENTRY e = convert(node);
  EXPECT_EQ(std::tuple(e.TP_name_type, e.usModeNameLen, text_of(e.local_LU_alias, 8),
                       text_of(e.sym_dest_name, 8)),
            std::tuple(0u, uint16_t{6}, "BILLING ", "KEPT    "));
  EXPECT_EQ(bytes(e.TP_name, 64), ebcdic_field("PAYROLL", 64));
  EXPECT_EQ(text_of(e.mode_name, 8), "\x7B" + text_of(ebcdic_field("INTER", 7).data(), 7));
  EXPECT_EQ(bytes(e.reserved, 3), Bytes(3, 0));
  SCD_SLOT *slot = nullptr;
  ASSERT_EQ(SCD_match_sym_dest_name(e.sym_dest_name, &slot), 1);
  EXPECT_EQ(std::memcmp(&slot->Entry, &e, sizeof e), 0);
  node.local_lu.clear();
  EXPECT_EQ(bytes(convert(node).local_LU_alias, 8), Bytes(8, 0));

  // A service TP name is 8 hex digits giving 4 raw bytes, read pairwise as
  // strtol reads them.
  node.tp_name_type = 1;
  for (auto [tp, first4] :
       {std::pair{"06F1F0F2", "\x06\xF1\xF0\xF2"}, std::pair{"06f1ZZ2x", "\x06\xF1\0\x02"}}) {
    node.tp_name = tp;
    const SCD_ENTRY service = convert(node);
    EXPECT_EQ(service.TP_name_type, 1u);
    EXPECT_EQ(text_of(service.TP_name, 64), std::string(first4, 4) + std::string(60, '\x40'));
  }
  // The security fields follow the security type.
  for (uint32_t type : {0u, 1u, 2u, 3u, 5u}) {
    node.security = type;
    const SCD_ENTRY s = convert(node);
    const bool user = type == 1 || type == 2 || type == 5, password = type == 2 || type == 5;
    EXPECT_EQ(std::pair(bytes(s.security_user_ID, 10), s.usUserIDLen),
              std::pair(user ? ebcdic_field("CLERK", 10) : Bytes(10, 0), uint16_t(user ? 5 : 0)));
    EXPECT_EQ(bytes(s.security_password, 10), password ? ebcdic_field("SECRET", 10) : Bytes(10, 0));
  }
}

// ---- XCMSSI, XCMESI and XCMDSI ----

SIDE_INFO app_entry(const std::string &name) {
  SIDE_INFO e;
  std::memset(&e, 0, sizeof e);
  auto put = [](unsigned char *field, size_t size, const std::string &text) {
    std::memcpy(field, padded(text, size).data(), size);
  };
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
CM_RETURN_CODE set(SIDE_INFO entry, CM_INT32 length = sizeof(SIDE_INFO)) {
  unsigned char key[8] = {};
  return rc_call(xcmssi, key, &entry, &length);
}
CM_RETURN_CODE extract(const std::string &name, SIDE_INFO &out, CM_INT32 length = sizeof(SIDE_INFO),
                       CM_INT32 entry_number = 0) {
  std::memset(&out, 'Q', sizeof out);
  std::string key = padded(name, 8);
  return rc_call(xcmesi, &entry_number, reinterpret_cast<unsigned char *>(key.data()), &out,
                 &length);
}
CM_RETURN_CODE remove(const std::string &name) {
  unsigned char key[8] = {};
  std::string sym = padded(name, 8);
  return rc_call(xcmdsi, key, reinterpret_cast<unsigned char *>(sym.data()));
}

TEST_F(SideInfo, SetAndExtractRoundTrip) {
  ASSERT_EQ(set(app_entry("ROUND")), CM_OK);
  SIDE_INFO out, again;
  ASSERT_EQ(extract("ROUND", out), CM_OK);
  EXPECT_EQ(snt_nof_count(), 0u) << "a set entry must not need the node";
  // The set folds the LU name's case, '!' is outside the mode name's set, the
  // reserved bytes are not written and the password is never returned.
  EXPECT_EQ(text_of(out.sym_dest_name, 8) + "|" + text_of(out.partner_LU_name, 17) + "|" +
                text_of(out.reserved, 3) + "|" + text_of(out.TP_name, 64) + "|" +
                text_of(out.mode_name, 8) + "|" + text_of(out.security_user_ID, 8) + "|" +
                text_of(out.security_password, 8),
            "ROUND   |NETA.LUX         |QQQ|" + padded("Payroll-1", 64) + "|" +
                std::string("#IN\0ER  ", 8) + "|clerk   |" + std::string(8, '\0'));
  EXPECT_EQ(out.conversation_security_type, CM_SECURITY_PROGRAM);
  // Neither the key of XCMSSI nor the entry number of XCMESI changes anything.
  ASSERT_EQ(extract("ROUND", again, sizeof(SIDE_INFO), 77), CM_OK);
  EXPECT_EQ(std::memcmp(&out, &again, sizeof out), 0);
  // What a conversation would use: EBCDIC, lengths worked out.
  SCD_ENTRY stored = named("ROUND");
  ASSERT_EQ(SCD_main(SCD_LOOKUP, &stored), CM_OK);
  EXPECT_EQ(std::vector<int>({stored.usPartnerLUQualified, stored.usPartnerLUPeriodPos,
                              stored.usModeNameLen, stored.usUserIDLen}),
            std::vector<int>({1, 4, 6, 5}));
  EXPECT_EQ(text_of(stored.security_password + 4, 6), "\x85\xA3\x40\x40\x40\x40");

  // The fields an entry does not use are not written.
  SIDE_INFO in = app_entry("SHAPE");
  std::memcpy(in.partner_LU_name, "LONGALIAS12      ", 17);
  in.conversation_security_type = CM_SECURITY_SAME;
  ASSERT_EQ(set(in), CM_OK);
  ASSERT_EQ(extract("SHAPE", out), CM_OK);
  EXPECT_EQ(text_of(out.partner_LU_name, 17), "LONGALIA         ");
  EXPECT_EQ(text_of(out.security_user_ID, 8) + text_of(out.security_password, 8),
            std::string(16, 'Q'));
}

TEST_F(SideInfo, SetAndExtractRefuseBadArguments) {
  const struct {
    CM_INT32 length;
    const char *name;
    int32_t tp_type, security;
    Probes problems;
  } cases[] = {
      {128, "BAD", 0, 2, {{kProblemSideInfoLength, 1}}},
      {0, "BAD", 0, 2, {{kProblemSideInfoLength, 1}}},
      {124, " BAD", 0, 2, {}},
      {124, "", 0, 2, {}},
      {124, "BAD", 2, 2, {}},
      {124, "BAD", -1, 2, {}},
      {124, "BAD", 0, 3, {}},
      {124, "BAD", 0, 4, {}},
      {124, "BAD", 0, 6, {}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.length << c.name << c.tp_type << c.security);
    fresh_node();
    SIDE_INFO in = app_entry(c.name);
    in.TP_name_type = c.tp_type;
    in.conversation_security_type = c.security;
    EXPECT_EQ(set(in, c.length), CM_PROGRAM_PARAMETER_CHECK);
    EXPECT_EQ(problems(), c.problems);
    SIDE_INFO out;
    EXPECT_EQ(extract(c.name, out), CM_PROGRAM_PARAMETER_CHECK) << "something was stored";
  }
  ASSERT_EQ(set(app_entry("THERE")), CM_OK);
  fresh_node();
  SIDE_INFO out, untouched;
  std::memset(&untouched, 'Q', sizeof untouched);
  EXPECT_EQ(extract("THERE", out, 120), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(problems(), (Probes{{kProblemSideInfoLength, 0}}));
  EXPECT_EQ(std::memcmp(&out, &untouched, sizeof out), 0);
}

TEST_F(SideInfo, DeletingANameOnlyTheNodeHolds) {
  node_holds({.name = "NODEONLY"});
  EXPECT_EQ(remove("NODEONLY"), CM_OK);
  EXPECT_EQ(nof_opcodes(), kAskedNode);
  SIDE_INFO out;
  EXPECT_EQ(extract("NODEONLY", out), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(remove("NODEONLY"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_nof_count(), 3u) << "a deleted name must not be asked of the node";
  ASSERT_EQ(set(app_entry("NODEONLY")), CM_OK);
  EXPECT_EQ(extract("NODEONLY", out), CM_OK);
  // Unknown everywhere: 24, and nothing is remembered.
  EXPECT_EQ(remove("NOWHERE"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(remove("NOWHERE"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_nof_count(), 9u);
}

// Entries from the node's configuration file, through its real NOF service.
TEST(SideInfoConfiguration, ExtractAndInitializeSeeTheConfiguredEntries) {
  const auto file = std::filesystem::temp_directory_path() /
                    ("snanode-sideinfo-" + std::to_string(::getpid()) + ".toml");
  std::ofstream(file) << R"(
[[partner_lu]]
alias = "HQ"
lu_name = "NETB.HQLU"
[[side_info]]
sym_dest_name = "PAYROLL"
partner_lu = "NETB.HQLU"
mode = "#BATCH"
tp_name = "PAYTP"
security = "program"
user_id = "CLERK"
password = "SECRET"
[[side_info]]
sym_dest_name = "SVC"
partner_lu = "HQ"
mode = "#INTER"
tp_name_type = "service"
tp_name = "06F1F0F2"
security = "none"
)";
  ::setenv("SNANODE_CONFIG", file.c_str(), 1);  // read once: this process is this test's
  SIDE_INFO out;
  ASSERT_EQ(extract("PAYROLL", out), CM_OK);
  std::filesystem::remove(file);
  EXPECT_EQ(text_of(out.partner_LU_name, 17) + text_of(out.mode_name, 8) +
                text_of(out.TP_name, 64) + text_of(out.security_user_ID, 8),
            "NETB.HQLU        #BATCH  " + padded("PAYTP", 64) + "CLERK   ");
  EXPECT_EQ(out.conversation_security_type, CM_SECURITY_PROGRAM);
  ASSERT_EQ(extract("SVC", out), CM_OK);
  EXPECT_EQ(out.TP_name_type, CM_SNA_SERVICE_TP);
  // X'06F1F0F2'
  EXPECT_EQ(text_of(out.TP_name, 64) + text_of(out.partner_LU_name, 17),
            padded("\x06\x31\x30\x32", 64) + "HQ               ");
  EXPECT_EQ(extract("NOSUCH", out), CM_PROGRAM_PARAMETER_CHECK);
  ConvId id{};
  EXPECT_EQ(rc_of([](unsigned char *i, CM_RETURN_CODE *rc) {
              cminit(i, reinterpret_cast<unsigned char *>(padded("PAYROLL", 8).data()), rc);
            })(id),
            CM_OK);
}

}  // namespace
