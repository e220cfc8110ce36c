// The node's trace file services: where the file goes, the API trace switch,
// the layout of separators, lines and dumps, and records of concurrent
// threads and processes that never interleave.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "config/node_config.h"
#include "core/log_files.h"
#include "node/core_test_support.h"
#include "snanode/snanode.h"
#include "trace/trace_settings.h"

namespace {

namespace fs = std::filesystem;
using core_test::read_lines;
using snanode::log_directory;
using snanode::trace::resolve_trace_settings;

class TraceFiles : public core_test::ScratchDirTest {
 protected:
  // Opens `file` as the trace file and returns its handle under the lock.
  int32_t lock_trace_file(const fs::path &file) {
    setenv("SNANODE_TRACE", "1", 1);
    setenv("SNANODE_TRACE_FILE", file.c_str(), 1);
    unsigned char flags[SNANODE_TRACE_FLAG_BYTES] = {};
    sepuapi_init(flags);
    handle_api_ = trc_api;
    trc_lock_file(&handle_api_);
    return handle_api_.file_handle;
  }
  void unlock() { trc_unlock_file(&handle_api_); }

  TRC_API handle_api_{};
};

// Each step changes one source (nullptr value: unset it; "config": the
// configured directory) and shows where logs and the trace file now go.
TEST_F(TraceFiles, LogDirectoryAndTraceFileFollowTheirSourcesInOrder) {
  const std::string fallback = "/tmp/snanode-" + std::to_string(getuid());
  struct Step {
    const char *source;
    const char *value;
    std::string dir;
    std::string trace_file;  // empty: not checked
  } const steps[] = {
      {"HOME", "/home/tracer", "/home/tracer/.local/state/snanode",
       "/home/tracer/.local/state/snanode/api.trc"},
      {"XDG_STATE_HOME", "/var/state", "/var/state/snanode", ""},
      {"config", "/x/config", "/x/config", ""},
      {"SNANODE_LOG_DIR", "/srv/logs", "/srv/logs", "/srv/logs/api.trc"},
      {"SNANODE_TRACE_FILE", "/elsewhere/my.trc", "/srv/logs", "/elsewhere/my.trc"},
      {"SNANODE_LOG_DIR", "", "/x/config", ""},  // an empty variable counts as unset
      {"config", "", "/var/state/snanode", ""},
      {"XDG_STATE_HOME", nullptr, "/home/tracer/.local/state/snanode", ""},
      {"HOME", nullptr, fallback, ""},
  };
  for (const Step &step : steps) {
    SCOPED_TRACE(std::string(step.source) + "=" + (step.value != nullptr ? step.value : "(unset)"));
    if (std::string(step.source) == "config") {
      snanode::set_configured_log_directory(step.value);
    } else if (step.value != nullptr) {
      setenv(step.source, step.value, 1);
    } else {
      unsetenv(step.source);
    }
    EXPECT_EQ(log_directory(), step.dir);
    if (!step.trace_file.empty()) {
      EXPECT_EQ(resolve_trace_settings().file, step.trace_file);
    }
  }
}

TEST_F(TraceFiles, TraceVariableSetsOnlyTheApiBit) {
  struct Case {
    const char *value;
    bool on;
  } const cases[] = {{"1", true}, {"0", false}, {"", false}, {"yes", false}, {nullptr, false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.value != nullptr ? c.value : "(unset)");
    if (c.value != nullptr) {
      setenv("SNANODE_TRACE", c.value, 1);
    } else {
      unsetenv("SNANODE_TRACE");
    }
    setenv("SNANODE_TRACE_FILE", (dir_ / "api.trc").c_str(), 1);
    snanode::config::reload_config();  // the environment is read when the configuration loads
    unsigned char flags[SNANODE_TRACE_FLAG_BYTES] = {};
    flags[16] = 0x02;
    sepuapi_init(flags);
    EXPECT_EQ(flags[0], c.on ? 0x20 : 0x00);
    EXPECT_EQ(flags[16], 0x02);
    EXPECT_EQ(trc_api.file_handle != -1, c.on);
  }
}

TEST_F(TraceFiles, CreatesTheLogDirectoryAndWritesPrefixedLines) {
  setenv("SNANODE_LOG_DIR", (dir_ / "nested" / "logs").c_str(), 1);
  setenv("SNANODE_TRACE", "1", 1);
  unsigned char flags[SNANODE_TRACE_FLAG_BYTES] = {};
  sepuapi_init(flags);
  handle_api_ = trc_api;
  trc_lock_file(&handle_api_);
  const int32_t handle = handle_api_.file_handle;
  ASSERT_NE(handle, -1);
  com_trc_sep(handle, "CPIC ");
  com_trc_line(handle, "CPIC ", "CMSEND request");
  com_trc_line(handle, "CPIC ", " Send length = 5");
  unlock();

  const auto lines = read_lines(dir_ / "nested" / "logs" / "api.trc");
  ASSERT_EQ(lines.size(), 3u);
  const std::regex separator(
      R"(CPIC ==== \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} UTC pid (\d+) tid (\d+) ====)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(lines[0], match, separator)) << lines[0];
  EXPECT_EQ(match[1].str(), std::to_string(getpid()));
  EXPECT_EQ(match[2].str(), std::to_string(gettid()));
  EXPECT_EQ(lines[1], "CPIC CMSEND request");
  EXPECT_EQ(lines[2], "CPIC  Send length = 5");
}

TEST_F(TraceFiles, InitialisingAgainSwitchesFilesAndDumpsShowHexAsciiAndEbcdic) {
  const int32_t first = lock_trace_file(dir_ / "first.trc");
  ASSERT_NE(first, -1);
  com_trc_line(first, "CPIC ", "one");
  unlock();
  const fs::path file = dir_ / "dump.trc";
  const int32_t handle = lock_trace_file(file);
  ASSERT_NE(handle, -1);
  // "Hello World!" in EBCDIC, then bytes 0 to 3, then "AZaz09" in ASCII.
  const unsigned char bytes[] = {0xC8, 0x85, 0x93, 0x93, 0x96, 0x40, 0xE6, 0x96, 0x99, 0x93, 0x84,
                                 0x5A, 0x00, 0x01, 0x02, 0x03, 'A',  'Z',  'a',  'z',  '0',  '9'};
  com_trc_dump(handle, "CPIC ", bytes, sizeof bytes);
  com_trc_dump(handle, "CPIC ", bytes, 0);
  unlock();
  const std::vector<std::string> expected = {
      "CPIC 00000000  C8 85 93 93 96 40 E6 96  99 93 84 5A 00 01 02 03"
      "  |.....@.....Z....|  |Hello World!....|",
      "CPIC 00000010  41 5A 61 7A 30 39" + std::string(33, ' ') +
          "|AZaz09          |  |.!/:..          |",
  };
  EXPECT_EQ(read_lines(file), expected);
  EXPECT_EQ(read_lines(dir_ / "first.trc"), std::vector<std::string>{"CPIC one"});
}

TEST_F(TraceFiles, UnwritableFileDropsRecordsAndHoldsNoLock) {
  // A regular file where a directory would have to be.
  std::ofstream(dir_ / "plain") << "x";
  const int32_t handle = lock_trace_file(dir_ / "plain" / "api.trc");
  EXPECT_EQ(handle, -1);
  // No lock held: another thread gets the same answer at once.
  auto other = std::async(std::launch::async, [] {
    TRC_API api = trc_api;
    trc_lock_file(&api);
    return api.file_handle;
  });
  ASSERT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(other.get(), -1);
  // Writing to the -1 handle is harmless.
  com_trc_line(-1, "CPIC ", "dropped");
  com_trc_dump(-1, "CPIC ", "abc", 3);
  com_trc_sep(-1, "CPIC ");
}

// Each writer appends records of five lines naming itself and the record;
// afterwards every record must stand in one piece.
void write_records(const std::string &writer, int records) {
  for (int r = 0; r < records; ++r) {
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

TEST_F(TraceFiles, RecordsOfThreadsAndProcessesNeverInterleave) {
  const fs::path file = dir_ / "shared.trc";
  ASSERT_NE(lock_trace_file(file), -1);
  unlock();
  constexpr int kRecords = 100;
  std::vector<pid_t> children;
  for (int p = 0; p < 2; ++p) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      std::thread a(write_records, "process" + std::to_string(p) + "a", kRecords);
      write_records("process" + std::to_string(p) + "b", kRecords);
      a.join();
      _exit(0);
    }
    children.push_back(child);
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back(write_records, "thread" + std::to_string(t), kRecords);
  for (auto &thread : threads) thread.join();
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  const auto lines = read_lines(file);
  ASSERT_EQ(lines.size(), size_t{7 * kRecords * 6});
  for (size_t i = 0; i < lines.size(); i += 6) {
    ASSERT_EQ(lines[i].rfind("CPIC ==== ", 0), 0u) << "line " << i;
    const std::string first = lines[i + 1].substr(0, lines[i + 1].rfind(" line "));
    for (int line = 0; line < 5; ++line) {
      ASSERT_EQ(lines[i + 1 + line], "CPIC " + first.substr(5) + " line " + std::to_string(line))
          << "record starting at line " << i;
    }
  }
}

}  // namespace
