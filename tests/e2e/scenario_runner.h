// End-to-end scenarios: a client side and a server side, each written once
// against the CPI-C calls, and the runner that executes the pair either as two
// threads of one process on the embedded engine, or as two processes that a
// node daemon of the test's own brokers.  Either way the sides run in
// processes forked from the test, so the test process never starts the
// library, and every failed check reaches the test as a line on a pipe.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cpic.h"
#include "e2e/two_hosts.h"
#include "support/tp_user.h"

namespace e2e {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// kTwoNodes: the client's node daemon reaches the server's LU (LOCAL) on a
// second node daemon over a link of whole units (see network_node.h).
// kTwoHosts: the same two nodes as two hosts, 127.0.0.2 and 127.0.0.3, joined
// by an Enterprise Extender link configured in their files alone.
enum class Deploy { kThreads, kProcesses, kTwoNodes, kTwoHosts };

// What a side sees of the runner.  Report lines start with a letter: F a
// failed check, A the side gave up, K a process is about to be killed on
// purpose (its death is then no failure).
struct Side {
  std::string role;
  fs::path log_dir;  // this side's node log directory
  pid_t daemon = -1;
  int report = -1, from_partner = -1, to_partner = -1;
  bool across_nodes = false;  // the partner TP is on the other node

  void say(char kind, std::string text) const {
    for (char &c : text) c = c == '\n' ? ' ' : c;
    const std::string line = std::string(1, kind) + ' ' + role + ": " + text.substr(0, 1000) + '\n';
    (void)!::write(report, line.data(), line.size());
  }
  void post() const { (void)!::write(to_partner, "+", 1); }
  bool await(int ms = 10000) const {
    pollfd p{from_partner, POLLIN, 0};
    char byte;
    return ::poll(&p, 1, ms) == 1 && ::read(from_partner, &byte, 1) == 1;
  }
};
inline thread_local const Side *t_side = nullptr;

struct SideAborted {};

template <typename A, typename B>
bool check_eq(const A &actual, const B &expected, const char *what, const char *want, int line) {
  if (actual == expected) return true;
  std::ostringstream text;
  text << "line " << line << ": " << what << " is " << actual << ", expected " << want << " ("
       << expected << ")";
  t_side->say('F', text.str());
  return false;
}
#define CHECK_EQ(actual, expected) \
  ::e2e::check_eq((actual), (expected), #actual, #expected, __LINE__)
#define REQUIRE_EQ(actual, expected)                             \
  do {                                                           \
    if (!CHECK_EQ(actual, expected)) throw ::e2e::SideAborted{}; \
  } while (0)
#define REQUIRE_PARTNER() REQUIRE_EQ(::e2e::t_side->await(), true)
// ---- the CPI-C calls, as the scenarios use them ----------------------------------

constexpr CM_CONVERSATION_STATE kEnded = 0;  // cmecs: the ID is gone

struct Received {
  CM_RETURN_CODE rc = -1;
  CM_DATA_RECEIVED_TYPE data = -1;
  CM_STATUS_RECEIVED status = -1;
  CM_REQUEST_TO_SEND_RECEIVED rts = -1;
  std::string text;
  bool apart = false;  // the status came in a receive of its own
};

// A receive that returned data of `kind` (complete, incomplete, or fill
// buffer's), `bytes`, and `status` with it.
inline bool check_data(const Received &r, CM_DATA_RECEIVED_TYPE kind, const std::string &bytes,
                       CM_STATUS_RECEIVED status, const char *names, int line) {
  return check_eq(r.rc, CM_OK, "rc", "CM_OK", line) &&
         check_eq(r.data, kind, "data_received", names, line) &&
         check_eq(r.text, bytes, "data", names, line) &&
         check_eq(r.status, status, "status_received", names, line);
}
#define CHECK_DATA(received, kind, bytes, status) \
  ::e2e::check_data((received), (kind), (bytes), (status), #kind ", " #bytes ", " #status, __LINE__)

struct Conv {
  unsigned char id[8] = {};
  CM_REQUEST_TO_SEND_RECEIVED rts = -1;  // for the calls that report it

  // f(id, args..., &rc)
  template <typename F, typename... A>
  CM_RETURN_CODE call(F f, A... args) {
    CM_RETURN_CODE rc = -1;
    f(id, args..., &rc);
    return rc;
  }
  template <typename F>
  CM_RETURN_CODE set(F f, CM_INT32 value) {
    return call(f, &value);
  }
  template <typename F>
  CM_RETURN_CODE name(F f, std::string text) {
    CM_INT32 length = static_cast<CM_INT32>(text.size());
    return call(f, reinterpret_cast<unsigned char *>(text.data()), &length);
  }
  CM_RETURN_CODE send(std::string data, CM_SEND_TYPE type = CM_BUFFER_DATA,
                      CM_REQUEST_TO_SEND_RECEIVED *rts = nullptr) {
    if (const CM_RETURN_CODE rc = set(cmsst, type); rc != CM_OK) return rc;
    CM_INT32 length = static_cast<CM_INT32>(data.size());
    CM_REQUEST_TO_SEND_RECEIVED got = -1;
    const CM_RETURN_CODE rc =
        call(cmsend, reinterpret_cast<unsigned char *>(data.data()), &length, &got);
    if (rts != nullptr) *rts = got;
    return rc;
  }
  Received receive(CM_INT32 max = 4096) {
    Received r;
    std::vector<unsigned char> buffer(static_cast<size_t>(max) + 1);
    CM_INT32 length = 0;
    cmrcv(id, buffer.data(), &max, &r.data, &length, &r.status, &r.rts, &r.rc);
    r.text.assign(buffer.begin(), buffer.begin() + length);
    return r;
  }
  // Data and the `status` its sender sent with it: over a socket the status
  // may arrive after the data, and then comes in a receive of its own.
  Received receive_and(CM_STATUS_RECEIVED status, CM_INT32 max = 4096) {
    Received r = receive(max);
    if (status != CM_NO_STATUS_RECEIVED && r.rc == CM_OK && r.status == CM_NO_STATUS_RECEIVED &&
        r.data == CM_COMPLETE_DATA_RECEIVED) {
      const Received next = receive(max);
      CHECK_EQ(next.data, CM_NO_DATA_RECEIVED);
      r.rc = next.rc;
      r.status = next.status;
      r.apart = true;
    }
    return r;
  }
  // The state, kEnded once the conversation is gone, or minus another return code.
  CM_CONVERSATION_STATE state() {
    CM_CONVERSATION_STATE s = -1;
    const CM_RETURN_CODE rc = call(cmecs, &s);
    return rc == CM_OK ? s : rc == CM_PROGRAM_PARAMETER_CHECK ? kEnded : -rc;
  }
  CM_RETURN_CODE deallocate(CM_DEALLOCATE_TYPE type = CM_DEALLOCATE_FLUSH) {
    if (const CM_RETURN_CODE rc = set(cmsdt, type); rc != CM_OK) return rc;
    return call(cmdeal);
  }
};

// A conversation to `tp_name` at `partner` (by default this node's LU), set
// up but not yet allocated.
inline Conv initialize(const std::string &tp_name, CM_CONVERSATION_TYPE type,
                       CM_SYNC_LEVEL sync = CM_NONE, const std::string &partner = "LOCAL") {
  Conv c;
  unsigned char blank[9] = "        ";
  CM_RETURN_CODE rc = -1;
  cminit(c.id, blank, &rc);
  REQUIRE_EQ(rc, CM_OK);
  REQUIRE_EQ(c.name(cmspln, partner), CM_OK);
  REQUIRE_EQ(c.name(cmsmn, "#INTER"), CM_OK);
  REQUIRE_EQ(c.name(cmstpn, tp_name), CM_OK);
  REQUIRE_EQ(c.set(cmsct, type), CM_OK);
  REQUIRE_EQ(c.set(cmssl, sync), CM_OK);
  return c;
}

inline Conv allocate(const std::string &tp_name, CM_CONVERSATION_TYPE type = CM_MAPPED_CONVERSATION,
                     CM_SYNC_LEVEL sync = CM_NONE) {
  Conv c = initialize(tp_name, type, sync);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  return c;
}

// cmsltp or cmrltp for `name`.
inline CM_RETURN_CODE local_tp(void (*f)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *),
                               std::string name) {
  CM_INT32 length = static_cast<CM_INT32>(name.size());
  CM_RETURN_CODE rc = -1;
  f(reinterpret_cast<unsigned char *>(name.data()), &length, &rc);
  return rc;
}

// PROGRAM security for `user` with `password`.
inline void program_security(Conv &c, const std::string &user, const std::string &password) {
  REQUIRE_EQ(c.set(cmscst, CM_SECURITY_PROGRAM), CM_OK);
  REQUIRE_EQ(c.name(cmscsu, user), CM_OK);
  REQUIRE_EQ(c.name(cmscsp, password), CM_OK);
}

// The user the partner's allocation runs for (cmesui).
inline std::string user_id(Conv &c) {
  unsigned char user[11] = {};
  CM_INT32 length = 0;
  CHECK_EQ(c.call(cmesui, user, &length), CM_OK);
  return std::string(reinterpret_cast<char *>(user), static_cast<size_t>(length));
}

inline Conv accept() {
  Conv c;
  REQUIRE_EQ(c.call(cmaccp), CM_OK);
  return c;
}

// `text` as one record: itself on a mapped conversation, behind its LL on a basic one.
inline std::string record(CM_CONVERSATION_TYPE type, const std::string &text) {
  if (type == CM_MAPPED_CONVERSATION) return text;
  const size_t ll = text.size() + 2;
  return std::string{static_cast<char>(ll >> 8), static_cast<char>(ll & 0xFF)} + text;
}

// ---- scenarios and the runner -----------------------------------------------------

struct Scenario {
  const char *name = "";
  void (*client)(Side &) = nullptr;
  void (*server)(Side &) = nullptr;           // none: the client talks to the node alone
  std::vector<std::string> serves = {"E2E"};  // TP names the server names before it starts
  std::string config = "";                    // TOML after the common part
  bool processes_only = false;
  int attach_timeout_ms = 5000;
  int seconds = 10;  // the most a run may take
};

inline const char *deploy_name(Deploy how) {
  return how == Deploy::kThreads     ? "threads"
         : how == Deploy::kProcesses ? "processes"
         : how == Deploy::kTwoNodes  ? "two_nodes"
                                     : "two_hosts";
}

inline void run_side(Side &side, void (*body)(Side &), const std::vector<std::string> &serves) {
  t_side = &side;
  try {
    if (side.role == "server") {
      for (const std::string &name : serves) REQUIRE_EQ(local_tp(cmsltp, name), CM_OK);
      side.post();  // the names are known to the node: the client may allocate
    } else if (side.to_partner >= 0) {
      REQUIRE_PARTNER();
    }
    body(side);
  } catch (const SideAborted &) {
    side.say('A', "gave up");
  }
}

// Makes the calling (child) process a user of the scenario's node.
inline void enter_node(const fs::path &dir, const Side &side, Deploy how) {
  ::setenv("SNANODE_CONFIG", (dir / "node.toml").c_str(), 1);
  ::setenv("SNANODE_DAEMON", how == Deploy::kThreads ? "off" : "required", 1);
  ::setenv("SNANODE_LOG_DIR", side.log_dir.c_str(), 1);
  ::setenv("SNANODE_ASSERT_ABORT", "1", 1);  // an internal assertion fails the run
  rlimit files{};                            // a thousand conversations hold a thousand sockets
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
}

// The test's child processes, the daemon among them: killed and reaped
// whatever happens to the test.
struct Children {
  struct Child {
    pid_t pid;
    std::string role;
    int status = 0;
    bool reaped = false, killed = false;  // killed: by the runner, when time was up
  };
  std::vector<Child> list;
  std::set<std::string> doomed;  // roles a side said it kills on purpose

  bool ended_well(const Child &c) const {
    return c.status == 0 ||
           (WIFSIGNALED(c.status) && WTERMSIG(c.status) == SIGKILL && doomed.count(c.role) != 0);
  }
  bool reap(Child &c, int options) {
    if (!c.reaped && ::waitpid(c.pid, &c.status, options) == c.pid) c.reaped = true;
    return c.reaped;
  }
  // Reaps the children that have ended; whether one ended badly.
  bool any_failed() {
    bool failed = false;
    for (Child &c : list) failed |= reap(c, WNOHANG) && !ended_well(c);
    return failed;
  }
  // Fails the test for a child that ended badly (not one killed when time was up).
  void check(const Child &c) const {
    if (c.reaped && !c.killed && !ended_well(c)) {
      ADD_FAILURE() << c.role << " ended with "
                    << (WIFEXITED(c.status) ? "exit status " : "signal ")
                    << (WIFEXITED(c.status) ? WEXITSTATUS(c.status) : WTERMSIG(c.status));
    }
  }
  void kill_all() {
    for (Child &c : list) c.killed = c.killed || (!reap(c, WNOHANG) && ::kill(c.pid, SIGKILL) == 0);
  }
  ~Children() {
    kill_all();
    for (Child &c : list) reap(c, 0);
    if (!list.empty() && list[0].role == "daemon") ::kill(-list[0].pid, SIGKILL);  // its TPs
  }
};

// Waits until the daemon of `dir` answers on its socket (while no child has
// failed, at most five seconds).
inline bool daemon_answers(const fs::path &dir, Children &children) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, (dir / "node.sock").c_str(), sizeof address.sun_path - 1);
  for (const auto until = Clock::now() + 5s; Clock::now() < until && !children.any_failed();) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool up = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    ::close(fd);
    if (up) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

// Starts a node daemon in `dir` (in a process group of its own, so the TPs it
// starts go with it) and waits until it answers on its socket.  With `link`,
// the daemon gets that end of a link to another node (and not `other`), and
// writes a capture of its units to units.pcap.
inline bool start_daemon(const fs::path &dir, Children &children, int link = -1, int other = -1) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setpgid(0, 0);
    const std::string link_fd = std::to_string(link);
    if (other >= 0) ::close(other);
    if (link >= 0) ::setenv("SNANODE_CAPTURE", (dir / "units.pcap").c_str(), 1);
    ::setenv("SNANODE_LOG_DIR", dir.c_str(), 1);
    ::setenv("SNANODE_DAEMON", "required", 1);  // for the TPs it starts
    const int out = ::open((dir / "snanoded.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(out, 1);
    ::dup2(out, 2);
    ::execl(SNANODED_PATH, SNANODED_PATH, "--foreground", "--config", (dir / "node.toml").c_str(),
            link >= 0 ? "--link-fd" : static_cast<char *>(nullptr), link_fd.c_str(),
            static_cast<char *>(nullptr));
    ::_exit(127);
  }
  if (pid < 0) return false;
  children.list.push_back({pid, "daemon"});
  return daemon_answers(dir, children);
}

// Runs the scenario's sides, the client as a user of the node in `dir` and
// the server of the one in `server_dir`, whose daemons (if any) are all of
// `children` and go on running; every failed check reaches the test.  The
// sides are reaped and dropped from `children`.
inline void run_sides(const Scenario &scenario, Deploy how, const fs::path &dir,
                      const fs::path &server_dir, Children &children) {
  // Made after the daemon, so that neither it nor its TPs hold an end.
  int report[2], to_server[2], to_client[2];
  ASSERT_EQ(
      ::pipe2(report, O_CLOEXEC) | ::pipe2(to_server, O_CLOEXEC) | ::pipe2(to_client, O_CLOEXEC),
      0);
  const pid_t daemon = children.list.empty() ? -1 : children.list[0].pid;
  const pid_t server_daemon = children.list.size() > 1 ? children.list.back().pid : daemon;
  Side client{"client", dir / "client", daemon, report[1], to_client[0], to_server[1]};
  Side server{"server",  server_dir / "server", server_daemon,
              report[1], to_server[0],          to_client[1]};
  if (!scenario.server) client.from_partner = client.to_partner = -1;
  client.across_nodes = server.across_nodes = dir != server_dir;
  if (how == Deploy::kThreads) client.log_dir = server.log_dir = dir / "node";
  for (const Side *side : {&client, &server}) fs::create_directories(side->log_dir);

  auto start = [&](const char *role, Side &side, auto body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
      enter_node(&side == &server ? server_dir : dir, side, how);
      body();
      std::exit(0);
    }
    if (pid > 0) children.list.push_back({pid, role});
    if (pid < 0) ADD_FAILURE() << "cannot fork the " << role;
  };
  auto client_side = [&] { run_side(client, scenario.client, scenario.serves); };
  auto server_side = [&] { run_side(server, scenario.server, scenario.serves); };
  if (how == Deploy::kThreads) {
    start("threads", client, [&] {
      std::thread thread;
      if (scenario.server) thread = std::thread(server_side);
      client_side();
      if (thread.joinable()) thread.join();
    });
  } else {
    if (scenario.server) start("server", server, server_side);
    start("client", client, client_side);
  }
  for (int fd : {report[1], to_server[0], to_server[1], to_client[0], to_client[1]}) ::close(fd);

