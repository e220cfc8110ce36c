// The side-information store: its three states per name, when the node is
// asked, and how failures of the node and of storage leave the store.
#include "side_info.h"
#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

enum class State { kAbsent, kDefined, kDeleted };
enum class Op { kLookup, kSet, kDelete };

const char *name_of(State s) {
  return s == State::kAbsent ? "absent" : s == State::kDefined ? "defined" : "deleted";
}
const char *name_of(Op o) {
  return o == Op::kLookup ? "lookup" : o == Op::kSet ? "set" : "delete";
}

// An application entry distinguishable from the node's by its mode length.
SCD_ENTRY application_entry(const std::string &name, uint16_t mode_length) {
  SCD_ENTRY e = named(name);
  e.usModeNameLen = mode_length;
  e.conversation_security_type = CM_SECURITY_NONE;
  return e;
}

// Where a name stands after the operation, found without changing it: a
// lookup the node would answer "no such entry".
State probe_state(const std::string &name) {
  const uint32_t before = snt_nof_count();
  SCD_ENTRY e = named(name);
  const CM_RETURN_CODE rc = SCD_main(SCD_LOOKUP, &e);
  const bool asked = snt_nof_count() != before;
  if (rc == CM_OK && !asked) return State::kDefined;
  if (rc == CM_PROGRAM_PARAMETER_CHECK && !asked) return State::kDeleted;
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  return State::kAbsent;
}

class SideInfoStore : public ScriptedNode {};

TEST_F(SideInfoStore, ThreeStatesTimesThreeOperations) {
  struct Case {
    State from;
    Op op;
    CM_RETURN_CODE rc;
    bool node_asked;
    State to;
  };
  // For an absent name the node holds an entry of that name.
  const Case cases[] = {
      {State::kAbsent, Op::kLookup, CM_OK, true, State::kDefined},
      {State::kAbsent, Op::kSet, CM_OK, false, State::kDefined},
      {State::kAbsent, Op::kDelete, CM_OK, true, State::kDeleted},
      {State::kDefined, Op::kLookup, CM_OK, false, State::kDefined},
      {State::kDefined, Op::kSet, CM_OK, false, State::kDefined},
      {State::kDefined, Op::kDelete, CM_OK, false, State::kDeleted},
      {State::kDeleted, Op::kLookup, CM_PROGRAM_PARAMETER_CHECK, false, State::kDeleted},
      {State::kDeleted, Op::kSet, CM_OK, false, State::kDefined},
      {State::kDeleted, Op::kDelete, CM_PROGRAM_PARAMETER_CHECK, false, State::kDeleted},
  };
  start_library();
  int n = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(name_of(c.from)) + " x " + name_of(c.op));
    const std::string name = "NAME" + std::to_string(n++);
    if (c.from != State::kAbsent) {
      SCD_ENTRY old = application_entry(name, 1);
      ASSERT_EQ(SCD_main(SCD_SET, &old), CM_OK);
    }
    if (c.from == State::kDeleted) {
      SCD_ENTRY old = named(name);
      ASSERT_EQ(SCD_main(SCD_DELETE, &old), CM_OK);
    }
    NodeEntry node;
    node.name = name;
    node.mode = "#BATCH";  // usModeNameLen 6
    if (c.node_asked) node_holds(node);

    const uint32_t before = snt_nof_count();
    SCD_ENTRY e = c.op == Op::kSet ? application_entry(name, 2) : named(name);
    const SCD_ENTRY given = e;
    EXPECT_EQ(SCD_main(c.op == Op::kLookup ? SCD_LOOKUP
                       : c.op == Op::kSet  ? SCD_SET
                                           : SCD_DELETE,
                       &e),
              c.rc);
    EXPECT_EQ(snt_nof_count() - before, c.node_asked ? 3u : 0u);
    if (c.op == Op::kLookup && c.rc == CM_OK) {
      EXPECT_EQ(e.usModeNameLen, c.from == State::kAbsent ? 6 : 1) << "wrong entry returned";
    }
    if (c.rc != CM_OK) {
      EXPECT_EQ(std::memcmp(&e, &given, sizeof e), 0) << "entry written";
    }
    EXPECT_EQ(probe_state(name), c.to);
    if (c.to == State::kDefined && c.op == Op::kSet) {
      SCD_ENTRY now = named(name);
      ASSERT_EQ(SCD_main(SCD_LOOKUP, &now), CM_OK);
      EXPECT_EQ(now.usModeNameLen, 2) << "set did not replace the entry";
    }
    EXPECT_EQ(snt_problem_count(), 0u);
  }
}

