// The configuration file (the sample, the built-in values, every kind of
// mistake with its position, where the file comes from and the environment
// overrides), putting it into effect when a process connects, and the side
// information the NOF service answers from it.
#include <gmock/gmock.h>
#include "config/apply_configuration.h"
#include "core/log_files.h"
#include "node/core_test_support.h"

namespace cfg = snanode::config;

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const std::filesystem::path kSample =
    std::filesystem::path(__FILE__).parent_path() / "../../samples/snanode.toml";

// The sample's values that no other test reads land where they belong.
TEST(ConfigParse, SampleValuesAndTheBuiltInValuesOfSectionsLeftOut) {
  const cfg::NodeConfig sample = cfg::load_config(kSample);
  EXPECT_EQ(sample.partner_lus.at(0).host, "hq.example.net");
  EXPECT_EQ(sample.modes.at(1).send_buffer_size, 32768u);
  EXPECT_EQ(sample.tps.at(0).arguments, std::vector<std::string>{"--verbose"});
  EXPECT_EQ(sample.tps[0].max_instances, 4u);
  EXPECT_EQ(sample.log_dir, "/var/log/snanode");
  const cfg::NodeConfig c = cfg::parse_config(
      "[node]\nnetwork_id = \"NETX\"\n[[tp]]\ntp_name = \"T\"\nprogram = \"/bin/t\"\n"
      "sync_levels = [\"confirm\"]\n[pam]\nenabled = true\n[[user]]\nuser_id = \"U\"\n",
      "t.toml");
  ASSERT_EQ(c.local_lus.size(), 1u);
  EXPECT_EQ(c.local_lus[0].lu_name, "NETX.LOCAL");
  EXPECT_TRUE(c.local_lus[0].is_default);
  ASSERT_EQ(c.modes.size(), 2u);
  EXPECT_EQ(c.modes[0].name, "#INTER");
  EXPECT_TRUE(c.tps.at(0).accept_basic && c.tps[0].accept_mapped);
  EXPECT_FALSE(c.tps[0].accept_sync_none);
  EXPECT_TRUE(c.users.at(0).password.empty());  // with PAM; without, it is a mistake
  // A lone local LU is the default without saying so.
  EXPECT_TRUE(cfg::parse_config("[[local_lu]]\nalias = \"ONE\"\n", "t").local_lus[0].is_default);
}

// The message `text` is refused with, or "(accepted)".
std::string refusal(const std::string &text, const char *file = "node.toml") {
  try {
    cfg::parse_config(text, file);
  } catch (const cfg::ConfigError &e) {
    return e.what();
  }
  return "(accepted)";
}

// A side information entry that is right apart from what a case changes.
std::string side_info(const std::string &extra, const char *partner = "LOCAL",
                      const char *mode = "#INTER") {
  return std::string("[[side_info]]\nsym_dest_name = 'S'\npartner_lu = '") + partner +
         "'\nmode = '" + mode + "'\ntp_name = 'T'\n" + extra;
}

