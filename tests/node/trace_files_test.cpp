// The node's trace file services: where the file goes, the API trace switch,
// the layout of separators, lines and dumps, and records of concurrent
// threads and processes that never interleave.
#include <gtest/gtest.h>
#include <sys/stat.h>
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

#include "snanode/snanode.h"
#include "config/node_config.h"
#include "core/log_files.h"
#include "trace/trace_settings.h"

#include "support/read_lines.h"

namespace {

namespace fs = std::filesystem;
using snanode::log_directory;
using snanode::trace::resolve_trace_settings;
using test_support::read_lines;

class TraceFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("trace_files_test." + std::to_string(getpid()) + "." +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    for (const char *name :
         {"SNANODE_TRACE", "SNANODE_TRACE_FILE", "SNANODE_LOG_DIR", "XDG_STATE_HOME"}) {
      unsetenv(name);
    }
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Opens `file` as the trace file and returns its handle under the lock.
  int32_t lock_trace_file(const fs::path &file) {
    setenv("SNANODE_TRACE", "1", 1);
    setenv("SNANODE_TRACE_FILE", file.c_str(), 1);
    unsigned char flags[SNANODE_TRACE_FLAG_BYTES] = {};
    sepuapi_init(flags);
    TRC_API api = trc_api;
    trc_lock_file(&api);
    handle_api_ = api;
    return api.file_handle;
  }
  void unlock() { trc_unlock_file(&handle_api_); }

  fs::path dir_;
  TRC_API handle_api_{};
};

TEST_F(TraceFiles, FileLocationFollowsTheEnvironment) {
  const std::string home = getenv("HOME") != nullptr ? getenv("HOME") : "";
  setenv("HOME", "/home/tracer", 1);
  EXPECT_EQ(log_directory(), fs::path("/home/tracer/.local/state/snanode"));
  EXPECT_EQ(resolve_trace_settings().file, fs::path("/home/tracer/.local/state/snanode/api.trc"));
  setenv("XDG_STATE_HOME", "/var/state", 1);
  EXPECT_EQ(log_directory(), fs::path("/var/state/snanode"));
  setenv("SNANODE_LOG_DIR", "/srv/logs", 1);
  EXPECT_EQ(resolve_trace_settings().file, fs::path("/srv/logs/api.trc"));
  setenv("SNANODE_TRACE_FILE", "/elsewhere/my.trc", 1);
  EXPECT_EQ(resolve_trace_settings().file, fs::path("/elsewhere/my.trc"));
  unsetenv("SNANODE_LOG_DIR");
  unsetenv("XDG_STATE_HOME");
  unsetenv("HOME");
  EXPECT_EQ(log_directory(), fs::path("/tmp/snanode-" + std::to_string(getuid())));
  // An empty variable counts as unset.
  setenv("SNANODE_LOG_DIR", "", 1);
  EXPECT_EQ(log_directory(), fs::path("/tmp/snanode-" + std::to_string(getuid())));
  if (!home.empty()) setenv("HOME", home.c_str(), 1);
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
  TRC_API api = trc_api;
  trc_lock_file(&api);
  ASSERT_NE(api.file_handle, -1);
  com_trc_sep(api.file_handle, "CPIC ");
  com_trc_line(api.file_handle, "CPIC ", "CMSEND request");
  com_trc_line(api.file_handle, "CPIC ", " Send length = 5");
  trc_unlock_file(&api);

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

TEST_F(TraceFiles, InitialisingAgainSwitchesToTheNewFile) {
  const int32_t first = lock_trace_file(dir_ / "first.trc");
  ASSERT_NE(first, -1);
  com_trc_line(first, "CPIC ", "one");
  unlock();
  const int32_t second = lock_trace_file(dir_ / "second.trc");
  ASSERT_NE(second, -1);
  com_trc_line(second, "CPIC ", "two");
  unlock();
  EXPECT_EQ(read_lines(dir_ / "first.trc"), std::vector<std::string>{"CPIC one"});
  EXPECT_EQ(read_lines(dir_ / "second.trc"), std::vector<std::string>{"CPIC two"});
}

TEST_F(TraceFiles, DumpShowsHexAsciiAndEbcdicColumns) {
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

TEST_F(TraceFiles, LockExcludesOtherThreadsUntilUnlocked) {
  const fs::path file = dir_ / "lock.trc";
  ASSERT_NE(lock_trace_file(file), -1);
  auto other = std::async(std::launch::async, [] {
    TRC_API api = trc_api;
    trc_lock_file(&api);
    trc_unlock_file(&api);
    return api.file_handle;
  });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  unlock();
  ASSERT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_NE(other.get(), -1);
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
