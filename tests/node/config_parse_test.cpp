// The configuration file: the sample parses to what it says, every kind of
// mistake gives one message with its position, and the defaults and
// environment overrides apply when and only when they should.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "config/node_config.h"

namespace cfg = snanode::config;

namespace {

const std::filesystem::path kSample =
    std::filesystem::path(__FILE__).parent_path() / "../../samples/snanode.toml";

std::string error_of(const std::string &text) {
  try {
    cfg::parse_config(text, "t.toml");
  } catch (const cfg::ConfigError &error) {
    return error.what();
  }
  return "(no error)";
}

TEST(ConfigParse, SampleFileHoldsWhatItSays) {
  const cfg::NodeConfig c = cfg::load_config(kSample);
  EXPECT_EQ(c.source, kSample);
  EXPECT_EQ(c.node_name, "SNANODE");
  ASSERT_EQ(c.local_lus.size(), 2u);
  EXPECT_TRUE(c.local_lus[0].is_default);
  EXPECT_FALSE(c.local_lus[1].is_default);
  EXPECT_EQ(c.local_lus[1].lu_name, "APPN.BILLING");
  // HQ as written, then both local LUs added as partners.
  ASSERT_EQ(c.partner_lus.size(), 3u);
  EXPECT_EQ(c.partner_lus[0].host, "hq.example.net");
  EXPECT_EQ(c.partner_lus[1].alias, "LOCAL");
  EXPECT_EQ(c.partner_lus[2].lu_name, "APPN.BILLING");
  ASSERT_EQ(c.modes.size(), 2u);
  EXPECT_EQ(c.modes[1].send_buffer_size, 32768u);
  ASSERT_EQ(c.side_info.size(), 3u);
  EXPECT_EQ(c.side_info[0].security_type, 0u);
  EXPECT_EQ(c.side_info[1].security_type, 2u);
  EXPECT_EQ(c.side_info[1].password, "SECRET");
  EXPECT_EQ(c.side_info[1].local_lu_alias, "BILLING");
  EXPECT_EQ(c.side_info[2].tp_name_type, 1u);
  EXPECT_EQ(c.side_info[2].security_type, 1u);
  ASSERT_EQ(c.tps.size(), 1u);
  EXPECT_EQ(c.tps[0].arguments, std::vector<std::string>{"--verbose"});
  EXPECT_EQ(c.tps[0].max_instances, 4u);
  ASSERT_EQ(c.users.size(), 1u);
  EXPECT_EQ(c.log_dir, "/var/log/snanode");
  EXPECT_FALSE(c.trace);
}

TEST(ConfigParse, SectionsLeftOutTakeTheBuiltInValues) {
  const cfg::NodeConfig c = cfg::parse_config(
      "[node]\nnetwork_id = \"NETX\"\n[[tp]]\ntp_name = \"T\"\nprogram = \"/bin/t\"\n"
      "sync_levels = [\"confirm\"]\n",
      "t.toml");
  ASSERT_EQ(c.local_lus.size(), 1u);
  EXPECT_EQ(c.local_lus[0].alias, "LOCAL");
  EXPECT_EQ(c.local_lus[0].lu_name, "NETX.LOCAL");
  EXPECT_TRUE(c.local_lus[0].is_default);
  ASSERT_EQ(c.modes.size(), 2u);
  EXPECT_EQ(c.modes[0].name, "#INTER");
  ASSERT_EQ(c.tps.size(), 1u);
  EXPECT_TRUE(c.tps[0].accept_basic && c.tps[0].accept_mapped);
  EXPECT_FALSE(c.tps[0].accept_sync_none);
  EXPECT_TRUE(c.tps[0].accept_sync_confirm);
  // A lone local LU is the default without saying so.
  const cfg::NodeConfig lone =
      cfg::parse_config("[[local_lu]]\nalias = \"ONE\"\nlu_name = \"N.ONE\"\n", "t.toml");
  EXPECT_TRUE(lone.local_lus[0].is_default);
}

struct BadFile {
  const char *text;
  const char *message;  // the whole message
};

TEST(ConfigParse, EachMistakeGivesOneMessageWithItsPosition) {
  const BadFile cases[] = {
      {"[node]\nname = \"A\n", "t.toml:2:"},  // TOML syntax: position of the parser's complaint
      {"[node]\nname = 5\n", "t.toml:2:8: [node] name: must be a string, not an integer"},
      {"[node]\nnmae = \"X\"\n", "t.toml:2:1: [node]: unknown key nmae"},
      {"[nodes]\n", "t.toml:1:2: unknown section or key nodes"},
      {"[node]\nnetwork_id = \"NET-1\"\n",
       "t.toml:2:14: [node] network_id: network ID \"NET-1\" may hold only A-Z, 0-9, $, # and @"},
      {"[node]\nname = \"NODENAME9\"\n",
       "t.toml:2:8: [node] name: node name \"NODENAME9\" is longer than 8 characters"},
      {"[[local_lu]]\nalias = \"A\"\ndefault = false\n[[local_lu]]\nalias = \"B\"\n",
       "t.toml:1:1: [[local_lu]]: no local LU is the default (set default = true on one)"},
      {"[[local_lu]]\nalias = \"A\"\ndefault = true\n[[local_lu]]\nalias = \"B\"\ndefault = true\n",
       "t.toml:6:11: [[local_lu]] default: a second default local LU (only one may be the "
       "default)"},
      {"[[local_lu]]\nalias = \"A\"\n[[local_lu]]\nalias = \"A\"\n",
       "t.toml:4:9: [[local_lu]] alias: \"A\" is defined twice"},
      {"[[local_lu]]\nlu_name = \"N.A\"\n", "t.toml:1:1: [[local_lu]] needs the key alias"},
      {"[[partner_lu]]\nalias = \"P\"\nlu_name = \"NOPERIOD\"\n",
       "t.toml:3:11: [[partner_lu]] lu_name: partner LU name \"NOPERIOD\" is not of the form "
       "NETID.LUNAME"},
      {"[[partner_lu]]\nalias = \"LOCAL\"\nlu_name = \"N.OTHER\"\n",
       "t.toml:2:9: [[partner_lu]] alias: \"LOCAL\" is already the alias of the local LU "
       "APPN.LOCAL"},
      {"[[mode]]\nname = \"#inter\"\n",
       "t.toml:2:8: [[mode]] name: mode name \"#inter\" may hold only A-Z, 0-9, $, # and @"},
      {"[[mode]]\nname = \"M\"\nsession_limit = 0\n",
       "t.toml:3:17: [[mode]] session_limit: must be between 1 and 32767, not 0"},
      {"mode = 3\n", "t.toml:1:8: mode must be written as an array of tables: [[mode]]"},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"NOBODY\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\n",
       "t.toml:3:14: [[side_info]] partner_lu: \"NOBODY\" is not a configured partner LU alias"},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"LOCAL\"\nmode = \"#FAST\"\n"
       "tp_name = \"T\"\n",
       "t.toml:4:8: [[side_info]] mode: \"#FAST\" is not a configured mode"},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"LOCAL\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\ntp_name_type = \"service\"\n",
       "t.toml:5:11: [[side_info]] tp_name: service TP name \"T\" must be 8 hexadecimal digits"},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"LOCAL\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\nsecurity = \"strong\"\n",
       "t.toml:6:12: [[side_info]] security: must be \"none\", \"same\", \"program\" or "
       "\"program_strong\", not \"strong\""},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"LOCAL\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\nsecurity = \"program\"\nuser_id = \"U\"\n",
       "t.toml:1:1: [[side_info]] password: password is empty"},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"LOCAL\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\nsecurity = \"same\"\npassword = \"P\"\n",
       "t.toml:7:12: [[side_info]] password: is allowed only with security \"program\" or "
       "\"program_strong\""},
      {"[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"LOCAL\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\nsecurity = \"none\"\nuser_id = \"U\"\n",
       "t.toml:7:11: [[side_info]] user_id: is not allowed with security \"none\""},
      {"[[side_info]]\nsym_dest_name = \" S\"\npartner_lu = \"LOCAL\"\nmode = \"#INTER\"\n"
       "tp_name = \"T\"\n",
       "t.toml:2:17: [[side_info]] sym_dest_name: symbolic destination name \" S\" may hold only "
       "printable ASCII characters and no blanks"},
      {"[[tp]]\ntp_name = \"T\"\nprogram = \"/bin/t\"\nconversation_types = [\"full\"]\n",
       "t.toml:4:22: [[tp]] conversation_types: \"full\" is not one of the accepted values"},
      {"[[tp]]\ntp_name = \"T\"\nprogram = \"/bin/t\"\nlocal_lu_alias = \"ELSEWHERE\"\n",
       "t.toml:4:18: [[tp]] local_lu_alias: \"ELSEWHERE\" is not a configured local LU"},
      {"[[tp]]\ntp_name = \"T\"\nprogram = \"/bin/t\"\n[[tp]]\ntp_name = \"T\"\nprogram = \"/x\"\n",
       "t.toml:5:11: [[tp]] tp_name: \"T\" is defined twice"},
      {"[[user]]\nuser_id = \"U\"\n", "t.toml:1:1: [[user]] password: password is empty"},
      {"[trace]\nflags = [1, 256]\n",
       "t.toml:2:13: [trace] flags: every element must be an integer 0 to 255"},
  };
  for (const BadFile &bad : cases) {
    SCOPED_TRACE(bad.text);
    const std::string message = error_of(bad.text);
    if (std::string_view(bad.message).ends_with(":")) {
      EXPECT_TRUE(message.starts_with(bad.message)) << message;
    } else {
      EXPECT_EQ(message, bad.message);
    }
  }
}