  // Every report line until the sides have ended, or the time is up; a side
  // that gave up or a process that failed leaves the others two more seconds.
  std::string partial;
  auto until = Clock::now() + std::chrono::seconds(scenario.seconds);
  for (char buffer[4096];;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    if (left.count() <= 0) {
      ADD_FAILURE() << scenario.name << " did not finish in time (" << scenario.seconds
                    << " s, or 2 s after a side failed)";
      children.kill_all();
      break;
    }
    pollfd p{report[0], POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(std::min<long>(left.count(), 100))) == 0) {
      if (children.any_failed()) until = std::min(until, Clock::now() + 2s);
      continue;
    }
    const ssize_t n = ::read(report[0], buffer, sizeof buffer);
    if (n <= 0) break;
    partial.append(buffer, static_cast<size_t>(n));
    for (size_t end; (end = partial.find('\n')) != std::string::npos; partial.erase(0, end + 1)) {
      const std::string line = partial.substr(0, end);
      if (line[0] == 'F') ADD_FAILURE() << line.substr(2);
      if (line[0] == 'A') until = std::min(until, Clock::now() + 2s);
      if (line[0] == 'K') children.doomed.insert(line.substr(line.find(": ") + 2));
    }
  }
  ::close(report[0]);
  for (auto it = children.list.begin(); it != children.list.end();) {
    if (it->role == "daemon") {
      ++it;
      continue;
    }
    children.reap(*it, 0);
    children.check(*it);
    it = children.list.erase(it);
  }
}