TEST(ConfigParse, EachMistakeGivesOneMessageWithItsPosition) {
  const std::string two_lus = "[[local_lu]]\nalias = 'A'\ndefault = true\n[[local_lu]]\n";
  const std::string tp = "[[tp]]\ntp_name = 'T'\nprogram = '/t'\n";
  const struct {
    std::string text;
    const char *position;  // line:column, or only the line for the TOML parser's own messages
    const char *problem;
  } cases[] = {
      {"[node]\nname = 'A\n", "2", ""},
      {"[node]\nname = 5\n", "2:8", "[node] name: must be a string, not an integer"},
      {"[node]\nnmae = 'X'\n", "2:1", "[node]: unknown key nmae"},
      {"[nodes]\n", "1:2", "unknown section or key nodes"},
      {"[node]\nname = 'NODENAME9'\n", "2:8", "is longer than 8 characters"},
      {"[[local_lu]]\nalias = 'A'\n[[local_lu]]\nalias = 'B'\n", "1:1",
       "no local LU is the default"},
      {two_lus + "alias = 'B'\ndefault = true\n", "6:11", "default: a second default local LU"},
      {two_lus + "alias = 'A'\n", "5:9", "[[local_lu]] alias: \"A\" is defined twice"},
      {"[[local_lu]]\nlu_name = 'N.A'\n", "1:1", "[[local_lu]] needs the key alias"},
      {"[[partner_lu]]\nalias = 'P'\nlu_name = 'NOPERIOD'\n", "3:11", "not of the form NETID.LU"},
      {"[[partner_lu]]\nalias = 'LOCAL'\nlu_name = 'N.X'\n", "2:9", "alias of the local LU"},
      {"[[mode]]\nname = '#inter'\n", "2:8", "[[mode]] name: mode name \"#inter\" may hold only"},
      {"[[mode]]\nname = 'M'\nsession_limit = 0\n", "3:17", "between 1 and 32767, not 0"},
      {"mode = 3\n", "1:8", "mode must be written as an array of tables: [[mode]]"},
      {side_info("", "NOBODY"), "3:14", "\"NOBODY\" is not a configured partner LU alias"},
      {side_info("", "LOCAL", "#FAST"), "4:8", "mode: \"#FAST\" is not a configured mode"},
      {side_info("tp_name_type = 'service'\n"), "5:11", "must be 8 hexadecimal digits"},
      {side_info("security = 'strong'\n"), "6:12", "security: must be \"none\", \"same\""},
      {side_info("security = 'program'\nuser_id = 'U'\n"), "1:1", "password: password is empty"},
      {side_info("security = 'same'\npassword = 'P'\n"), "7:12", "password: is allowed only"},
      {side_info("security = 'none'\nuser_id = 'U'\n"), "7:11", "user_id: is not allowed"},
      {tp + "conversation_types = ['full']\n", "4:22", "\"full\" is not one of the accepted"},
      {tp + "local_lu_alias = 'ELSE'\n", "4:18", "\"ELSE\" is not a configured local LU"},
      {"[[user]]\nuser_id = 'U'\n", "1:1", "[[user]] password: password is empty"},
      {"[trace]\nflags = [1, 256]\n", "2:13", "every element must be an integer 0 to 255"},
  };
  for (const auto &bad : cases) {
    const std::string message = refusal(bad.text, "t.toml");
    EXPECT_TRUE(message.starts_with("t.toml:" + std::string(bad.position) + ":")) << message;
    EXPECT_THAT(message, HasSubstr(bad.problem));
  }
}

// The configuration's bytes are checked before the TOML parser: text it
// cannot be trusted with is refused with the file, line and column.
TEST(ConfigParse, BytesTheParserMustNotSeeAreRefusedWithTheirPlace) {
  // Two inputs that reach an assertion of the parser when built with its
  // checks on.
  EXPECT_EQ(refusal("\xD2\x8C"),
            "node.toml:1:1: a character outside ASCII outside a string or comment");
  EXPECT_EQ(refusal("[\x03"), "node.toml:1:2: control character 0x03");
  EXPECT_EQ(refusal("[node]\nname = \"N\xFF\"\n"), "node.toml:2:10: bytes that are not UTF-8");
  EXPECT_EQ(refusal("x = \xED\xA0\x80\n"), "node.toml:1:5: bytes that are not UTF-8");
  EXPECT_EQ(refusal("a = \"\"\"x\"\"\"\"\xD2\x8C\n"),
            "node.toml:1:13: a character outside ASCII outside a string or comment");
  EXPECT_EQ(refusal("[node]\x7F\n"), "node.toml:1:7: control character 0x7F");

  // Outside ASCII is fine in strings and comments, after a byte order mark.
  const auto config = cfg::parse_config(
      "\xEF\xBB\xBF# caf\xC3\xA9\n[node]\nname = \"NODE1\"\n[[tp]]\ntp_name = \"ECHO\"\n"
      "program = \"/opt/caf\xC3\xA9\"\narguments = [\"\"\"two\n\"lines\"\"\"\", '\\\xC3\xA9']\n",
      "node.toml");
  ASSERT_EQ(config.tps.size(), 1u);
  EXPECT_EQ(config.tps[0].program, "/opt/caf\xC3\xA9");
  EXPECT_EQ(config.tps[0].arguments.at(0), "two\n\"lines\"");
}

