// snanoded as a process: --check, and the environment of a TP the daemon
// starts.  Conversations between processes through the daemon are the
// end-to-end tests' (tests/e2e).
#include <gmock/gmock.h>

#include <cstdio>

#include "client/daemon_protocol.h"
#include "core/process_lock.h"
#include "engine/frame.h"
#include "engine/socket_link.h"
#include "node/daemon_test_support.h"
#include "node/recording_sink.h"
#include "snanode/verbs.h"

namespace {

using namespace snanode;
using namespace daemon_test;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

struct CommandResult {
  int status = -1;
  std::string output;
};

// snanoded --check on `file` (with `more` options): its status and output.
CommandResult check(const fs::path &file, const std::string &more = "") {
  CommandResult result;
  const std::string command = std::string(SNANODED_PATH) + " --check " + file.string() + more;
  FILE *pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[512];
  while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) result.output.append(buffer, n);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// `text` in `name` under `dir`, with the TP user every configuration names.
fs::path config_file(const TempDir &dir, const char *name, const std::string &text) {
  const fs::path file = dir.path / name;
  write_file(file, test_support::with_tp_user(text));
  return file;
}

TEST(DaemonProcess, CheckAcceptsAGoodFileAndExplainsEveryProblemOfABadOne) {
  TempDir dir;
  const auto ok = check(
      config_file(dir, "good.toml",
                  "[node]\nname = \"NODE1\"\nsocket_path = \"" + (dir.path / "s.sock").string() +
                      "\"\n[[tp]]\ntp_name = \"ECHOTP\"\nprogram = \"/bin/true\"\n"
                      "[[user]]\nuser_id = \"CLERK\"\npassword = \"SECRET\"\n"));
  EXPECT_EQ(ok.status, 0) << ok.output;
  EXPECT_THAT(ok.output, HasSubstr("configuration is valid"));

  const fs::path unparsable = dir.path / "unparsable.toml";
  write_file(unparsable, "[node]\nname = 5\n");
  const auto parse = check(unparsable);
  EXPECT_EQ(parse.status, 1) << parse.output;
  EXPECT_THAT(parse.output, AllOf(HasSubstr("unparsable.toml:2"), HasSubstr("1 problem")));

  // Parses, but the daemon could not work with it: four problems, all named
  // (a password the library sends with a '-' turned into X'00' could never
  // match), and a program not installed yet, which is only a warning...
  const fs::path unusable =
      config_file(dir, "unusable.toml",
                  "[node]\ndaemon_user = \"no-such-account-zz\"\nsocket_path = \"" +
                      (dir.path / "missing" / "deeper" / "s.sock").string() +
                      "\"\n[[tp]]\ntp_name = \"ECHOTP\"\nprogram = \"" +
                      (dir.path / "no-such-program").string() +
                      "\"\n[[tp]]\ntp_name = \"DIRTP\"\nprogram = \"" + dir.path.string() +
                      "\"\n[[user]]\nuser_id = \"CLERK\"\npassword = \"Pw-1234\"\n");
  const auto bad = check(unusable);
  EXPECT_EQ(bad.status, 1) << bad.output;
  EXPECT_THAT(bad.output,
              AllOf(HasSubstr("warning: TP ECHOTP: program \"" +
                              (dir.path / "no-such-program").string() + "\" is not installed"),
                    HasSubstr("TP DIRTP: program"), HasSubstr("does not exist"),
                    HasSubstr("user CLERK: the password"),
                    HasSubstr("daemon_user \"no-such-account-zz\""), HasSubstr("4 problems")));
  // ...but a problem under --strict.
  const auto strict = check(unusable, " --strict");
  EXPECT_THAT(strict.output, AllOf(HasSubstr("5 problems"), Not(HasSubstr("warning:"))));

  // Warnings alone leave the file valid.
  const fs::path uninstalled =
      config_file(dir, "uninstalled.toml",
                  "[[tp]]\ntp_name = \"LATER\"\nprogram = \"no-such-program-in-path\"\n");
  const auto later = check(uninstalled);
  EXPECT_EQ(later.status, 0) << later.output;
  EXPECT_THAT(later.output, AllOf(HasSubstr("an allocation for LATER arrives"),
                                  HasSubstr("configuration is valid (1 warning)")));
  EXPECT_EQ(check(uninstalled, " --strict").status, 1);
}

// The daemon starts an invokable TP with its name, LU and the daemon's socket
// in the environment; when it never accepts, the attach times out and the
// allocating side reads the refusal from its end.
class InvokableTpTest : public DaemonFixture {
 protected:
  std::string more_config() const override {
    return "[[tp]]\ntp_name = \"STARTME\"\nprogram = \"/bin/sh\"\narguments = [\"-c\", "
           "\"echo $APPCTPN $APPCLLU $SNANODE_SOCKET > " +
           (dir_.path / "started").string() + "\"]\nqueue_timeout_ms = 300\n";
  }
};

TEST_F(InvokableTpTest, StartedWithItsEnvironmentAndTimedOutWhenItNeverAccepts) {
  auto channel = greet(socket_);
  ASSERT_TRUE(channel);
  ASSERT_TRUE(channel->send(request_for("STARTME")));
  auto result = channel->receive();
  ASSERT_TRUE(result);
  ASSERT_EQ(std::get<client::AllocateResult>(result->message).primary, AP_OK);

  // The attach-failed frame arrives once the queue time-out has passed.
  auto link = engine::make_socket_link(result->descriptor.release());
  engine_test::RecordingSink frames;
  {
    ProcessLockGuard lock;
    link->attach(&frames);
  }
  ASSERT_TRUE(frames.wait_for_frames(1));
  EXPECT_EQ(frames.frames()[0].type, engine::FrameType::kAttachFailed);
  EXPECT_EQ(frames.frames()[0].code, AP_TP_NOT_AVAILABLE_RETRY);

  std::string line;
  for (int tries = 0; tries < 300 && line.empty(); ++tries) {
    std::getline(std::ifstream(dir_.path / "started"), line);
    if (line.empty()) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(line, "STARTME LOCAL " + socket_);
  ProcessLockGuard lock;
  link->close(true);
}

}  // namespace
