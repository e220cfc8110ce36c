// The node's NOF service: side information answered from the configuration,
// and the scripted answers tests use instead.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "config/node_config.h"
#include "config/nof_scripts.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"
#include "snanode/verbs.h"

namespace cfg = snanode::config;

namespace {

class NofService : public ::testing::Test {
 protected:
  void SetUp() override {
    cfg::reset_nof_scripts();
    file_ = std::filesystem::temp_directory_path() /
            ("snanode-nof-" + std::to_string(::getpid()) + ".toml");
    std::ofstream(file_) << R"(
[[partner_lu]]
alias = "HQ"
lu_name = "NETB.HQLU"
[[side_info]]
sym_dest_name = "PLAIN"
partner_lu = "HQ"
mode = "#INTER"
tp_name = "ECHOTP"
security = "none"
[[side_info]]
sym_dest_name = "SECURE"
partner_lu = "NETB.HQLU"
mode = "#BATCH"
tp_name = "PAYROLL"
security = "program"
user_id = "CLERK"
password = "SECRET"
local_lu_alias = "LOCAL"
[[side_info]]
sym_dest_name = "SVC"
partner_lu = "LOCAL"
mode = "#INTER"
tp_name_type = "service"
tp_name = "06F1F0F2"
security = "same"
user_id = "ME"
)";
    ::setenv("SNANODE_CONFIG", file_.c_str(), 1);
    cfg::reload_config();
  }
  void TearDown() override {
    std::filesystem::remove(file_);
    cfg::reset_nof_scripts();
  }

  uint32_t open_node() {
    NOF_OPEN open{};
    open.opcode = NOF_OPEN_OPCODE;
    open.format = 2;
    nof_version(2, 0, &open);
    EXPECT_EQ(open.primary_rc, 0u);
    EXPECT_NE(open.target_handle, 0u);
    return open.target_handle;
  }

  NOF_QUERY_SIDE_INFO query(uint32_t handle, const char *name, NOF_SIDE_INFO_DATA &record) {
    NOF_QUERY_SIDE_INFO q{};
    q.opcode = NOF_QUERY_SIDE_INFO_OPCODE;
    q.format = 1;
    q.buf_ptr = reinterpret_cast<uint8_t *>(&record);
    q.buf_size = sizeof record;
    q.num_entries = 1;
    q.list_options = 4;
    std::memcpy(q.sym_dest_name, name, 8);
    nof_version(2, handle, &q);
    return q;
  }

  uint16_t close_node(uint32_t handle) {
    NOF_CLOSE close{};
    close.opcode = NOF_CLOSE_OPCODE;
    nof_version(2, handle, &close);
    return close.primary_rc;
  }

  std::filesystem::path file_;
};

std::string text(const uint8_t *field, size_t size) {
  return std::string(reinterpret_cast<const char *>(field), size);
}

TEST_F(NofService, RecordsCarryBlankPaddedNamesAndOnlyTheSecurityTheTypeAllows) {
  const uint32_t handle = open_node();
  NOF_SIDE_INFO_DATA r;

  std::memset(&r, 0xEE, sizeof r);
  ASSERT_EQ(query(handle, "PLAIN   ", r).primary_rc, 0u);
  EXPECT_EQ(text(r.sym_dest_name, 8), "PLAIN   ");
  EXPECT_EQ(text(r.partner_lu_name, 17), "HQ               ");
  EXPECT_EQ(r.tp_name_type, 0u);
  EXPECT_EQ(text(r.tp_name, 64), "ECHOTP" + std::string(58, ' '));
  EXPECT_EQ(text(r.mode_name, 8), "#INTER  ");
  EXPECT_EQ(r.conversation_security_type, 0u);
  EXPECT_EQ(text(r.security_user_id, 10), std::string(10, '\0'));
  EXPECT_EQ(text(r.security_password, 10), std::string(10, '\0'));
  EXPECT_EQ(text(r.lu_alias, 8), std::string(8, '\0'));  // names no local LU

  ASSERT_EQ(query(handle, "SECURE  ", r).primary_rc, 0u);
  EXPECT_EQ(text(r.partner_lu_name, 17), "NETB.HQLU        ");
  EXPECT_EQ(text(r.mode_name, 8), "#BATCH  ");
  EXPECT_EQ(r.conversation_security_type, 2u);
  EXPECT_EQ(text(r.security_user_id, 10), "CLERK     ");
  EXPECT_EQ(text(r.security_password, 10), "SECRET    ");
  EXPECT_EQ(text(r.lu_alias, 8), "LOCAL   ");

  ASSERT_EQ(query(handle, "SVC     ", r).primary_rc, 0u);
  EXPECT_EQ(r.tp_name_type, 1u);
  EXPECT_EQ(text(r.tp_name, 8), "06F1F0F2");
  EXPECT_EQ(r.conversation_security_type, 1u);
  EXPECT_EQ(text(r.security_user_id, 10), "ME        ");
  EXPECT_EQ(text(r.security_password, 10), std::string(10, '\0'));

  EXPECT_EQ(close_node(handle), 0u);
}