TEST_F(SideInfoStore, TheNodeIsAskedOnceAndItsLaterChangesAreNotSeen) {
  NodeEntry node;
  node.mode = "#INTER";
  node_holds(node);
  SCD_ENTRY first = named(node.name);
  ASSERT_EQ(SCD_main(SCD_LOOKUP, &first), CM_OK);
  EXPECT_EQ(nof_opcodes(), kAskedNode);

  node.mode = "#BATCH";
  node_holds(node);  // the node's configuration changed
  SCD_ENTRY second = named(node.name);
  ASSERT_EQ(SCD_main(SCD_LOOKUP, &second), CM_OK);
  EXPECT_EQ(snt_nof_count(), 3u);
  EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);
}

TEST_F(SideInfoStore, NamesMatchByteForByte) {
  start_library();
  SCD_ENTRY upper = application_entry("ABC", 3);
  ASSERT_EQ(SCD_main(SCD_SET, &upper), CM_OK);
  SCD_ENTRY found = named("ABC");
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &found), CM_OK);
  EXPECT_EQ(snt_nof_count(), 0u);

  SCD_ENTRY lower = named("abc");
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &lower), CM_PROGRAM_PARAMETER_CHECK);
  SCD_ENTRY zero_padded{};
  std::memcpy(zero_padded.sym_dest_name, "ABC", 3);
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &zero_padded), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(snt_nof_count(), 6u);  // both asked the node, which holds neither
  SCD_SLOT *slot = nullptr;
  EXPECT_EQ(SCD_match_sym_dest_name(lower.sym_dest_name, &slot), 0);
}

