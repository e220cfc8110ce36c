// snanodectl against a daemon of the test's own: TPs in two processes hold
// conversations with data sent one way, an allocation waits for an invokable
// TP the daemon started; `status --json` must show exactly that (counts,
// states, bytes each way), and after the accepting process and the started TP
// are killed, show them gone and ended.  Turning the trace on for one process
// reaches that process's library.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "cpic.h"
#include "e2e/snanodectl_run.h"
#include "support/tp_user.h"

namespace {

namespace fs = std::filesystem;
using ctl_test::Json;
using namespace std::chrono_literals;

constexpr CM_INT32 kSizes[] = {1000, 300};

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fds), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  void post() const { (void)!::write(fds[1], "+", 1); }
  bool await() const {
    pollfd p{fds[0], POLLIN, 0};
    char byte;
    return ::poll(&p, 1, 10000) == 1 && ::read(fds[0], &byte, 1) == 1;
  }
};

void set_name(void (*call)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *),
              unsigned char *id, const char *name) {
  CM_INT32 length = static_cast<CM_INT32>(std::strlen(name));
  CM_RETURN_CODE rc;
  call(id, reinterpret_cast<unsigned char *>(const_cast<char *>(name)), &length, &rc);
  if (rc != CM_OK) ::_exit(10);
}

// Allocates to `tp` on #INTER and sends `size` bytes (none: only allocates).
void allocate(unsigned char *id, const char *tp, CM_INT32 size) {
  unsigned char blank[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  CM_RETURN_CODE rc;
  cminit(id, blank, &rc);
  if (rc != CM_OK) ::_exit(11);
  set_name(cmspln, id, "LOCAL");
  set_name(cmsmn, id, "#INTER");
  set_name(cmstpn, id, tp);
  cmallc(id, &rc);
  if (rc != CM_OK) ::_exit(12);
  if (size == 0) return;
  std::vector<unsigned char> data(static_cast<size_t>(size), 0x5A);
  CM_REQUEST_TO_SEND_RECEIVED rts;
  cmsend(id, data.data(), &size, &rts, &rc);
  if (rc == CM_OK) cmflus(id, &rc);
  if (rc != CM_OK) ::_exit(13);
}

// Accepts the two conversations, receives what was sent on each, says so,
// and waits to be killed.
[[noreturn]] void serve(const Pipe &ready) {
  ::setenv("APPCTPN", "CTLSRV", 1);
  for (const CM_INT32 size : kSizes) {
    unsigned char id[8];
    CM_RETURN_CODE rc;
    cmaccp(id, &rc);
    if (rc != CM_OK) ::_exit(20);
    unsigned char buffer[4096];
    CM_INT32 max = sizeof buffer, length = 0;
    CM_DATA_RECEIVED_TYPE data;
    CM_STATUS_RECEIVED status;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    cmrcv(id, buffer, &max, &data, &length, &status, &rts, &rc);
    if (rc != CM_OK || length != size) ::_exit(21);
  }
  ready.post();
  for (;;) ::pause();
}

// The client: two conversations with data to the server, one allocation to
// the invokable TP; after `go`, one more call (traced) and out.
[[noreturn]] void client(const Pipe &ready, const Pipe &go) {
  unsigned char ids[3][8];
  allocate(ids[0], "CTLSRV", kSizes[0]);
  allocate(ids[1], "CTLSRV", kSizes[1]);
  allocate(ids[2], "SLEEPER", 0);
  ready.post();
  go.await();
  CM_CONVERSATION_STATE state;
  CM_RETURN_CODE rc;
  cmecs(ids[0], &state, &rc);
  ::_exit(0);
}

class CtlStatus : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/ctl-status-XXXXXX";
    dir_ = ::mkdtemp(pattern);
    socket_ = (dir_ / "node.sock").string();
    std::ofstream(dir_ / "node.toml")
        << "[node]\nname = \"CTLNODE\"\nsocket_path = \"" << socket_ << "\"\n"
        << test_support::with_tp_user(
               "[[tp]]\ntp_name = \"SLEEPER\"\nprogram = \"/bin/sleep\"\narguments = [\"60\"]\n"
               "queue_timeout_ms = 30000\nmax_instances = 1\n");
    ::setenv("SNANODE_CONFIG", (dir_ / "node.toml").c_str(), 1);
    ::setenv("SNANODE_LOG_DIR", dir_.c_str(), 1);
    ::setenv("SNANODE_DAEMON", "required", 1);
    daemon_ = ::fork();
    ASSERT_GE(daemon_, 0);
    if (daemon_ == 0) {
      ::setpgid(0, 0);  // the TPs it starts too, so that they can be stopped with it
      ::execl(SNANODED_PATH, SNANODED_PATH, "--foreground", "--config",
              (dir_ / "node.toml").c_str(), static_cast<char *>(nullptr));
      ::_exit(127);
    }
    // The socket file appears at bind(), before the daemon listens: only a
    // connection says it answers.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
    bool answers = false;
    for (int tries = 0; tries < 500 && !answers; ++tries) {
      const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      answers = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
      ::close(fd);
      if (!answers) std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(answers);
  }
  void TearDown() override {
    for (const pid_t pid : {server_, client_}) {
      if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    }
    ::kill(daemon_, SIGTERM);
    ::waitpid(daemon_, nullptr, 0);
    ::kill(-daemon_, SIGKILL);  // a started TP still running would hold the test's output open
    fs::remove_all(dir_);
  }

  Json status_json() const { return ctl_test::run_snanodectl_json(socket_, "status --json"); }

  fs::path dir_;
  std::string socket_;
  pid_t daemon_ = -1, server_ = -1, client_ = -1;
};