TEST_F(NofService, NamesAreMatchedExactlyAndHandlesMustBeOpen) {
  const uint32_t handle = open_node();
  NOF_SIDE_INFO_DATA r{};
  struct {
    const char *key;
    uint16_t primary;
    uint32_t secondary;
  } const cases[] = {
      {"PLAIN   ", 0, 0},
      {"plain   ", AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY},
      {"PLAIN\0\0\0", AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY},
      {"NOSUCH  ", AP_STATE_CHECK, AP_NO_SIDE_INFO_ENTRY},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.key);
    const NOF_QUERY_SIDE_INFO q = query(handle, c.key, r);
    EXPECT_EQ(q.primary_rc, c.primary);
    EXPECT_EQ(q.secondary_rc, c.secondary);
  }
  EXPECT_EQ(close_node(handle), 0u);
  // Closed: neither a query nor a second close is accepted.
  EXPECT_EQ(query(handle, "PLAIN   ", r).primary_rc, AP_PARAMETER_CHECK);
  EXPECT_EQ(close_node(handle), AP_PARAMETER_CHECK);
}

TEST_F(NofService, AnUnusableConfigurationRefusesTheOpen) {
  std::ofstream(file_) << "[node]\nname = 1\n";
  cfg::reload_config();
  NOF_OPEN open{};
  open.opcode = NOF_OPEN_OPCODE;
  nof_version(2, 0, &open);
  EXPECT_NE(open.primary_rc, 0u);
}

TEST_F(NofService, ScriptsAnswerByOpcodeAndEveryVerbIsLogged) {
  snt_script_nof(1);
  SNT_NOF_SCRIPT script{};
  script.opcode = NOF_QUERY_SIDE_INFO_OPCODE;
  std::memcpy(script.record + 2, "FROMSCR ", 8);
  snt_push_nof_script(&script);  // only the query is scripted

  const uint32_t handle = open_node();  // default answer: success
  NOF_SIDE_INFO_DATA r{};
  EXPECT_EQ(query(handle, "ANY     ", r).primary_rc, 0u);
  EXPECT_EQ(text(r.sym_dest_name, 8), "FROMSCR ");
  // No script left: the default answer is "no such entry", whatever the
  // configuration holds.
  const NOF_QUERY_SIDE_INFO second = query(handle, "PLAIN   ", r);
  EXPECT_EQ(second.primary_rc, AP_STATE_CHECK);
  EXPECT_EQ(second.secondary_rc, AP_NO_SIDE_INFO_ENTRY);

  script = SNT_NOF_SCRIPT{};
  script.opcode = NOF_CLOSE_OPCODE;
  script.primary_rc = AP_PARAMETER_CHECK;
  snt_push_nof_script(&script);
  EXPECT_EQ(close_node(handle), AP_PARAMETER_CHECK);

  ASSERT_EQ(snt_nof_count(), 4u);
  const uint16_t expected[] = {NOF_OPEN_OPCODE, NOF_QUERY_SIDE_INFO_OPCODE,
                               NOF_QUERY_SIDE_INFO_OPCODE, NOF_CLOSE_OPCODE};
  for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(snt_nof_opcode(i), expected[i]) << i;
  EXPECT_EQ(snt_nof_opcode(4), 0u);

  // A reset drops the log and the scripting: the configuration answers again.
  cfg::reset_nof_scripts();
  EXPECT_EQ(snt_nof_count(), 0u);
  const uint32_t real = open_node();
  EXPECT_EQ(query(real, "PLAIN   ", r).primary_rc, 0u);
  EXPECT_EQ(close_node(real), 0u);
}

}  // namespace
