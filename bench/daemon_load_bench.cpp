// Many conversations open at once between two processes through the node
// daemon, each checked end to end (see tests/support/concurrent_pairs.h).
//
//   daemon_load_bench [--pairs N] [--threads T] [--snanoded PATH] [--keep]
//
// Starts its own snanoded in a temporary directory, then a server process
// (which names the TP and accepts) and a client process (which allocates),
// each with T threads sharing the N conversations; every conversation is
// open on both sides before the first one ends.  Reports how long the
// processes took until all conversations were open and until all were
// checked, and the failures, if any (exit status 1 then).  Defaults: 10,000
// pairs, one thread per 5 pairs.
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "cpic.h"
#include "support/concurrent_pairs.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr unsigned kSideTimeLimitSeconds = 600;  // a side that hangs is killed

[[noreturn]] void die(const std::string &what) {
  std::fprintf(stderr, "daemon_load_bench: %s\n", what.c_str());
  std::exit(2);
}

bool daemon_answers(const fs::path &socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool up = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  ::close(fd);
  return up;
}

pid_t start_daemon(const std::string &snanoded, const fs::path &dir) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setpgid(0, 0);
    ::setenv("SNANODE_LOG_DIR", dir.c_str(), 1);
    const std::string out = (dir / "snanoded.out").string();
    if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(out.c_str(), "a", stderr)) {
      ::_exit(127);
    }
    ::execl(snanoded.c_str(), snanoded.c_str(), "--foreground", "--config",
            (dir / "node.toml").c_str(), static_cast<char *>(nullptr));
    ::_exit(127);
  }
  for (const auto until = Clock::now() + 10s; Clock::now() < until;
       std::this_thread::sleep_for(10ms)) {
    if (daemon_answers(dir / "node.sock")) return pid;
  }
  die("the daemon did not come up; see " + (dir / "snanoded.out").string());
}

// One side in a process of its own: it writes its outcome as one line to
// `report` and exits 0 when every conversation was checked.
template <typename Body>
pid_t start_side(const fs::path &dir, const char *role, int report, Body body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::alarm(kSideTimeLimitSeconds);
  ::setenv("SNANODE_CONFIG", (dir / "node.toml").c_str(), 1);
  ::setenv("SNANODE_DAEMON", "required", 1);
  ::setenv("SNANODE_LOG_DIR", (dir / role).c_str(), 1);
  fs::create_directories(dir / role);
  const concurrent_pairs::Outcome outcome = body();
  char line[512];
  std::snprintf(line, sizeof line,
                "%-6s %6d checked %6d failed, all open after %.3f s, done after %.3f s%s%s\n", role,
                outcome.checked, outcome.failed, outcome.open_seconds, outcome.total_seconds,
                outcome.failed != 0 ? "; first failure: " : "", outcome.first_failure.c_str());
  (void)!::write(report, line, std::strlen(line));
  std::_Exit(outcome.failed == 0 ? 0 : 1);
}

}  // namespace

int main(int argc, char **argv) {
  int pairs = 10000;
  int threads = 0;
  std::string snanoded = SNANODED_PATH;
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--pairs" && has_value) {
      pairs = std::atoi(argv[++i]);
    } else if (arg == "--threads" && has_value) {
      threads = std::atoi(argv[++i]);
    } else if (arg == "--snanoded" && has_value) {
      snanoded = argv[++i];
    } else if (arg == "--keep") {
      keep = true;
    } else {
      die("usage: daemon_load_bench [--pairs N] [--threads T] [--snanoded PATH] [--keep]");
    }
  }
  if (threads <= 0) threads = std::max(1, pairs / 5);
  if (pairs <= 0 || threads > pairs) die("need 0 < threads <= pairs");

  // Every conversation is a socket in each process; the daemon raises its own.
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < static_cast<rlim_t>(pairs) + 100) {
    std::fprintf(stderr, "warning: the open file limit (%llu) is below the pairs\n",
                 static_cast<unsigned long long>(files.rlim_cur));
  }

  char pattern[] = "/tmp/daemon-load-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) die("no temporary directory");
  const fs::path dir = pattern;
  std::ofstream(dir / "node.toml") << "[node]\nattach_timeout_ms = 600000\nsocket_path = \""
                                   << (dir / "node.sock").string() << "\"\n"
                                   << concurrent_pairs::mode_config(pairs);
  const pid_t daemon = start_daemon(snanoded, dir);

  int report[2], ready[2];
  if (::pipe(report) != 0 || ::pipe(ready) != 0) die("no pipes");
  const auto started = Clock::now();
  const pid_t server = start_side(dir, "server", report[1], [&] {
    std::string name = concurrent_pairs::kTpName;
    CM_INT32 length = static_cast<CM_INT32>(name.size());
    CM_RETURN_CODE rc = -1;
    cmsltp(reinterpret_cast<unsigned char *>(name.data()), &length, &rc);
    if (rc != CM_OK) die("CMSLTP returned " + std::to_string(rc));
    (void)!::write(ready[1], "+", 1);
    return concurrent_pairs::run_server(pairs, threads);
  });
  char byte;
  if (::read(ready[0], &byte, 1) != 1) die("the server did not start");
  const pid_t client = start_side(dir, "client", report[1],
                                  [&] { return concurrent_pairs::run_client(pairs, threads); });
  ::close(report[1]);

  int failures = 0;
  for (pid_t side : {client, server}) {
    int status = 0;
    ::waitpid(side, &status, 0);
    failures += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    if (WIFSIGNALED(status)) {
      std::printf("%s killed by signal %d\n", side == client ? "client" : "server",
                  WTERMSIG(status));
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  std::printf("%d conversation pairs between two processes through the daemon, %d threads a side\n",
              pairs, threads);
  char buffer[2048];
  for (ssize_t n; (n = ::read(report[0], buffer, sizeof buffer)) > 0;) {
    std::fwrite(buffer, 1, static_cast<size_t>(n), stdout);
  }
  std::printf("wall time %.3f s: %s\n", seconds, failures == 0 ? "every pair checked" : "FAILED");

  ::kill(daemon, SIGTERM);
  ::waitpid(daemon, nullptr, 0);
  if (keep || failures != 0) {
    std::printf("files in %s\n", dir.c_str());
  } else {
    fs::remove_all(dir);
  }
  return failures == 0 ? 0 : 1;
}
