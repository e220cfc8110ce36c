// Helpers shared by the node core, configuration and trace file tests:
// polling, whole verb records, verb scripts and a scratch directory with a
// clean node environment.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config/node_config.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"
#include "snanode/verbs.h"
#include "support/read_lines.h"

namespace core_test {

// Polls `condition` for up to `ms` milliseconds; true once it holds.
inline bool eventually(const std::function<bool()> &condition, int ms = 2000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Queues a script for the next verb with `opcode` (0: any verb).
inline void push_script(uint16_t opcode, uint16_t primary, uint32_t secondary = 0, int later = 0,
                        SNT_FILL fill = nullptr, void *context = nullptr) {
  const SNT_VERB_SCRIPT script{opcode, primary, secondary, later, fill, context};
  snt_push_verb_script(&script);
}

// A whole verb record: the node may write anywhere in its 208 bytes.
struct Vcb {
  explicit Vcb(uint16_t opcode) { std::memcpy(bytes, &opcode, 2); }
  NAP_HDR *hdr() { return reinterpret_cast<NAP_HDR *>(bytes); }
  alignas(8) uint8_t bytes[NAP_VCB_SIZE] = {};
};

// A fresh directory per test, holding the logs, and none of the node's
// other environment variables inherited from the caller.
class ScratchDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snanode-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    for (const char *name : {"SNANODE_CONFIG", "SNANODE_TRACE", "SNANODE_TRACE_FLAGS",
                             "SNANODE_TRACE_FILE", "XDG_STATE_HOME"}) {
      unsetenv(name);
    }
    setenv("SNANODE_LOG_DIR", (dir_ / "logs").c_str(), 1);
    snt_reset();
  }
  void TearDown() override {
    unsetenv("SNANODE_CONFIG");
    snanode::config::reload_config();
    std::filesystem::remove_all(dir_);
  }
  // Writes `text` as the configuration file and makes it the current one.
  void use_config(const std::string &text, const char *name = "node.toml") {
    std::ofstream(dir_ / name) << text;
    setenv("SNANODE_CONFIG", (dir_ / name).c_str(), 1);
    snanode::config::reload_config();
  }
  std::vector<std::string> lines(const std::filesystem::path &file) const {
    return test_support::read_lines(dir_ / file);
  }
  std::filesystem::path dir_;
};

}  // namespace core_test
