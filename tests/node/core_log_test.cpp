// Problem and audit logs, assertions, the log directory and the trace flags.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "core/log_files.h"
#include "core/trace_flags.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snanode-log-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    setenv("SNANODE_LOG_DIR", (dir_ + "/logs").c_str(), 1);  // created on first record
    snt_reset();
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::vector<std::string> lines(const char *file) const {
    std::ifstream in(dir_ + "/logs/" + file);
    std::vector<std::string> result;
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
  }

  std::string dir_;
};

TEST_F(LogTest, EveryArgumentTypeIsDecodedIntoTheLineAndTheRecord) {
  const uint8_t bytes[] = {0x01, 0xAB, 0xFF};
  const char chars[] = {'A', 0x01, 'z'};
  const uint8_t ebcdic[] = {0xC1, 0xC2, 0x4B, 0x40};
  nba_pd_print_problem(0x20030005, 7, "l x lx b s ba ca es", 1234u, 0xBEEFu, 0x20030005u, 0x1FFu,
                       "hi\nthere", 3u, bytes, 3u, chars, 4u, ebcdic);

  const auto written = lines("problem.log");
  ASSERT_EQ(written.size(), 1u);
  const std::regex prefix("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z pid " +
                          std::to_string(getpid()) + " tid \\d+ ");
  EXPECT_TRUE(std::regex_search(written[0], prefix)) << written[0];
  const std::string expected =
      "problem 0x20030005 probe 7: l=1234, x=0xBEEF, lx=0x20030005, b=0xFF, s=\"hi.there\", "
      "ba[3]=01ABFF, ca[3]=41017A \"A.z\", es[4]=C1C24B40 \"AB. \"";
  ASSERT_GE(written[0].size(), expected.size());
  EXPECT_EQ(written[0].substr(written[0].size() - expected.size()), expected);

  ASSERT_EQ(snt_problem_count(), 1u);
  SNT_RECORD record;
  ASSERT_EQ(snt_problem(0, &record), 1);
  EXPECT_EQ(record.code, 0x20030005u);
  EXPECT_EQ(record.probe, 7u);
  EXPECT_STREQ(record.arg_types, "l x lx b s ba ca es");
  EXPECT_EQ(record.arg_count, 8u);
  EXPECT_EQ(record.args[0], 1234u);
  EXPECT_EQ(record.args[2], 0x20030005u);
  EXPECT_EQ(record.args[4], 0u);
  EXPECT_STREQ(reinterpret_cast<const char *>(record.bytes[4]), "hi\nthere");
  EXPECT_EQ(record.args[5], 3u);
  EXPECT_EQ(0, std::memcmp(record.bytes[5], bytes, 3));
  EXPECT_EQ(0, std::memcmp(record.bytes[7], ebcdic, 4));
  EXPECT_EQ(written[0], record.line);
  EXPECT_EQ(snt_problem(1, &record), 0);
  EXPECT_EQ(snt_audit_count(), 0u);
}

TEST_F(LogTest, EdgeArgumentsStayOnOneLine) {
  std::vector<uint8_t> big(300, 0x5A);
  nba_pd_print_audit(0x20030002, 1, "ba", 300u, big.data());
  nba_pd_print_audit(0x20030003, 2, "", 0u);
  nba_pd_print_audit(0x20030006, 3, nullptr);
  nba_pd_print_audit(0x20030001, 4, "es s", 8u, nullptr, nullptr);
  nba_pd_print_audit(0x20030000, 5, "l q l", 5u, 6u);  // unknown token: decoding stops

  const auto written = lines("audit.log");
  ASSERT_EQ(written.size(), 5u);
  std::string expected_hex;
  for (int i = 0; i < 256; ++i) expected_hex += "5A";
  EXPECT_NE(written[0].find("ba[300]=" + expected_hex + "..."), std::string::npos);
  EXPECT_EQ(written[0].find("5A5A..."), written[0].size() - 7);  // cut at 256 bytes, marked
  EXPECT_TRUE(written[1].size() > 0 &&
              written[1].find(':', written[1].find("probe")) == std::string::npos);
  EXPECT_NE(written[2].find("audit 0x20030006 probe 3"), std::string::npos);
  EXPECT_NE(written[3].find("es[8]=(null), s=(null)"), std::string::npos);
  EXPECT_NE(written[4].find("probe 5: l=5, ?q"), std::string::npos);
  EXPECT_EQ(written[4].find("l=6"), std::string::npos);

  SNT_RECORD record;
  ASSERT_EQ(snt_audit(0, &record), 1);
  EXPECT_EQ(record.args[0], 300u);
  EXPECT_EQ(record.bytes[0][63], 0x5A);
  ASSERT_EQ(snt_audit(4, &record), 1);
  EXPECT_EQ(record.arg_count, 2u);
  EXPECT_EQ(snt_audit_count(), 5u);
  EXPECT_EQ(snt_problem_count(), 0u);
  EXPECT_TRUE(lines("problem.log").empty());
}