std::vector<const Json *> rows_of(const Json &status, const char *section, pid_t pid) {
  std::vector<const Json *> rows;
  for (const Json &row : status[section].items) {
    if (row["pid"].number == pid) rows.push_back(&row);
  }
  return rows;
}

TEST_F(CtlStatus, ShowsWhatRunsAndWhatWasKilled) {
  Pipe server_ready, client_ready, client_go;
  server_ = ::fork();
  if (server_ == 0) serve(server_ready);
  // The client allocates once the server waits for its TP name.
  bool waiting = false;
  for (int tries = 0; tries < 200 && !waiting; ++tries) {
    waiting = status_json()["waiting_accepts"].items.size() == 1;
    if (!waiting) std::this_thread::sleep_for(20ms);
  }
  ASSERT_TRUE(waiting);
  client_ = ::fork();
  if (client_ == 0) client(client_ready, client_go);
  ASSERT_TRUE(client_ready.await());
  ASSERT_TRUE(server_ready.await());

  Json status = status_json();
  EXPECT_EQ(status["node"]["name"].text, "CTLNODE");
  EXPECT_EQ(status["node"]["processes"].number, 2);
  EXPECT_EQ(status["node"]["processes_not_answering"].number, 0);
  const auto sent = rows_of(status, "conversations", client_);
  ASSERT_EQ(sent.size(), 3u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ((*sent[i])["partner_tp"].text, "CTLSRV");
    EXPECT_EQ((*sent[i])["state"].text, "send");
    EXPECT_EQ((*sent[i])["bytes_sent"].number, kSizes[i]);
    EXPECT_EQ((*sent[i])["bytes_received"].number, 0);
  }
  EXPECT_EQ((*sent[2])["partner_tp"].text, "SLEEPER");
  const auto received = rows_of(status, "conversations", server_);
  ASSERT_EQ(received.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ((*received[i])["local_tp"].text, "CTLSRV");
    EXPECT_EQ((*received[i])["state"].text, "receive");
    EXPECT_EQ((*received[i])["bytes_received"].number, kSizes[i]);
    EXPECT_EQ((*received[i])["bytes_sent"].number, 0);
  }
  EXPECT_EQ(rows_of(status, "tps", server_).size(), 2u);
  for (const Json &mode : status["modes"].items) {
    EXPECT_EQ(mode["sessions_in_use"].number, mode["name"].text == "#INTER" ? 3 : 0);
  }
  ASSERT_EQ(status["attach_queue"].items.size(), 1u);
  EXPECT_EQ(status["attach_queue"].items[0]["tp_name"].text, "SLEEPER");
  ASSERT_EQ(status["started_tps"].items.size(), 1u);
  const Json started = status["started_tps"].items[0];
  EXPECT_TRUE(started["running"].flag);
  EXPECT_EQ(started["exit_status"].kind, Json::Kind::kNull);

  // The accepting process and the started TP die.
  ::kill(server_, SIGKILL);
  ::waitpid(server_, nullptr, 0);
  ::kill(static_cast<pid_t>(started["pid"].number), SIGKILL);
  for (int tries = 0; tries < 100; ++tries) {
    status = status_json();
    if (status["node"]["processes"].number == 1 && !status["started_tps"].items.empty() &&
        !status["started_tps"].items[0]["running"].flag) {
      break;
    }
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(status["node"]["processes"].number, 1);
  EXPECT_TRUE(rows_of(status, "conversations", server_).empty());
  EXPECT_TRUE(rows_of(status, "tps", server_).empty());
  EXPECT_EQ(rows_of(status, "conversations", client_).size(), 3u);
  const auto killed = rows_of(status, "started_tps", static_cast<pid_t>(started["pid"].number));
  ASSERT_EQ(killed.size(), 1u);
  EXPECT_FALSE((*killed[0])["running"].flag);
  EXPECT_EQ((*killed[0])["signal"].number, SIGKILL);

  // The trace of the client alone, switched on while it runs.
  const fs::path trace = dir_ / "client.trc";
  const std::string trace_on =
      "trace on --json --pid " + std::to_string(client_) + " --file " + trace.string();
  EXPECT_EQ(ctl_test::run_snanodectl_json(socket_, trace_on)["trace"]["processes_told"].number, 1);
  status = status_json();
  ASSERT_EQ(rows_of(status, "processes", client_).size(), 1u);
  EXPECT_TRUE((*rows_of(status, "processes", client_)[0])["trace"].flag);
  client_go.post();
  int exit_status = 0;
  ::waitpid(client_, &exit_status, 0);
  client_ = -1;
  EXPECT_TRUE(WIFEXITED(exit_status) && WEXITSTATUS(exit_status) == 0) << exit_status;
  std::ifstream in(trace);
  const std::string traced((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(traced.find("CMECS"), std::string::npos) << traced.substr(0, 500);
}

}  // namespace