using CurrentConfig = core_test::ScratchDirTest;

TEST_F(CurrentConfig, DefaultsElseTheWorkingDirectoryElseTheNamedFileThenTheEnvironment) {
  std::filesystem::current_path(dir_);  // no snanode.toml here
  cfg::reload_config();
  const cfg::NodeConfig &defaults = cfg::current_config();
  EXPECT_TRUE(defaults.source.empty());
  ASSERT_EQ(defaults.partner_lus.size(), 1u);  // the local LU, reachable as a partner
  EXPECT_EQ(defaults.partner_lus[0].lu_name, "APPN.LOCAL");
  std::ofstream(dir_ / "snanode.toml") << "[node]\nname = \"CWD\"\n";
  EXPECT_EQ(&cfg::current_config(), &defaults);  // loaded once, until a reload
  cfg::reload_config();
  EXPECT_EQ(cfg::current_config().node_name, "CWD");
  setenv("SNANODE_LOG_DIR", "/from/env", 1);
  setenv("SNANODE_TRACE", "off", 1);
  setenv("SNANODE_TRACE_FILE", "/from/env.trc", 1);
  use_config("[node]\nname = \"NAMED\"\n[log]\ndir = \"/f\"\n[trace]\nenabled = true\n");
  const cfg::NodeConfig &c = cfg::current_config();
  EXPECT_EQ(c.node_name, "NAMED");
  EXPECT_EQ(c.log_dir, "/from/env");
  EXPECT_FALSE(c.trace);
  EXPECT_EQ(c.trace_file, "/from/env.trc");
  setenv("SNANODE_TRACE", "maybe", 1);
  cfg::reload_config();
  EXPECT_THROW(cfg::current_config(), cfg::ConfigError);
}

// The node refuses to start on a file it cannot use: the first path user's
// registration fails, and the problem log says where the file is wrong.
TEST_F(CurrentConfig, AnUnusableFileStopsTheNodeAndSaysWhere) {
  use_config("[node]\nname = \"TOOLONGNAME123\"\n");
  uint32_t id = 0;
  vpm_init_path_user(0, 0, nullptr, 0, &id);
  EXPECT_EQ(id, 0u);
  SNT_RECORD record{};
  ASSERT_TRUE(snt_problem(0, &record));
  EXPECT_NE(std::string(record.line).find((dir_ / "node.toml:2:8:").string()), std::string::npos)
      << record.line;
  setenv("SNANODE_CONFIG", (dir_ / "missing.toml").c_str(), 1);
  EXPECT_THROW(cfg::current_config(), cfg::ConfigError);
}

TEST_F(CurrentConfig, FileSettingsTakeEffectWhenAppliedAndTheEnvironmentWins) {
  unsetenv("SNANODE_LOG_DIR");
  use_config("[log]\ndir = \"/from/file\"\n[trace]\nflags = [0x00, 0x01]\nenabled = true\n");
  ASSERT_TRUE(cfg::apply_node_configuration());
  EXPECT_EQ(snanode::log_directory(), "/from/file");
  EXPECT_EQ(ptrc[0], SNANODE_TRACE_API_BIT);  // the switch on top of the explicit bytes
  EXPECT_EQ(ptrc[1], 0x01);
  setenv("SNANODE_LOG_DIR", dir_.c_str(), 1);
  setenv("SNANODE_TRACE_FLAGS", "00 09", 1);
  snt_reset();  // reloads the flag bytes from the environment
  ASSERT_TRUE(cfg::apply_node_configuration());
  EXPECT_EQ(snanode::log_directory(), dir_.string());
  EXPECT_EQ(ptrc[1], 0x09);
}

