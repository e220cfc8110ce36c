// Two node daemons as two hosts: one on 127.0.0.2, one on 127.0.0.3, joined
// by an Enterprise Extender link over UDP.  What the two-host placement of the
// scenarios and the two-host tests share: a free port base, the configuration
// keys, and waiting for the link in a daemon's log.
#pragma once

#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <arpa/inet.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace e2e {

inline constexpr const char *kHostAddress[2] = {"127.0.0.2", "127.0.0.3"};

// A UDP socket bound to `port` on `address`; -1 when that cannot be.
inline int bind_udp(const char *address, uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(port);
  ::inet_pton(AF_INET, address, &at.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0) return fd;
  ::close(fd);
  return -1;
}

inline bool udp_port_free(const char *address, uint16_t port) {
  const int fd = bind_udp(address, port);
  return fd >= 0 && ::close(fd) == 0;
}

// A base whose five ports are free on both addresses (tests running at once
// pick different ones); 0 when the addresses cannot be bound here.
inline uint16_t free_port_base() {
  static unsigned next = 20000 + static_cast<unsigned>(::getpid() % 2000) * 10;
  for (int tries = 0; tries < 200; ++tries) {
    const uint16_t base = static_cast<uint16_t>(next);
    next = next + 5 > 60000 ? 20000 : next + 5;
    bool free = true;
    for (unsigned i = 0; i < 5 && free; ++i) {
      for (const char *address : kHostAddress) free = free && udp_port_free(address, base + i);
    }
    if (free) return base;
  }
  return 0;
}

// The keys of host `host` (0 or 1) for [network], after `cp_name`.
inline std::string host_network_keys(int host, uint16_t base) {
  return std::string("local_address = \"") + kHostAddress[host] +
         "\"\nport_base = " + std::to_string(base) + "\n";
}

// The [[link]] of host `host` to the other one, owned by `partner_cp`.
inline std::string host_link(int host, const std::string &partner_cp, int liveness_seconds = 2) {
  return std::string("[[link]]\npartner = \"") + kHostAddress[1 - host] + "\"\ncp_name = \"" +
         partner_cp + "\"\nliveness_seconds = " + std::to_string(liveness_seconds) + "\n";
}

// How often `text` occurs in the file at `path`.
inline int occurrences(const std::filesystem::path &path, const std::string &text) {
  std::ifstream in(path);
  const std::string all((std::istreambuf_iterator<char>(in)), {});
  int count = 0;
  for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
  return count;
}

// Waits (at most `limit`) until a daemon's log says its link came up for the
// `times`th time.
inline bool link_up(const std::filesystem::path &log, int times = 1,
                    std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  for (const auto until = std::chrono::steady_clock::now() + limit;
       std::chrono::steady_clock::now() < until;) {
    if (occurrences(log, " is up") >= times) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// tshark's options to read UDP on the five ports from `base` as EE (it knows
// 12000 to 12004 by itself).
inline std::string ee_ports_for_tshark(uint16_t base) {
  std::string options;
  for (int i = 0; i < 5; ++i) options += " -d udp.port==" + std::to_string(base + i) + ",llc";
  return options;
}

// A [[tp]] entry: `tp` served by apingd, one conversation per start, run as
// the test's own user.  The including target defines APINGD_PATH.
inline std::string apingd_tp(const std::string &tp) {
  return "[[tp]]\ntp_name = \"" + tp +
         "\"\nprogram = \"" APINGD_PATH "\"\narguments = [\"-n\", \"1\"]\nuser = \"" +
         std::string(::getpwuid(::geteuid())->pw_name) + "\"\n";
}

// Waits for a child of the test: its exit status, or 100 + the signal.
inline int exit_status(pid_t pid) {
  int status = -1;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

}  // namespace e2e
