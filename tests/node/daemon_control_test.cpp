// The daemon's control requests at the protocol level: a request of another
// version or an unknown command is answered with what is wrong, a process
// that does not answer the daemon's stats query is shown as such without
// holding the answer up, and a caller outside the node's owners may look
// but not change.
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>

#include "daemon/control_service.h"
#include "node/daemon_test_support.h"

namespace daemon_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct Answer {
  int status = -1;
  std::string text;
};

Answer control(const std::string &socket, std::vector<std::string> words,
               uint32_t version = client::kControlVersion) {
  client::MessageChannel channel(client::connect_unix_socket(socket));
  Answer answer;
  if (!channel.send(client::ControlRequest{version, 7, std::move(words)})) return answer;
  for (;;) {
    auto received = channel.receive();
    const auto *reply = received ? std::get_if<client::ControlReply>(&received->message) : nullptr;
    if (reply == nullptr || reply->request_id != 7) return answer;
    answer.status = reply->status;
    answer.text += reply->text;
    if (!reply->more) return answer;
  }
}

// Names come from clients: they must not break the JSON, and long lists are
// cut with the count of what was left out.
TEST(ControlStatus, EscapesNamesAndCutsLongLists) {
  config::NodeConfig config;
  daemon::NodeStatus status;
  status.config = &config;
  daemon::ProcessStatus process;
  process.peer = {4242, 0};
  process.report.emplace();
  process.report->tps = {{"A\"B\\\x01", "APPN.LOCAL"}};
  process.report->conversations.resize(5);
  status.processes.push_back(process);
  const std::string tps =
      daemon::render_json(daemon::status_table(status, daemon::StatusView::kTps, 10));
  EXPECT_THAT(tps, HasSubstr("\"name\":\"A\\\"B\\\\\\u0001\""));
  const daemon::Table cut = daemon::status_table(status, daemon::StatusView::kConversations, 2);
  ASSERT_EQ(cut.size(), 2u);
  EXPECT_EQ(cut[1].rows.size(), 2u);
  const auto &node = cut[0].rows.at(0).fields;
  const auto omitted = std::find_if(
      node.begin(), node.end(), [](const auto &field) { return field.first == "rows_omitted"; });
  ASSERT_NE(omitted, node.end());
  EXPECT_EQ(std::get<uint64_t>(omitted->second), 3u);
}

using DaemonControl = DaemonFixture;

TEST_F(DaemonControl, AnswersWhatIsWrongAndDoesNotWaitForASilentProcess) {
  const Answer other = control(socket_, {"status"}, client::kControlVersion + 98);
  EXPECT_EQ(other.status, daemon::kControlBadRequest);
  EXPECT_THAT(other.text, HasSubstr("control version 99"));
  EXPECT_THAT(other.text, HasSubstr("speaks version 1"));

  const Answer unknown = control(socket_, {"reboot"});
  EXPECT_EQ(unknown.status, daemon::kControlBadRequest);
  EXPECT_THAT(unknown.text, HasSubstr("unknown command: reboot"));

  EXPECT_EQ(control(socket_, {"link", "start"}).text, "no network configured\n");

  // A greeted process that never reads: the stats query goes unanswered.
  auto silent = greet(socket_);
  ASSERT_TRUE(silent);
  const auto asked = std::chrono::steady_clock::now();
  const Answer status = control(socket_, {"status", "--json"});
  const auto took = std::chrono::steady_clock::now() - asked;
  EXPECT_EQ(status.status, daemon::kControlOk);
  EXPECT_THAT(status.text, HasSubstr("\"processes\":1,\"processes_not_answering\":1"));
  EXPECT_THAT(status.text, HasSubstr("\"answered\":false"));
  EXPECT_GE(took, daemon::kStatsDeadline);
  EXPECT_LT(took, 5 * daemon::kStatsDeadline);
}

// The next trace-control a raw client gets (stats queries go unanswered).
std::optional<client::TraceControl> next_trace(client::MessageChannel &channel) {
  while (auto received = channel.receive()) {
    if (const auto *trace = std::get_if<client::TraceControl>(&received->message)) return *trace;
  }
  return std::nullopt;
}

