// Problem and audit logs, assertions, trace flags and the trace file: where
// records go, their layout, and writers of several threads and processes
// that never interleave.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <regex>

#include "core/log_files.h"
#include "core/trace_flags.h"
#include "node/core_test_support.h"
#include "trace/trace_settings.h"

namespace {

using LogTest = core_test::ScratchDirTest;  // logs in dir_/logs

TEST_F(LogTest, EveryArgumentTypeIsDecodedAndEdgeArgumentsStayOnOneLine) {
  const uint8_t bytes[] = {0x01, 0xAB, 0xFF};
  const char chars[] = {'A', 0x01, 'z'};
  const uint8_t ebcdic[] = {0xC1, 0xC2, 0x4B, 0x40};
  nba_pd_print_problem(0x20030005, 7, "l x lx b s ba ca es", 1234u, 0xBEEFu, 0x20030005u, 0x1FFu,
                       "hi\nthere", 3u, bytes, 3u, chars, 4u, ebcdic);
  const auto problems = lines("logs/problem.log");
  ASSERT_EQ(problems.size(), 1u);
  const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z pid )" +
                        std::to_string(getpid()) +
                        R"( tid \d+ problem 0x20030005 probe 7: l=1234, x=0xBEEF, lx=0x20030005, )"
                        R"(b=0xFF, s="hi.there", ba\[3\]=01ABFF, ca\[3\]=41017A "A.z", )"
                        R"(es\[4\]=C1C24B40 "AB. ")");
  EXPECT_TRUE(std::regex_match(problems[0], line)) << problems[0];
  SNT_RECORD record;
  ASSERT_EQ(snt_problem(0, &record), 1);
  EXPECT_EQ(std::pair(record.arg_count, record.args[2]), std::pair(8u, uint64_t{0x20030005}));
  EXPECT_STREQ(reinterpret_cast<const char *>(record.bytes[4]), "hi\nthere");
  EXPECT_EQ(problems[0], record.line);

  std::vector<uint8_t> big(300, 0x5A);
  nba_pd_print_audit(0x20030002, 1, "ba", 300u, big.data());
  nba_pd_print_audit(0x20030003, 2, nullptr);
  nba_pd_print_audit(0x20030001, 3, "es s", 8u, nullptr, nullptr);
  nba_pd_print_audit(0x20030000, 4, "l q l", 5u, 6u);  // unknown token: decoding stops
  std::string hex;                                     // cut at 256 bytes, marked
  for (int i = 0; i < 256; ++i) hex += "5A";
  const std::string ends[] = {"probe 1: ba[300]=" + hex + "...", "audit 0x20030003 probe 2",
                              "probe 3: es[8]=(null), s=(null)", "probe 4: l=5, ?q"};
  const auto audits = lines("logs/audit.log");
  ASSERT_EQ(audits.size(), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(audits[i].ends_with(ends[i])) << audits[i];
  EXPECT_EQ(std::pair(snt_audit_count(), snt_problem_count()), std::pair(4u, 1u));
}

TEST_F(LogTest, AssertionsAreLoggedCountedApartAndMayAbort) {
  v0_assert("cpicutil", 42, "pGCB->NumVerbsWaiting > 0");
  EXPECT_EQ(std::pair(snt_assert_count(), snt_problem_count()), std::pair(1u, 0u));
  const auto written = lines("logs/problem.log");
  ASSERT_EQ(written.size(), 1u);
  EXPECT_TRUE(written[0].ends_with(" assertion cpicutil:42: pGCB->NumVerbsWaiting > 0"));
  setenv("SNANODE_ASSERT_ABORT", "1", 1);
  EXPECT_DEATH(v0_assert("cpicterm", 9, "FALSE"), "");
  unsetenv("SNANODE_ASSERT_ABORT");
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveLines) {
  const std::string payload(200, 'p');
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([t, &payload] {
      for (int i = 0; i < 150; ++i) nba_pd_print_problem(0x100 + t, i, "s", payload.c_str());
    });
  }
  for (auto &w : writers) w.join();
  const auto written = lines("logs/problem.log");
  ASSERT_EQ(written.size(), 600u);
  const std::regex whole(R"(\S+ pid \d+ tid \d+ problem 0x10[0-3] probe \d+: s="p{200}")");
  for (const auto &line : written) ASSERT_TRUE(std::regex_match(line, whole)) << line;
}