TEST(ConfigParse, UsersWithoutPasswordAreAcceptedOnlyWithPam) {
  const cfg::NodeConfig c =
      cfg::parse_config("[pam]\nenabled = true\n[[user]]\nuser_id = \"U\"\n", "t.toml");
  EXPECT_TRUE(c.use_pam);
  ASSERT_EQ(c.users.size(), 1u);
  EXPECT_TRUE(c.users[0].password.empty());
}

class CurrentConfig : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ =
        std::filesystem::temp_directory_path() / ("snanode-config-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    std::filesystem::current_path(dir_);  // no snanode.toml here
    for (const char *name :
         {"SNANODE_CONFIG", "SNANODE_LOG_DIR", "SNANODE_TRACE", "SNANODE_TRACE_FILE"}) {
      ::unsetenv(name);
    }
    cfg::reload_config();
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  void write(const std::string &name, const std::string &text) {
    std::ofstream(dir_ / name) << text;
  }
  std::filesystem::path dir_;
};

TEST_F(CurrentConfig, WithoutAFileTheDefaultsServeOneHost) {
  const cfg::NodeConfig &c = cfg::current_config();
  EXPECT_TRUE(c.source.empty());
  ASSERT_EQ(c.local_lus.size(), 1u);
  EXPECT_EQ(c.local_lus[0].alias, "LOCAL");
  EXPECT_EQ(c.local_lus[0].lu_name, "APPN.LOCAL");
  EXPECT_TRUE(c.local_lus[0].is_default);
  ASSERT_EQ(c.partner_lus.size(), 1u);
  EXPECT_EQ(c.partner_lus[0].alias, "LOCAL");
  EXPECT_EQ(c.partner_lus[0].lu_name, "APPN.LOCAL");
  ASSERT_EQ(c.modes.size(), 2u);
  EXPECT_EQ(c.modes[0].name, "#INTER");
  EXPECT_EQ(c.modes[1].name, "#BATCH");
  EXPECT_TRUE(c.side_info.empty());
  EXPECT_FALSE(c.trace);
  // Loaded once: the same object until a reload.
  EXPECT_EQ(&cfg::current_config(), &c);
}

