// Putting the configuration into effect when a process connects to its node.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "config/apply_configuration.h"
#include "config/node_config.h"
#include "core/log_files.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace {

class ApplyConfiguration : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("snanode-apply-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    for (const char *name : {"SNANODE_LOG_DIR", "SNANODE_TRACE", "SNANODE_TRACE_FLAGS"}) {
      unsetenv(name);
    }
    snt_reset();
  }
  void TearDown() override {
    unsetenv("SNANODE_CONFIG");
    snanode::config::reload_config();
    std::filesystem::remove_all(dir_);
  }
  void use_config(const std::string &text) {
    const auto file = dir_ / "node.toml";
    std::ofstream(file) << text;
    setenv("SNANODE_CONFIG", file.c_str(), 1);
    snanode::config::reload_config();
  }
  std::filesystem::path dir_;
};

TEST_F(ApplyConfiguration, LogDirectoryAndTraceSettingsTakeEffect) {
  const auto logs = dir_ / "logs";
  use_config("[log]\ndir = \"" + logs.string() +
             "\"\n[trace]\nflags = [0x00, 0x01]\nenabled = true\n");
  ptrc[0] = 0;
  ASSERT_TRUE(snanode::config::apply_node_configuration());
  EXPECT_EQ(snanode::log_directory(), logs.string());
  EXPECT_EQ(ptrc[0], SNANODE_TRACE_API_BIT);  // the switch on top of the explicit bytes
  EXPECT_EQ(ptrc[1], 0x01);
}

TEST_F(ApplyConfiguration, EnvironmentWinsOverTheFile) {
  use_config("[log]\ndir = \"/nonexistent/from-file\"\n[trace]\nflags = [0x00, 0x07]\n");
  setenv("SNANODE_LOG_DIR", dir_.c_str(), 1);
  setenv("SNANODE_TRACE_FLAGS", "00 09", 1);
  snt_reset();  // reloads the flag bytes from the environment
  ASSERT_TRUE(snanode::config::apply_node_configuration());
  EXPECT_EQ(snanode::log_directory(), dir_.string());
  EXPECT_EQ(ptrc[1], 0x09);
}

TEST_F(ApplyConfiguration, UnusableFileRefusesToStartAndSaysWhy) {
  setenv("SNANODE_LOG_DIR", dir_.c_str(), 1);
  use_config("[node]\nname = \"TOOLONGNAME123\"\n");
  const uint32_t problems = snt_problem_count();
  EXPECT_FALSE(snanode::config::apply_node_configuration());
  ASSERT_EQ(snt_problem_count(), problems + 1);
  SNT_RECORD record{};
  ASSERT_TRUE(snt_problem(problems, &record));
  EXPECT_NE(std::string(record.line).find("node.toml:2"), std::string::npos) << record.line;

  // The registration of the first path user is what the refusal stops.
  uint32_t id = 0;
  vpm_init_path_user(0, 0, nullptr, 0, &id);
  EXPECT_EQ(id, 0u);
}

}  // namespace