// SNANODE_TRACE_FLAGS gives the bytes as hexadecimal pairs; SNANODE_TRACE=1
// adds the API trace bit; the configuration may give the bytes instead.
TEST(TraceFlags, EnvironmentAndConfigurationSetTheBytesBehindPtrc) {
  const struct {
    std::string text;
    std::basic_string<uint8_t> bytes;
  } cases[] = {
      {"", {}},
      {"20 00:ff,0A-b1", {0x20, 0x00, 0xFF, 0x0A, 0xB1}},
      {"2000x1", {0x20, 0x00}},  // stops at the first bad character
      {"201", {0x20}},           // a lone digit is not a byte
      {std::string(80, '1'), std::basic_string<uint8_t>(32, 0x11)},
  };
  for (const auto &c : cases) EXPECT_EQ(snanode::parse_trace_flag_text(c.text), c.bytes) << c.text;
  setenv("SNANODE_TRACE_FLAGS", "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 02", 1);
  setenv("SNANODE_TRACE", "1", 1);
  snt_reset();  // reloads the flags from the environment
  EXPECT_EQ(std::tuple(ptrc[0], ptrc[16], ptrc[17]),
            std::tuple(uint8_t{SNANODE_TRACE_API_BIT}, uint8_t{0x02}, uint8_t{0}));
  setenv("SNANODE_TRACE", "0", 1);  // only "1" turns it on
  snt_reset();
  EXPECT_EQ(ptrc[0], 0);
  const uint8_t configured[] = {0x00, 0x00, 0x07};
  snanode::apply_trace_flags(configured, sizeof configured);
  for (int i = 0; i < SNANODE_TRACE_FLAG_BYTES; ++i) EXPECT_EQ(ptrc[i], i == 2 ? 7 : 0) << i;
}

class TraceFile : public core_test::ScratchDirTest {
 protected:
  // Makes `file` the trace file, SNANODE_TRACE=1 setting the API bit, and
  // returns its handle under the lock.
  int32_t lock_trace_file(const std::filesystem::path &file) {
    setenv("SNANODE_TRACE", "1", 1);
    setenv("SNANODE_TRACE_FILE", file.c_str(), 1);
    unsigned char flags[SNANODE_TRACE_FLAG_BYTES] = {};
    sepuapi_init(flags);
    EXPECT_EQ(flags[0], SNANODE_TRACE_API_BIT);
    api_ = trc_api;
    trc_lock_file(&api_);
    return api_.file_handle;
  }
  void unlock() { trc_unlock_file(&api_); }
  TRC_API api_{};
};

// Each step changes one source (nullptr value: unset it; "config": the
// configured directory) and shows where logs and the trace file now go.
TEST_F(TraceFile, LogDirectoryAndTraceFileFollowTheirSourcesInOrder) {
  const struct {
    const char *source, *value;
    std::string dir, trace_file;  // empty trace file: not checked
  } steps[] = {
      {"HOME", "/home/t", "/home/t/.local/state/snanode", "/home/t/.local/state/snanode/api.trc"},
      {"XDG_STATE_HOME", "/var/state", "/var/state/snanode", ""},
      {"config", "/x/config", "/x/config", ""},
      {"SNANODE_LOG_DIR", "/srv/logs", "/srv/logs", "/srv/logs/api.trc"},
      {"SNANODE_TRACE_FILE", "/elsewhere/my.trc", "/srv/logs", "/elsewhere/my.trc"},
      {"SNANODE_LOG_DIR", "", "/x/config", ""},  // an empty variable counts as unset
      {"config", "", "/var/state/snanode", ""},
      {"XDG_STATE_HOME", nullptr, "/home/t/.local/state/snanode", ""},
      {"HOME", nullptr, "/tmp/snanode-" + std::to_string(getuid()), ""},
  };
  unsetenv("SNANODE_LOG_DIR");
  for (const auto &step : steps) {
    SCOPED_TRACE(std::string(step.source) + "=" + (step.value != nullptr ? step.value : "(unset)"));
    if (std::string(step.source) == "config") {
      snanode::set_configured_log_directory(step.value);
    } else if (step.value != nullptr) {
      setenv(step.source, step.value, 1);
    } else {
      unsetenv(step.source);
    }
    EXPECT_EQ(snanode::log_directory(), step.dir);
    if (!step.trace_file.empty()) {
      EXPECT_EQ(snanode::trace::resolve_trace_settings().file, step.trace_file);
    }
  }
}

