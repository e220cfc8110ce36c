// What the tests of the daemon process share: a temporary directory and a
// daemon of the test's own, started from the built executable.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/message_channel.h"
#include "support/tp_user.h"

namespace daemon_test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace snanode;

struct TempDir {
  TempDir() {
    char pattern[] = "/tmp/snanoded-test-XXXXXX";
    path = ::mkdtemp(pattern);
  }
  // A TP the daemon started may still be writing here for a moment after
  // the daemon stopped (TPs outlive their daemon), so removal is retried
  // instead of aborting the test run on "Directory not empty".
  ~TempDir() {
    for (int tries = 0; tries < 100; ++tries) {
      std::error_code error;
      fs::remove_all(path, error);
      if (!error) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  fs::path path;
};

inline void write_file(const fs::path &file, const std::string &text) {
  std::ofstream(file) << text;
}

// An allocation as a TP on the default LU makes it.
inline client::AllocateRequest request_for(const std::string &tp_name) {
  client::AllocateRequest request;
  request.tp_name = tp_name;
  request.mode = "#INTER";
  request.allocator_lu = "APPN.LOCAL";
  return request;
}

// Sends raw bytes with `count` descriptors (copies of standard input).
inline void send_raw(int socket, const std::vector<uint8_t> &bytes, size_t count) {
  std::vector<int> fds(count, STDIN_FILENO);
  iovec iov{const_cast<uint8_t *>(bytes.data()), bytes.size()};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  std::vector<char> control(CMSG_SPACE(sizeof(int) * count));
  if (count > 0) {
    msg.msg_control = control.data();
    msg.msg_controllen = control.size();
    cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int) * count);
    std::memcpy(CMSG_DATA(cmsg), fds.data(), sizeof(int) * count);
  }
  ASSERT_EQ(::sendmsg(socket, &msg, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

inline std::vector<uint8_t> encoded(const client::Message &message, bool passes_descriptor) {
  std::vector<uint8_t> bytes;
  client::encode_message(message, passes_descriptor, bytes);
  return bytes;
}

// The greeting of a client running as this process.
inline client::Hello hello() {
  return {client::kProtocolVersion, static_cast<uint32_t>(::getpid()),
          static_cast<uint32_t>(::getuid())};
}

// Connects and greets the daemon (the node's name it answers with in
// `node_name`); an empty channel pointer on failure.
inline std::unique_ptr<client::MessageChannel> greet(const std::string &socket,
                                                     std::string *node_name = nullptr) {
  auto channel = std::make_unique<client::MessageChannel>(client::connect_unix_socket(socket));
  if (!channel->send(hello())) return nullptr;
  auto welcome = channel->receive();
  const auto *greeting = welcome ? std::get_if<client::Welcome>(&welcome->message) : nullptr;
  if (greeting == nullptr) return nullptr;
  if (node_name != nullptr) *node_name = greeting->node_name;
  return channel;
}

// A daemon of its own in a temporary directory, stopped with SIGTERM.
class DaemonFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    socket_ = (dir_.path / "node.sock").string();
    config_ = (dir_.path / "node.toml").string();
    write_file(config_, "[node]\nname = \"TESTNODE\"\nattach_timeout_ms = 5000\n" +
                            test_support::with_tp_user(more_config()));
    daemon_ = ::fork();
    ASSERT_GE(daemon_, 0);
    if (daemon_ == 0) {
      ::setenv("SNANODE_LOG_DIR", dir_.path.c_str(), 1);
      before_exec();
      ::execl(SNANODED_PATH, SNANODED_PATH, "--foreground", "--socket", socket_.c_str(), "--config",
              config_.c_str(), static_cast<char *>(nullptr));
      ::_exit(127);
    }
    for (int tries = 0; tries < 500; ++tries) {
      if (client::connect_unix_socket(socket_).valid()) return;
      std::this_thread::sleep_for(10ms);
    }
    FAIL() << "the daemon did not come up";
  }
  // What the daemon has written to its log so far.
  std::string daemon_log() const {
    std::ifstream log(dir_.path / "snanoded.log");
    return {std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>()};
  }
  // Runs in the daemon's process just before it starts snanoded.
  virtual void before_exec() const {}
  // Configuration a test adds after the [node] table.
  virtual std::string more_config() const { return ""; }

  void TearDown() override {
    if (daemon_ <= 0) return;
    ::kill(daemon_, SIGTERM);
    int status = 0;
    ::waitpid(daemon_, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(fs::exists(socket_)) << "the socket outlived the daemon";
  }

  TempDir dir_;
  std::string socket_;
  std::string config_;
  pid_t daemon_ = -1;
};

}  // namespace daemon_test