// `value` padded to `size` with blanks; an absent value is all zero bytes.
std::string field(const char *value, size_t size) {
  if (value == nullptr) return std::string(size, '\0');
  return std::string(value) + std::string(size - std::strlen(value), ' ');
}

template <size_t N>
std::string text(const uint8_t (&bytes)[N]) {
  return std::string(reinterpret_cast<const char *>(bytes), N);
}

using NofService = core_test::ScratchDirTest;

// The side information records the library gets, here from the sample file.
TEST_F(NofService, RecordsCarryBlankPaddedNamesAndOnlyTheSecurityTheTypeAllows) {
  setenv("SNANODE_CONFIG", kSample.c_str(), 1);
  cfg::reload_config();
  NOF_OPEN open{};
  open.opcode = NOF_OPEN_OPCODE;
  nof_version(2, 0, &open);
  ASSERT_EQ(open.primary_rc, 0u);
  NOF_SIDE_INFO_DATA r;
  auto query = [&](const std::string &name) {
    NOF_QUERY_SIDE_INFO q{};
    q.opcode = NOF_QUERY_SIDE_INFO_OPCODE;
    q.buf_ptr = reinterpret_cast<uint8_t *>(&r);
    q.buf_size = sizeof r;
    std::memcpy(q.sym_dest_name, name.data(), 8);
    nof_version(2, open.target_handle, &q);
    return q;
  };
  const struct {
    const char *name, *partner, *tp_name;
    unsigned security;
    const char *user_id, *password, *lu_alias;
  } rows[] = {
      {"ECHO", "LOCAL", "ECHOTP", 0, nullptr, nullptr, nullptr},
      {"PAYROLL", "NETB.HQLU", "PAYROLL", 2, "CLERK", "SECRET", "BILLING"},
      {"SVCTP", "HQ", "06F1F0F2", 1, "", nullptr, nullptr},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    std::memset(&r, 0xEE, sizeof r);
    ASSERT_EQ(query(field(row.name, 8)).primary_rc, 0u);
    EXPECT_EQ(text(r.sym_dest_name), field(row.name, 8));
    EXPECT_EQ(text(r.partner_lu_name), field(row.partner, 17));
    EXPECT_EQ(text(r.tp_name), field(row.tp_name, 64));
    EXPECT_EQ(r.conversation_security_type, row.security);
    EXPECT_EQ(text(r.security_user_id), field(row.user_id, 10));
    EXPECT_EQ(text(r.security_password), field(row.password, 10));
    EXPECT_EQ(text(r.lu_alias), field(row.lu_alias, 8));
  }
  for (const std::string &key : {std::string("echo    "), std::string("ECHO\0\0\0\0", 8)}) {
    EXPECT_EQ(query(key).secondary_rc, AP_NO_SIDE_INFO_ENTRY);  // exact names only
  }
  NOF_CLOSE close{};
  close.opcode = NOF_CLOSE_OPCODE;
  nof_version(2, open.target_handle, &close);
  EXPECT_EQ(close.primary_rc, 0u);
  EXPECT_EQ(query("ECHO    ").primary_rc, AP_PARAMETER_CHECK);  // closed
  nof_version(2, open.target_handle, &close);
  EXPECT_EQ(close.primary_rc, AP_PARAMETER_CHECK);
  use_config("[node]\nname = 1\n");
  nof_version(2, 0, &open);
  EXPECT_EQ(open.primary_rc, AP_COMM_SUBSYSTEM_NOT_LOADED);
}

}  // namespace