TEST_F(TraceFile, CreatesTheDirectoryAndWritesSeparatorsLinesAndDumps) {
  const int32_t handle = lock_trace_file(dir_ / "nested" / "first.trc");
  ASSERT_NE(handle, -1);
  com_trc_sep(handle, "CPIC ");
  com_trc_line(handle, "CPIC ", "CMSEND request");
  unlock();
  const auto first = lines("nested/first.trc");
  ASSERT_EQ(first.size(), 2u);
  const std::regex separator(R"(CPIC ==== \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} UTC pid )" +
                             std::to_string(getpid()) + " tid " + std::to_string(gettid()) +
                             " ====");
  EXPECT_TRUE(std::regex_match(first[0], separator)) << first[0];
  EXPECT_EQ(first[1], "CPIC CMSEND request");
  // Initialising again with another file switches to it.
  const int32_t dump = lock_trace_file(dir_ / "dump.trc");
  ASSERT_NE(dump, -1);
  // "Hello World!" in EBCDIC, then bytes 0 to 3, then "AZaz09" in ASCII.
  const unsigned char bytes[] = {0xC8, 0x85, 0x93, 0x93, 0x96, 0x40, 0xE6, 0x96, 0x99, 0x93, 0x84,
                                 0x5A, 0x00, 0x01, 0x02, 0x03, 'A',  'Z',  'a',  'z',  '0',  '9'};
  com_trc_dump(dump, "CPIC ", bytes, sizeof bytes);
  com_trc_dump(dump, "CPIC ", bytes, 0);
  unlock();
  const std::vector<std::string> expected = {
      "CPIC 00000000  C8 85 93 93 96 40 E6 96  99 93 84 5A 00 01 02 03"
      "  |.....@.....Z....|  |Hello World!....|",
      "CPIC 00000010  41 5A 61 7A 30 39" + std::string(33, ' ') +
          "|AZaz09          |  |.!/:..          |",
  };
  EXPECT_EQ(lines("dump.trc"), expected);
  EXPECT_EQ(lines("nested/first.trc").size(), 2u);
}

TEST_F(TraceFile, UnwritableFileDropsRecordsAndHoldsNoLock) {
  std::ofstream(dir_ / "plain") << "x";  // a regular file where a directory would have to be
  EXPECT_EQ(lock_trace_file(dir_ / "plain" / "api.trc"), -1);
  static std::atomic<int32_t> other{0};  // another thread is not blocked: no lock is held
  std::thread([] {
    TRC_API api = trc_api;
    trc_lock_file(&api);
    other = api.file_handle;
  }).detach();
  EXPECT_TRUE(core_test::eventually([] { return other == -1; }));
  com_trc_line(-1, "CPIC ", "dropped");  // writing to the -1 handle is harmless
  com_trc_dump(-1, "CPIC ", "abc", 3);
  com_trc_sep(-1, "CPIC ");
}

// Each writer appends records of five lines naming itself and the record.
void write_records(const std::string &writer) {
  for (int r = 0; r < 100; ++r) {
    TRC_API api = trc_api;
    trc_lock_file(&api);
    if (api.file_handle == -1) return;
    com_trc_sep(api.file_handle, "CPIC ");
    for (int line = 0; line < 5; ++line) {
      const std::string text =
          writer + " record " + std::to_string(r) + " line " + std::to_string(line);
      com_trc_line(api.file_handle, "CPIC ", text.c_str());
      std::this_thread::yield();
    }
    trc_unlock_file(&api);
  }
}

TEST_F(TraceFile, RecordsOfThreadsAndProcessesNeverInterleave) {
  ASSERT_NE(lock_trace_file(dir_ / "shared.trc"), -1);
  unlock();
  std::vector<pid_t> children;
  for (const char *process : {"process0", "process1"}) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      std::thread a(write_records, std::string(process) + "a");
      write_records(std::string(process) + "b");
      a.join();
      _exit(0);
    }
    children.push_back(child);
  }
  std::vector<std::thread> threads;
  for (const char *thread : {"thread0", "thread1", "thread2"})
    threads.emplace_back(write_records, thread);
  for (auto &thread : threads) thread.join();
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  // Every record stands in one piece: a separator, then five lines of one writer.
  const auto all = lines("shared.trc");
  ASSERT_EQ(all.size(), 7u * 100 * 6);
  for (size_t i = 0; i < all.size(); i += 6) {
    ASSERT_EQ(all[i].rfind("CPIC ==== ", 0), 0u) << "line " << i;
    const std::string record = all[i + 1].substr(0, all[i + 1].rfind(" line "));
    for (int line = 0; line < 5; ++line) {
      ASSERT_EQ(all[i + 1 + line], record + " line " + std::to_string(line)) << "line " << i;
    }
  }
}

}  // namespace