TEST_F(DaemonControl, TraceOfOneTpReachesItsProcessesNowAndLater) {
  auto serving = greet(socket_);
  auto later = greet(socket_);
  ASSERT_TRUE(serving && later);
  ASSERT_TRUE(serving->send(client::RegisterTp{"TRACEME"}));
  // The registration is in once a status lists it.
  for (int tries = 0; tries < 100; ++tries) {
    if (control(socket_, {"status", "--json"}).text.find("TRACEME") != std::string::npos) break;
  }
  const Answer told = control(socket_, {"trace", "on", "--tp", "TRACEME", "--file", "/tmp/t.trc"});
  EXPECT_EQ(told.status, daemon::kControlOk);
  EXPECT_THAT(told.text, HasSubstr("1 process(es) told"));
  const auto now = next_trace(*serving);
  ASSERT_TRUE(now);
  EXPECT_TRUE(now->on);
  EXPECT_EQ(now->file, "/tmp/t.trc");
  ASSERT_TRUE(later->send(client::AcceptWait{1, {"OTHER", "TRACEME"}}));
  const auto then = next_trace(*later);
  ASSERT_TRUE(then);
  EXPECT_TRUE(then->on);
}

// Runs `requests` as uid and gid (no other groups) in a child; the statuses
// and texts of the answers.
std::string as_user(uid_t uid, gid_t gid, const std::string &socket,
                    const std::vector<std::vector<std::string>> &requests) {
  int results[2];
  if (::pipe(results) != 0) return "no pipe";
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(results[0]);
    if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) ::_exit(1);
    std::string report;
    for (const auto &words : requests) {
      const Answer answer = control(socket, words);
      report += std::to_string(answer.status) + " " + answer.text;
    }
    (void)!::write(results[1], report.data(), report.size());
    ::_exit(0);
  }
  ::close(results[1]);
  std::string report;
  char buffer[512];
  for (ssize_t n; (n = ::read(results[0], buffer, sizeof buffer)) > 0;) report.append(buffer, n);
  ::close(results[0]);
  ::waitpid(child, nullptr, 0);
  return report;
}

TEST_F(DaemonControl, OnlyOwnersChangeAndOnlyRootNamesAFileForOthers) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as other users";
  // The owner opens the socket to everyone (for watching only).
  ASSERT_EQ(::chmod(dir_.path.c_str(), 0755), 0);
  ASSERT_EQ(::chmod(socket_.c_str(), 0666), 0);
  constexpr uid_t kNobody = 65534;
  const std::string outsider =
      as_user(kNobody, kNobody, socket_,
              {{"trace", "on"}, {"link", "stop", "NETA.NODEB"}, {"tp", "list", "--json"}});
  EXPECT_EQ(outsider.rfind("1 refused: trace on changes the node", 0), 0u) << outsider;
  EXPECT_THAT(outsider, HasSubstr("\n1 refused: link stop NETA.NODEB changes the node"));
  EXPECT_THAT(outsider, HasSubstr("you are uid 65534"));
  EXPECT_THAT(outsider, HasSubstr("\n0 {\"node\":{\"name\":\"TESTNODE\""));

  // A member of the socket's group (root's here) may trace a process of root,
  // but not into a file it names: root's process would write it.
  auto process = greet(socket_);
  ASSERT_TRUE(process);
  ASSERT_TRUE(process->send(client::RegisterTp{"TRACEME"}));
  const std::string member = as_user(
      kNobody, 0, socket_, {{"status"}, {"trace", "on", "--tp", "TRACEME", "--file", "/tmp/x"}});
  EXPECT_THAT(member,
              HasSubstr("0 trace on for TP TRACEME: 1 process(es) told, file /tmp/x; 1 of another "
                        "user trace into their own file"));
  const auto told = next_trace(*process);
  ASSERT_TRUE(told);
  EXPECT_TRUE(told->on);
  EXPECT_EQ(told->file, "");
}

}  // namespace
}  // namespace daemon_test
