// Two node daemons of a test, A and B, in a temporary directory: joined by a
// link of whole units (a SOCK_SEQPACKET socket pair), or as two hosts on an
// Enterprise Extender link (127.0.0.2 and 127.0.0.3); a TP of node A and one
// of node B run against each other, and snanodectl asks either node.  Shared
// by every two-node and two-host test.  The including target defines
// SNANODED_PATH, SNANODECTL_PATH and APINGD_PATH.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>

#include "e2e/scenario_runner.h"
#include "e2e/snanodectl_run.h"
#include "e2e/two_hosts.h"

namespace e2e {

inline constexpr int kRuSize = 256;

// `host` 0 or 1: the node is that host of an EE link on ports `base`...
// `network`: more [network] keys.
inline std::string node_config(const fs::path &dir, const char *cp, const char *lu,
                               const char *partner, const char *partner_cp,
                               bool trust_partner = false, int host = -1, uint16_t base = 0,
                               const std::string &network = "") {
  std::ostringstream text;
  text << "[node]\nname = \"" << cp << "\"\nnetwork_id = \"NETA\"\nattach_timeout_ms = 5000\n"
       << "socket_path = \"" << (dir / "node.sock").string() << "\"\n"
       << "[log]\ndir = \"" << dir.string() << "\"\n"
       << "[network]\nenabled = true\ncp_name = \"NETA." << cp << "\"\n"
       << (host >= 0 ? host_network_keys(host, base) + "capture = \"" +
                           (dir / "units.pcap").string() + "\"\n"
                     : "")
       << network << "[[local_lu]]\nalias = \"" << lu << "\"\nlu_name = \"NETA." << lu << "\"\n"
       << "[[partner_lu]]\nalias = \"" << partner << "\"\nlu_name = \"NETA." << partner
       << "\"\nowning_cp = \"NETA." << partner_cp << "\"\n"
       << (trust_partner ? "trust_already_verified = true\n" : "")
       // Two hosts: RUs and windows as a user would have them for bulk data.
       << "[[mode]]\nname = \"#INTER\"\nsession_limit = 4\nmax_ru_size = "
       << (host >= 0 ? 16384 : kRuSize) << "\npacing_window = " << (host >= 0 ? 32 : 2) << "\n"
       << (host >= 0 ? host_link(host, std::string("NETA.") + partner_cp) : "");
  return text.str();
}

// A conversation to `tp_name` at node B's LU, set up but not yet allocated.
inline Conv initialize_remote(const std::string &tp_name, CM_CONVERSATION_TYPE type,
                              CM_SYNC_LEVEL sync = CM_NONE) {
  return initialize(tp_name, type, sync, "LUB");
}

struct TwoNodes {
  fs::path base;
  std::array<fs::path, 2> dirs;
  Children children;
  bool up = false;
  uint16_t port_base = 0;  // two hosts on an EE link; 0: the test link

  // `a_trusts_b`: node A takes users node B verified (already verified).
  // `b_config`: more of node B's configuration.  `hosts`: two hosts on
  // 127.0.0.2 and 127.0.0.3 (skip when `port_base` stays 0); `b_address`
  // (hosts only): node B's address instead of 127.0.0.3.  `network`: more
  // [network] keys of both nodes; `both_config`: more of both configurations.
  explicit TwoNodes(bool a_trusts_b = false, const std::string &b_config = "", bool hosts = false,
                    const std::string &b_address = "", const std::string &network = "",
                    const std::string &both_config = "") {
    char pattern[] = "/tmp/cpic-2node-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return;
    base = pattern;
    dirs = {base / "a", base / "b"};
    for (const auto &dir : dirs) fs::create_directories(dir);
    if (hosts && (port_base = free_port_base()) == 0) return;
    const auto moved = [&](std::string text) {
      for (size_t at; !b_address.empty() && (at = text.find(kHostAddress[1])) != text.npos;) {
        text.replace(at, std::string_view(kHostAddress[1]).size(), b_address);
      }
      return text;
    };
    std::ofstream(dirs[0] / "node.toml")
        << moved(node_config(dirs[0], "NODEA", "LUA", "LUB", "NODEB", a_trusts_b, hosts ? 0 : -1,
                             port_base, network))
        << both_config;
    std::ofstream(dirs[1] / "node.toml")
        << moved(node_config(dirs[1], "NODEB", "LUB", "LUA", "NODEA", false, hosts ? 1 : -1,
                             port_base, network))
        << "[[user]]\nuser_id = \"CLERK\"\npassword = \"SECRET\"\n"
        << b_config << both_config;
    if (hosts) {
      up = start_daemon(dirs[0], children) && start_daemon(dirs[1], children) &&
           link_up(dirs[0] / "snanoded.log");
      return;
    }
    int link[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, link) != 0) return;
    up = start_daemon(dirs[0], children, link[0], link[1]) &&
         start_daemon(dirs[1], children, link[1], link[0]);
    ::close(link[0]);
    ::close(link[1]);
  }
  // Starts node B's daemon again (two hosts) and waits for the link.
  bool restart_b() {
    return start_daemon(dirs[1], children) && link_up(dirs[0] / "snanoded.log", 2);
  }