TEST_F(SideInfoStore, AFailedOpenLeavesNothingToClose) {
  start_library();
  struct {
    uint16_t function;
    uint32_t probe;
  } const cases[] = {{SCD_LOOKUP, 0}, {SCD_DELETE, 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.function);
    fresh_node();
    node_answers(NOF_OPEN_OPCODE, AP_COMM_SUBSYSTEM_NOT_LOADED, 0);
    SCD_ENTRY e = named("ANY");
    EXPECT_EQ(SCD_main(c.function, &e), CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_EQ(nof_opcodes(), std::vector<uint16_t>{NOF_OPEN_OPCODE});
    ASSERT_EQ(snt_problem_count(), 1u);
    EXPECT_EQ(problem(0).code, kProblemNofOpen);
    EXPECT_EQ(problem(0).probe, c.probe);
  }
}

TEST_F(SideInfoStore, AFailedQueryIsAlwaysFollowedByAClose) {
  start_library();
  struct {
    uint16_t function;
    uint16_t primary;
    uint32_t secondary;
    CM_RETURN_CODE rc;
    bool problem_record;
  } const cases[] = {
      {SCD_LOOKUP, AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY, CM_PROGRAM_PARAMETER_CHECK, false},
      {SCD_LOOKUP, AP_STATE_CHECK, 0, CM_PRODUCT_SPECIFIC_ERROR, false},
      {SCD_LOOKUP, AP_UNEXPECTED_SYSTEM_ERROR, 0, CM_PRODUCT_SPECIFIC_ERROR, false},
      {SCD_DELETE, AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY, CM_PROGRAM_PARAMETER_CHECK, false},
      {SCD_DELETE, AP_PARAMETER_CHECK, AP_BAD_FIELD, CM_PRODUCT_SPECIFIC_ERROR, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::Message() << c.function << " " << std::hex << c.primary);
    fresh_node();
    node_answers(NOF_QUERY_SIDE_INFO_OPCODE, c.primary, c.secondary);
    SCD_ENTRY e = named("FAILS");
    EXPECT_EQ(SCD_main(c.function, &e), c.rc);
    EXPECT_EQ(nof_opcodes(), kAskedNode);
    ASSERT_EQ(snt_problem_count(), c.problem_record ? 1u : 0u);
    if (c.problem_record) {
      const SNT_RECORD r = problem(0);
      EXPECT_EQ(r.code, kProblemNofQuery);
      EXPECT_EQ(r.probe, 1u);
      EXPECT_STREQ(r.arg_types, "x lx");
      EXPECT_EQ(r.args[0], c.primary);
      EXPECT_EQ(r.args[1], c.secondary);
    }
    // Nothing was stored: the next lookup asks the node again.
    fresh_node();
    SCD_ENTRY again = named("FAILS");
    SCD_main(SCD_LOOKUP, &again);
    EXPECT_EQ(snt_nof_count(), 3u);
  }
}

TEST_F(SideInfoStore, ACacheFailureStillFillsTheCallersEntry) {
  start_library();
  struct {
    bool fail_insert;  // else the allocation fails
    uint32_t problems;
  } const cases[] = {{true, 1}, {false, 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fail_insert ? "insert" : "allocation");
    fresh_node();
    NodeEntry node;
    node.name = c.fail_insert ? "VIAINS" : "VIAALLOC";
    node_holds(node);
    c.fail_insert ? snt_fail_table_inserts(1) : snt_fail_allocations(1);
    SCD_ENTRY e = named(node.name);
    ASSERT_EQ(SCD_main(SCD_LOOKUP, &e), CM_OK);
    EXPECT_EQ(e.usModeNameLen, 6);
    EXPECT_EQ(e.conversation_security_type, 2u);
    ASSERT_EQ(snt_problem_count(), c.problems);
    if (c.problems) {
      EXPECT_EQ(problem(0).code, kProblemNoResource);
      EXPECT_EQ(problem(0).probe, 87u);
    }
    node_holds(node);
    SCD_ENTRY again = named(node.name);
    ASSERT_EQ(SCD_main(SCD_LOOKUP, &again), CM_OK);
    EXPECT_EQ(snt_nof_count(), 6u) << "the failed copy was served";
    EXPECT_EQ(std::memcmp(&e, &again, sizeof e), 0);
  }
}

TEST_F(SideInfoStore, StorageFailuresOfSetAndDelete) {
  start_library();
  struct {
    uint16_t function;
    bool fail_insert;
    uint32_t probe;
  } const cases[] = {
      {SCD_SET, false, 5},
      {SCD_SET, true, 6},
      {SCD_DELETE, false, 3},
      {SCD_DELETE, true, 4},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::Message() << c.function << " probe " << c.probe);
    fresh_node();
    NodeEntry node;
    node.name = "S" + std::to_string(c.probe);
    if (c.function == SCD_DELETE) node_holds(node);
    c.fail_insert ? snt_fail_table_inserts(1) : snt_fail_allocations(1);
    SCD_ENTRY e = application_entry(node.name, 4);
    EXPECT_EQ(SCD_main(c.function, &e), CM_PRODUCT_SPECIFIC_ERROR);
    ASSERT_EQ(snt_problem_count(), 1u);
    EXPECT_EQ(problem(0).code, kProblemNoResource);
    EXPECT_EQ(problem(0).probe, c.probe);
    // The store is as it was: the name is still absent.
    fresh_node();
    EXPECT_EQ(probe_state(node.name), State::kAbsent);
  }
}

TEST_F(SideInfoStore, TheStoreNeedsAStartedLibrary) {
  snt_fail_table_inits(3);
  SCD_ENTRY e = named("ANY");
  EXPECT_EQ(SCD_main(SCD_LOOKUP, &e), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(fInitCPIC, 0);
  EXPECT_EQ(snt_nof_count(), 0u);
}

}  // namespace