TEST_F(CurrentConfig, FileFromEnvironmentOrWorkingDirectoryAndOverrides) {
  write("snanode.toml", "[node]\nname = \"CWD\"\n[log]\ndir = \"/from/file\"\n");
  EXPECT_EQ(cfg::current_config().node_name, "CWD");
  EXPECT_EQ(cfg::current_config().log_dir, "/from/file");

  write("named.toml", "[node]\nname = \"NAMED\"\n[trace]\nenabled = true\n");
  ::setenv("SNANODE_CONFIG", (dir_ / "named.toml").c_str(), 1);
  ::setenv("SNANODE_LOG_DIR", "/from/env", 1);
  ::setenv("SNANODE_TRACE", "off", 1);
  ::setenv("SNANODE_TRACE_FILE", "/from/env.trc", 1);
  EXPECT_EQ(cfg::current_config().node_name, "CWD");  // not yet reloaded
  cfg::reload_config();
  const cfg::NodeConfig &c = cfg::current_config();
  EXPECT_EQ(c.node_name, "NAMED");
  EXPECT_EQ(c.log_dir, "/from/env");
  EXPECT_FALSE(c.trace);
  EXPECT_EQ(c.trace_file, "/from/env.trc");

  ::setenv("SNANODE_TRACE", "maybe", 1);
  cfg::reload_config();
  EXPECT_THROW(cfg::current_config(), cfg::ConfigError);
}

TEST_F(CurrentConfig, AnUnusableNamedFileStopsTheNode) {
  write("bad.toml", "[node]\nname = \n");
  ::setenv("SNANODE_CONFIG", (dir_ / "bad.toml").c_str(), 1);
  try {
    cfg::current_config();
    ADD_FAILURE() << "a malformed file was accepted";
  } catch (const cfg::ConfigError &error) {
    EXPECT_TRUE(std::string(error.what()).starts_with((dir_ / "bad.toml").string() + ":2:"))
        << error.what();
  }
  ::setenv("SNANODE_CONFIG", (dir_ / "missing.toml").c_str(), 1);
  EXPECT_THROW(cfg::current_config(), cfg::ConfigError);
}

}  // namespace
