// A process connecting to a node daemon that accepts but never answers: the
// process's other threads are not held up meanwhile.  A CPI-C call in another
// thread is answered while the first thread still waits for the daemon's
// welcome; threads that start the library or register with the node at the
// same time wait for that one connection instead of opening their own.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "cpic.h"
#include "snanode/snanode.h"

namespace {

namespace fs = std::filesystem;

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

// True when the peer has closed its end: what is there to read is drained
// without waiting.
bool peer_closed(int fd) {
  char buffer[256];
  for (;;) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n == 0) return true;
    if (n < 0) return false;  // nothing more yet: still open
  }
}

TEST(DaemonConnect, OtherThreadsRunWhileTheDaemonsWelcomeIsAwaited) {
  char pattern[] = "/tmp/daemon-connect-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  const std::string socket_path = (dir / "silent.sock").string();
  Fd listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socket_path.data(), socket_path.size());
  ASSERT_EQ(::bind(listener.fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener.fd, 8), 0);
  std::ofstream(dir / "node.toml") << "[node]\nsocket_path = \"" << socket_path << "\"\n";
  ::setenv("SNANODE_CONFIG", (dir / "node.toml").c_str(), 1);
  ::setenv("SNANODE_DAEMON", "auto", 1);

  unsigned char blank[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  unsigned char first_id[8] = {}, second_id[8] = {};
  CM_RETURN_CODE first_rc = -1, second_rc = -1;
  std::thread first([&] { cminit(first_id, blank, &first_rc); });
  Fd peer{::accept(listener.fd, nullptr, nullptr)};
  ASSERT_GE(peer.fd, 0);

  // The first thread is connecting.  A call in this thread takes the process
  // lock and is answered (an unknown conversation) while the first thread
  // still waits: the peer has not seen it give up.
  unsigned char unknown[8] = {0x77, 0x66, 0x55, 0x44, 0, 0, 0, 0};
  unsigned char context[8];
  CM_INT32 context_length = 0;
  CM_RETURN_CODE rc = -1;
  cmectx(unknown, context, &context_length, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_FALSE(peer_closed(peer.fd)) << "the call waited until the connection was given up";

  // Two more threads join in: one starts the library, one registers with the
  // node directly.  Both wait for the first thread's connection.
  std::thread second([&] { cminit(second_id, blank, &second_rc); });
  uint32_t path_user = 0;
  std::thread registrar([&] { vpm_init_path_user(0, 0, nullptr, 0, &path_user); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // lets them reach their waits

  // The "daemon" closes: the connection fails at once and the embedded
  // engine serves, for all three.
  ::close(std::exchange(peer.fd, -1));
  first.join();
  second.join();
  registrar.join();
  EXPECT_EQ(first_rc, CM_OK);
  EXPECT_EQ(second_rc, CM_OK);
  EXPECT_NE(std::memcmp(first_id, second_id, 4), 0);
  EXPECT_NE(path_user, 0u);
  // Only the first thread connected.
  ::fcntl(listener.fd, F_SETFL, O_NONBLOCK);
  EXPECT_LT(::accept(listener.fd, nullptr, nullptr), 0);
  fs::remove_all(dir);
}

}  // namespace