  ~TwoNodes() {
    for (auto &child : children.list) {
      if (!child.reaped) ::kill(child.pid, SIGTERM);
    }
    for (auto &child : children.list) {
      for (const auto until = Clock::now() + 5s; !children.reap(child, WNOHANG);) {
        if (Clock::now() > until) break;
        std::this_thread::sleep_for(10ms);
      }
    }
    if (std::getenv("CPIC_E2E_KEEP") != nullptr || ::testing::Test::HasFailure()) {
      std::cerr << "two-node files in " << base << "\n";
    } else {
      fs::remove_all(base);
    }
  }

  // Runs `client` as a TP of node A and `server` (if any) as one of node B
  // serving E2E; every failed check reaches the test.
  void run(void (*client)(Side &), void (*server)(Side &)) {
    Scenario scenario{"two nodes", client, server};
    scenario.seconds = port_base != 0 ? 60 : 20;  // on a lossy path the RTP rate can fall far
    run_sides(scenario, Deploy::kProcesses, dirs[0], dirs[1], children);
  }
};

// Runs snanodectl against the node in `dir`: its exit status and output.
inline std::pair<int, std::string> ctl(const fs::path &dir, const std::string &args) {
  return ctl_test::run_snanodectl((dir / "node.sock").string(), args);
}

// What snanodectl says, as JSON, of the node in `dir` (by default of its network).
inline ctl_test::Json ctl_json(const fs::path &dir, const std::string &args = "session list") {
  return ctl_test::run_snanodectl_json((dir / "node.sock").string(), "--json " + args);
}

// Node A's TP, started in a child of the test once a byte comes on `go`
// (when given): an aping exchange with `tp` at node B on `mode`, the version
// and then `record` echoed.  With `hold`, it writes a byte to hold[0] once
// the version came back and goes on when one arrives on hold[1].  Exits with
// the step that failed.
inline pid_t start_aping(const fs::path &dir, const char *tp, const char *mode,
                         const std::string &record, int go = -1, const int *hold = nullptr) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::alarm(60);  // whatever happens, the test is not left waiting
  char byte = 0;
  if (go >= 0 && ::read(go, &byte, 1) != 1) std::_Exit(1);
  Side side{"client", dir / ("client-" + std::string(tp))};
  fs::create_directories(side.log_dir);
  enter_node(dir, side, Deploy::kProcesses);
  t_side = &side;
  try {
    Conv c = initialize_remote(tp, CM_MAPPED_CONVERSATION);
    if (c.name(cmsmn, mode) != CM_OK || c.call(cmallc) != CM_OK) std::_Exit(2);
    if (c.send(std::string("\x01\x00", 2), CM_SEND_AND_PREP_TO_RECEIVE) != CM_OK) std::_Exit(3);
    if (const Received r = c.receive_and(CM_SEND_RECEIVED); r.rc != CM_OK || r.text.size() != 2) {
      std::_Exit(4);
    }
    if (hold != nullptr && (::write(hold[0], "+", 1) != 1 || ::read(hold[1], &byte, 1) != 1)) {
      std::_Exit(5);
    }
    if (c.send(record, CM_SEND_AND_PREP_TO_RECEIVE) != CM_OK) std::_Exit(6);
    if (const Received r = c.receive_and(CM_SEND_RECEIVED, 4000);
        r.rc != CM_OK || r.text != record) {
      std::_Exit(7);
    }
    std::_Exit(c.deallocate() == CM_OK ? 0 : 8);
  } catch (const SideAborted &) {
    std::_Exit(9);
  }
}

}  // namespace e2e
