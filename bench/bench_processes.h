// The processes of a benchmark: a node daemon in a directory of its own, the
// programs it measures, and the bytes they pass over sockets.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace fs = std::filesystem;

[[noreturn]] inline void die(const std::string &what) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
  std::exit(1);
}

// ---- raw socket helpers ---------------------------------------------------------

inline bool read_all(int fd, void *data, size_t size) {
  auto *p = static_cast<uint8_t *>(data);
  while (size > 0) {
    const ssize_t n = ::read(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

inline bool write_all(int fd, const void *data, size_t size) {
  const auto *p = static_cast<const uint8_t *>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

inline std::string self_path() {
  std::error_code error;
  const auto path = fs::read_symlink("/proc/self/exe", error);
  if (error) die("cannot find this program's own path");
  return path.string();
}

inline std::string load_average() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

// Starts a program in a child with the environment set, standard output and
// error going to `log`, the descriptors in `keep` inherited, and (`cpu` not
// negative) bound to one CPU.
inline pid_t spawn(const std::vector<std::string> &args, const std::vector<int> &keep,
                   const std::vector<std::pair<std::string, std::string>> &env, const fs::path &log,
                   int cpu = -1) {
  const pid_t pid = ::fork();
  if (pid < 0) die("fork failed");
  if (pid > 0) return pid;
  // A benchmark stopped from outside takes its daemon and processes with it.
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (cpu >= 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0) {
      std::fprintf(stderr, "%s: cannot bind to CPU %d\n", program_invocation_short_name, cpu);
      ::_exit(127);
    }
  }
  for (const auto &[name, value] : env) ::setenv(name.c_str(), value.c_str(), 1);
  for (int fd : keep) ::fcntl(fd, F_SETFD, 0);
  if (!log.empty()) {
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0) {
      ::dup2(out, 1);
      ::dup2(out, 2);
    }
  }
  std::vector<char *> argv;
  for (const auto &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  std::fprintf(stderr, "%s: cannot run %s: %s\n", program_invocation_short_name, argv[0],
               std::strerror(errno));
  ::_exit(127);
}

// User and system time of process `pid` so far, in seconds (clock ticks).
inline double process_cpu_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), {});
  const size_t end_of_name = stat.rfind(')');
  if (end_of_name == std::string::npos) return 0;
  std::istringstream fields(stat.substr(end_of_name + 2));
  std::string field;
  double utime = 0, stime = 0;
  // After the name: state is field 3, utime 14, stime 15.
  for (int n = 3; n <= 15 && fields >> field; ++n) {
    if (n == 14) utime = std::atof(field.c_str());
    if (n == 15) stime = std::atof(field.c_str());
  }
  return (utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

inline bool daemon_answers(const fs::path &socket) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
  const bool up = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  ::close(fd);
  return up;
}

// Starts snanoded on `config` (with `link`, that end of a link to another
// node) and waits until it answers on `socket`.
inline pid_t start_daemon(const std::string &snanoded, const fs::path &config,
                          const fs::path &socket, const fs::path &out, int link = -1) {
  std::vector<std::string> args{snanoded, "--config", config.string(), "--foreground"};
  if (link >= 0) args.insert(args.end(), {"--link-fd", std::to_string(link)});
  const pid_t daemon =
      spawn(args, link >= 0 ? std::vector<int>{link} : std::vector<int>{}, {}, out);
  for (int i = 0; i < 500; ++i) {
    if (daemon_answers(socket)) return daemon;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  die("snanoded did not come up (see " + out.string() + ")");
}

inline void stop_daemon(pid_t daemon) {
  ::kill(daemon, SIGTERM);
  ::waitpid(daemon, nullptr, 0);
}

// A node's configuration in `dir`: its socket and logs there, then `rest`.
inline fs::path write_config(const fs::path &dir, const std::string &rest) {
  fs::create_directories(dir / "logs");
  const fs::path config = dir / "snanode.toml";
  std::ofstream(config) << "[node]\nsocket_path = \"" << (dir / "snanode.sock").string()
                        << "\"\n\n[log]\ndir = \"" << (dir / "logs").string() << "\"\n"
                        << rest;
  return config;
}

}  // namespace bench