TEST_F(LogTest, AssertionsAreLoggedCountedAndProcessingContinues) {
  v0_assert("cpicutil", 42, "pGCB->NumVerbsWaiting > 0");
  v0_assert("cpiccal1", 7, "cccb_ptr != NULL");
  EXPECT_EQ(snt_assert_count(), 2u);
  EXPECT_EQ(snt_problem_count(), 0u);
  const auto written = lines("problem.log");
  ASSERT_EQ(written.size(), 2u);
  EXPECT_NE(written[0].find("assertion cpicutil:42: pGCB->NumVerbsWaiting > 0"), std::string::npos);

  char file[16];
  char expression[8];
  ASSERT_EQ(snt_assertion(1, file, sizeof file, expression, sizeof expression), 1);
  EXPECT_STREQ(file, "cpiccal1");
  EXPECT_STREQ(expression, "cccb_pt");  // cut to the buffer, still terminated
  EXPECT_EQ(snt_assertion(2, file, sizeof file, expression, sizeof expression), 0);
  snt_reset();
  EXPECT_EQ(snt_assert_count(), 0u);
  EXPECT_EQ(snt_assertion(0, file, sizeof file, expression, sizeof expression), 0);
}

TEST_F(LogTest, AssertionAbortsWhenTheEnvironmentAsksForIt) {
  setenv("SNANODE_ASSERT_ABORT", "1", 1);
  EXPECT_DEATH(v0_assert("cpicterm", 9, "FALSE"), "");
  unsetenv("SNANODE_ASSERT_ABORT");
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveLines) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 150;
  const std::string payload(200, 'p');
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t, &payload] {
      for (int i = 0; i < kRecords; ++i) nba_pd_print_problem(0x100 + t, i, "s", payload.c_str());
    });
  }
  for (auto &w : writers) w.join();
  const auto written = lines("problem.log");
  ASSERT_EQ(written.size(), static_cast<size_t>(kThreads * kRecords));
  const std::regex whole("^\\S+ pid \\d+ tid \\d+ problem 0x10[0-3] probe \\d+: s=\"p{200}\"$");
  for (const auto &line : written) ASSERT_TRUE(std::regex_match(line, whole)) << line;
  EXPECT_EQ(snt_problem_count(), static_cast<uint32_t>(kThreads * kRecords));
}

TEST(LogDirectory, EnvironmentThenConfigurationThenStateDirectories) {
  setenv("SNANODE_LOG_DIR", "/x/env", 1);
  snanode::set_configured_log_directory("/x/config");
  setenv("XDG_STATE_HOME", "/x/state", 1);
  setenv("HOME", "/x/home", 1);
  EXPECT_EQ(snanode::log_directory(), "/x/env");
  unsetenv("SNANODE_LOG_DIR");
  EXPECT_EQ(snanode::log_directory(), "/x/config");
  snanode::set_configured_log_directory("");
  EXPECT_EQ(snanode::log_directory(), "/x/state/snanode");
  unsetenv("XDG_STATE_HOME");
  EXPECT_EQ(snanode::log_directory(), "/x/home/.local/state/snanode");
  unsetenv("HOME");
  EXPECT_EQ(snanode::log_directory(), "/tmp/snanode-" + std::to_string(getuid()));
}

TEST(TraceFlags, FlagTextParsesHexPairsWithSeparators) {
  struct Case {
    std::string text;
    std::basic_string<uint8_t> bytes;
  };
  const std::vector<Case> cases = {
      {"", {}},
      {"20", {0x20}},
      {"20 00:ff,0A-b1", {0x20, 0x00, 0xFF, 0x0A, 0xB1}},
      {"2000x1", {0x20, 0x00}},  // stops at the first bad character
      {"201", {0x20}},           // a lone digit is not a byte
      {std::string(80, '1'), std::basic_string<uint8_t>(32, 0x11)},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(snanode::parse_trace_flag_text(c.text), c.bytes) << c.text;
  }
}

TEST(TraceFlags, EnvironmentAndConfigurationSetTheBytesBehindPtrc) {
  ASSERT_NE(ptrc, nullptr);
  setenv("SNANODE_TRACE_FLAGS", "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 02", 1);
  setenv("SNANODE_TRACE", "1", 1);
  snt_reset();  // reloads the flags from the environment
  EXPECT_EQ(ptrc[SNANODE_TRACE_API_BYTE], 0x20);
  EXPECT_EQ(ptrc[9], 0x09);
  EXPECT_EQ(ptrc[SNANODE_TRACE_NO_AUDIT_BYTE], SNANODE_TRACE_NO_AUDIT_BIT);
  EXPECT_EQ(ptrc[17], 0);

  unsetenv("SNANODE_TRACE_FLAGS");
  setenv("SNANODE_TRACE", "0", 1);
  snanode::load_trace_flags_from_environment();
  for (int i = 0; i < SNANODE_TRACE_FLAG_BYTES; ++i) EXPECT_EQ(ptrc[i], 0) << i;

  const uint8_t configured[] = {0x20, 0x00, 0x07};
  snanode::apply_trace_flags(configured, sizeof configured);
  EXPECT_EQ(ptrc[0], 0x20);
  EXPECT_EQ(ptrc[2], 0x07);
  EXPECT_EQ(ptrc[3], 0);
}

}  // namespace