inline void run(const Scenario &scenario, Deploy how) {
  char pattern[] = "/tmp/cpic-e2e-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  struct Remove {  // the logs stay for a look when CPIC_E2E_KEEP is set
    fs::path dir;
    ~Remove() {
      if (std::getenv("CPIC_E2E_KEEP") != nullptr) {
        std::cerr << "scenario files in " << dir << "\n";
      } else {
        if (::testing::Test::HasFailure()) std::cerr << "CPIC_E2E_KEEP=1 keeps the logs\n";
        fs::remove_all(dir);
      }
    }
  } remove{dir};
  // Two nodes: the server's in dir/b, whose LU LOCAL the client's node (in
  // dir, its own LU LUA) reaches over the link.
  const bool two = how == Deploy::kTwoNodes || how == Deploy::kTwoHosts;
  const fs::path server_dir = two ? dir / "b" : dir;
  const uint16_t base = how == Deploy::kTwoHosts ? free_port_base() : 0;
  if (how == Deploy::kTwoHosts && base == 0) GTEST_SKIP() << "127.0.0.2 and .3 not bindable";
  const auto hosts = [&](int host, const char *partner_cp) {
    return std::pair{base != 0 ? host_network_keys(host, base) : "",
                     base != 0 ? host_link(host, partner_cp) : ""};
  };
  fs::create_directories(server_dir);
  auto write_config = [&](const fs::path &at, const std::string &network) {
    std::ofstream(at / "node.toml")
        << "[node]\nattach_timeout_ms = " << scenario.attach_timeout_ms << "\nsocket_path = \""
        << (at / "node.sock").string() << "\"\n[log]\ndir = \"" << at.string()
        << "\"\n[[mode]]\nname = \"#INTER\"\nsession_limit = 2000\n"
        << test_support::with_tp_user(scenario.config) << network;
  };
  if (two) {
    const auto [a_keys, a_link] = hosts(0, "APPN.NODEB");
    const auto [b_keys, b_link] = hosts(1, "APPN.NODEA");
    write_config(dir, "[network]\nenabled = true\ncp_name = \"APPN.NODEA\"\n" + a_keys +
                          "[[local_lu]]\nalias = \"LUA\"\n[[partner_lu]]\nalias = \"LOCAL\"\n"
                          "lu_name = \"APPN.LOCAL\"\nowning_cp = \"APPN.NODEB\"\n" +
                          a_link);
    write_config(server_dir, "[network]\nenabled = true\ncp_name = \"APPN.NODEB\"\n" + b_keys +
                                 "[[partner_lu]]\nalias = \"LUA\"\nlu_name = \"APPN.LUA\"\n"
                                 "owning_cp = \"APPN.NODEA\"\ntrust_already_verified = true\n" +
                                 b_link);
  } else {
    write_config(dir, "");
  }
  Children children;
  if (how == Deploy::kProcesses) {
    ASSERT_TRUE(start_daemon(dir, children)) << "no daemon: see " << dir / "snanoded.out";
  } else if (how == Deploy::kTwoNodes) {
    int link[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, link), 0);
    const bool up = start_daemon(dir, children, link[0], link[1]) &&
                    start_daemon(server_dir, children, link[1], link[0]);
    ::close(link[0]);
    ::close(link[1]);
    ASSERT_TRUE(up) << "no daemons: see " << dir;
  } else if (how == Deploy::kTwoHosts) {
    ASSERT_TRUE(start_daemon(dir, children) && start_daemon(server_dir, children) &&
                link_up(dir / "snanoded.log"))
        << "no daemons or no link: see " << dir;
  }
  run_sides(scenario, how, dir, server_dir, children);
  // Then the daemon is stopped as an operator would.
  for (auto it = children.list.rbegin(); it != children.list.rend(); ++it) {
    if (!children.reap(*it, WNOHANG)) {
      ::kill(it->pid, SIGTERM);
      for (const auto until = Clock::now() + 5s; !children.reap(*it, WNOHANG);) {
        if (Clock::now() > until) {
          ADD_FAILURE() << "the daemon did not stop on SIGTERM";  // killed on the way out
          break;
        }
        std::this_thread::sleep_for(10ms);
      }
    }
    children.check(*it);
  }
}

}  // namespace e2e
