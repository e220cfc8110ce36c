// Two processes conversing through the node daemon, against the same exchange
// over a raw Unix-domain socketpair between two processes, in one run.
//
//   two_process_bench [--long] [--reps N] [--seconds S] [--sizes 100,4096,32767]
//                     [--tests latency,throughput] [--paths raw,cpic] [--mode NAME]
//                     [--snanoded PATH] [--wrap-client CMD] [--wrap-server CMD]
//                     [--pin same|split] [--keep] [--verbose]
//                     [--nodes one|two|both] [--ru-sizes 1024,16384] [--pacing N]
//
// The program starts its own snanoded in a temporary directory (a
// configuration of its own with the daemon's socket and the logs there), then
// for each test and record size starts a client process and a server process.
// The two are joined twice: by a CPI-C mapped conversation the client
// allocates through the daemon, and by a raw AF_UNIX SOCK_STREAM socketpair
// this program made before starting them.  The socketpair also carries the
// client's orders to the server ("serve N turns on this path now"), outside
// the timed blocks.
//
//   latency:    ping-pong.  CPI-C: the client sends one record with
//               CM_SEND_AND_PREP_TO_RECEIVE and receives the server's echo,
//               sent back the same way.  Raw: write the record, the server
//               reads it fully and writes it back, the client reads it fully.
//   throughput: streaming.  CPI-C: N records with CM_BUFFER_DATA, then
//               Prepare_To_Receive; the server takes them all and answers
//               with a one-byte record.  Raw: N records written, the server
//               reads each fully and writes a one-byte ack at the end.
//
// Each repetition times one block on each path back to back (the order
// alternates), so the ratio of the two is taken under the same load.  The
// figures are medians over the repetitions with their spread; the ratio is
// CPI-C time / raw time for latency and CPI-C bytes/s / raw bytes/s for
// throughput.  Both processes also report their CPU time and context switches
// per turn (or per record), which a busy machine disturbs far less than the
// wall-clock time.
//
// Where the scheduler puts the two processes changes the figures more than
// anything else on a small machine: a wake-up across CPUs costs far more than
// one on the same CPU.  --pin same binds both processes (all their threads)
// to CPU 0, --pin split the server to CPU 0 and the client to CPU 1; without
// it the scheduler chooses, as it does for real programs.
//
// --nodes two (or both: one node first, then two) runs the same tests
// between two nodes: two daemons joined by a SOCK_SEQPACKET socketpair, the
// test link, the client a user of node A, the server of node B, so every
// CPI-C byte crosses both daemons and the link.  One pair of daemons for each
// of --ru-sizes (the mode's max_ru_size, both ways), with --pacing as the
// mode's pacing window.  Then a table puts each two-node figure against the
// one-node one.
//
// --wrap-client / --wrap-server run that side under a command (for example
// "strace -f -c -o client.txt" or "perf record -g -o server.data"), so a
// profile can be taken of one side alone.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_options.h"
#include "bench_processes.h"
#include "cpic.h"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

constexpr const char *kServerTp = "BENCHSRV";

// ---- what the processes tell each other ------------------------------------------

const char *path_name(Path path) {
  return path == Path::kRaw ? "raw" : "cpic";
}

// The client's order to the server, over the socketpair.
struct Order {
  uint32_t path;   // Path; kEnd: no more blocks
  uint32_t count;  // turns (latency) or records (throughput)
  int32_t rep;     // repetition, -1 for warm-up and calibration
  uint32_t pad = 0;
};
constexpr uint32_t kEnd = 0xFFFFFFFF;

// What either side sends this program after each block it took part in.
struct BlockReport {
  uint32_t side;  // 0 client, 1 server
  uint32_t path;
  int32_t rep;
  uint32_t count;
  double seconds;  // the client's wall-clock time of the block; 0 from the server
  double cpu_us;   // user + system time of the whole process
  double voluntary_switches;
  double involuntary_switches;
};

struct Usage {
  double cpu_us;
  double voluntary;
  double involuntary;
};

Usage usage_now() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  const auto us = [](const timeval &t) { return t.tv_sec * 1e6 + static_cast<double>(t.tv_usec); };
  return {us(u.ru_utime) + us(u.ru_stime), static_cast<double>(u.ru_nvcsw),
          static_cast<double>(u.ru_nivcsw)};
}

void send_report(int fd, uint32_t side, const Order &order, double seconds, const Usage &before) {
  const Usage after = usage_now();
  BlockReport report{side,
                     order.path,
                     order.rep,
                     order.count,
                     seconds,
                     after.cpu_us - before.cpu_us,
                     after.voluntary - before.voluntary,
                     after.involuntary - before.involuntary};
  if (!write_all(fd, &report, sizeof report)) die("cannot report a block");
}

// ---- the CPI-C side ---------------------------------------------------------------

struct Conversation {
  unsigned char id[8];
};

void check(const char *call, CM_RETURN_CODE rc) {
  if (rc != CM_OK) die(std::string(call) + " failed with return code " + std::to_string(rc));
}

void set_send_type(Conversation &conv, CM_SEND_TYPE type) {
  CM_RETURN_CODE rc;
  cmsst(conv.id, &type, &rc);
  check("CMSST", rc);
}

void send_record(Conversation &conv, uint8_t *data, long size) {
  CM_INT32 length = static_cast<CM_INT32>(size);
  CM_REQUEST_TO_SEND_RECEIVED rts;
  CM_RETURN_CODE rc;
  cmsend(conv.id, data, &length, &rts, &rc);
  check("CMSEND", rc);
}

// Receives until the partner turns the conversation over: the number of
// complete records, the last one's length in `last`; the failing return code
// when one comes (negated, so it cannot be taken for a count).
long receive_until_turn(Conversation &conv, uint8_t *buffer, long size, long &last) {
  long records = 0;
  for (;;) {
    CM_INT32 max = static_cast<CM_INT32>(size), length = 0;
    CM_DATA_RECEIVED_TYPE data;
    CM_STATUS_RECEIVED status;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    CM_RETURN_CODE rc;
    cmrcv(conv.id, buffer, &max, &data, &length, &status, &rts, &rc);
    if (rc != CM_OK) return -static_cast<long>(rc);
    if (data == CM_COMPLETE_DATA_RECEIVED) {
      ++records;
      last = length;
    }
    if (status == CM_SEND_RECEIVED) return records;
  }
}

void set_name(Conversation &conv, const char *what,
              void (*call)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *),
              const std::string &value) {
  CM_INT32 length = static_cast<CM_INT32>(value.size());
  CM_RETURN_CODE rc;
  call(conv.id, reinterpret_cast<unsigned char *>(const_cast<char *>(value.c_str())), &length, &rc);
  check(what, rc);
}

// Allocates the server's TP through the daemon and exchanges one byte each
// way.  The server process may not have registered its name yet when the
// first allocation reaches the daemon: that one is refused, so try again.
Conversation allocate(const std::string &mode) {
  for (int attempt = 0; attempt < 300; ++attempt) {
    Conversation conv;
    CM_RETURN_CODE rc;
    cminit(conv.id, reinterpret_cast<unsigned char *>(const_cast<char *>("        ")), &rc);
    check("CMINIT", rc);
    set_name(conv, "CMSPLN", cmspln, "LOCAL");
    set_name(conv, "CMSMN", cmsmn, mode);
    set_name(conv, "CMSTPN", cmstpn, kServerTp);
    cmallc(conv.id, &rc);
    if (rc == CM_OK) {
      set_send_type(conv, CM_SEND_AND_PREP_TO_RECEIVE);
      uint8_t byte = 1;
      CM_INT32 length = 1;
      CM_REQUEST_TO_SEND_RECEIVED rts;
      cmsend(conv.id, &byte, &length, &rts, &rc);
      long last = 0;
      if (rc == CM_OK && receive_until_turn(conv, &byte, 1, last) == 1) return conv;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  die("the server's TP could not be allocated through the daemon");
}

// ---- the client -----------------------------------------------------------------

struct ClientSetup {
  Test test;
  long size;
  int reps;
  double seconds;  // wall-clock time one block aims at
  bool raw, cpic;
  std::string mode;
  int socket_fd;  // the socketpair's client end
  int report_fd;
};

class Client {
 public:
  explicit Client(const ClientSetup &setup)
      : s_(setup), data_(static_cast<size_t>(kMaxRecord), 'c'), echo_(data_.size()) {}

  void run() {
    if (s_.cpic) conv_ = allocate(s_.mode);
    // Calibration: a short block on each path gives the count for the
    // target time; a second one finds steady state first (caches, pages).
    std::map<Path, uint32_t> counts;
    for (Path path : paths()) {
      uint32_t count = s_.test == Test::kLatency ? 200 : calibration_records();
      double took = 0;
      for (int round = 0; round < 2; ++round) {
        const Order o{static_cast<uint32_t>(path), count, -1};
        const Usage before = usage_now();
        took = block(o);
        send_report(s_.report_fd, 0, o, took, before);
        if (round == 0 && took < 0.02) count *= 4;
      }
      const double per_op = took / count;
      counts[path] = static_cast<uint32_t>(std::clamp(s_.seconds / per_op, 50.0, 5e6));
    }
    for (int rep = 0; rep < s_.reps; ++rep) {
      auto order = paths();
      if (rep % 2 == 1) std::reverse(order.begin(), order.end());
      for (Path path : order) {
        const Order o{static_cast<uint32_t>(path), counts[path], rep};
        const Usage before = usage_now();
        const double took = block(o);
        send_report(s_.report_fd, 0, o, took, before);
      }
    }
    const Order end{kEnd, 0, -1};
    if (!write_all(s_.socket_fd, &end, sizeof end)) die("the server is gone");
    if (s_.cpic) {
      CM_RETURN_CODE rc;
      CM_DEALLOCATE_TYPE flush = CM_DEALLOCATE_FLUSH;
      cmsdt(conv_.id, &flush, &rc);
      cmdeal(conv_.id, &rc);
      check("CMDEAL", rc);
    }
  }

 private:
  std::vector<Path> paths() const {
    std::vector<Path> out;
    if (s_.raw) out.push_back(Path::kRaw);
    if (s_.cpic) out.push_back(Path::kCpic);
    return out;
  }

  uint32_t calibration_records() const {
    return static_cast<uint32_t>(std::max<long>(64, (4L << 20) / s_.size));
  }

  // Orders the server and times one block; wall-clock seconds.
  double block(const Order &order) {
    if (!write_all(s_.socket_fd, &order, sizeof order)) die("the server is gone");
    const auto start = Clock::now();
    const bool raw = static_cast<Path>(order.path) == Path::kRaw;
    if (s_.test == Test::kLatency) {
      raw ? raw_ping(order.count) : cpic_ping(order.count);
    } else {
      raw ? raw_stream(order.count) : cpic_stream(order.count);
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
  }

  void raw_ping(uint32_t count) {
    const auto size = static_cast<size_t>(s_.size);
    for (uint32_t i = 0; i < count; ++i) {
      data_[0] = static_cast<uint8_t>(i);
      if (!write_all(s_.socket_fd, data_.data(), size) ||
          !read_all(s_.socket_fd, echo_.data(), size)) {
        die("raw ping-pong: the server is gone");
      }
      if (echo_[0] != data_[0]) die("raw ping-pong: the echo is not the record sent");
    }
  }

  void raw_stream(uint32_t count) {
    const auto size = static_cast<size_t>(s_.size);
    for (uint32_t i = 0; i < count; ++i) {
      if (!write_all(s_.socket_fd, data_.data(), size)) die("raw stream: the server is gone");
    }
    uint8_t ack = 0;
    if (!read_all(s_.socket_fd, &ack, 1) || ack != 'A') die("raw stream: no ack");
  }

  void cpic_ping(uint32_t count) {
    set_send_type(conv_, CM_SEND_AND_PREP_TO_RECEIVE);
    for (uint32_t i = 0; i < count; ++i) {
      data_[0] = static_cast<uint8_t>(i);
      send_record(conv_, data_.data(), s_.size);
      long last = 0;
      const long records = receive_until_turn(conv_, echo_.data(), s_.size, last);
      if (records != 1 || last != s_.size || echo_[0] != data_[0]) {
        die("CPI-C ping-pong: the echo is not the record sent (" + std::to_string(records) + ")");
      }
    }
  }

  void cpic_stream(uint32_t count) {
    set_send_type(conv_, CM_BUFFER_DATA);
    for (uint32_t i = 0; i < count; ++i) send_record(conv_, data_.data(), s_.size);
    CM_RETURN_CODE rc;
    cmptr(conv_.id, &rc);
    check("CMPTR", rc);
    long last = 0;
    if (receive_until_turn(conv_, echo_.data(), 1, last) != 1 || echo_[0] != 'A') {
      die("CPI-C stream: no one-byte answer");
    }
  }

  ClientSetup s_;
  std::vector<uint8_t> data_, echo_;
  Conversation conv_{};
};

// ---- the server -----------------------------------------------------------------

int serve(Test test, long size, bool cpic, int socket_fd, int report_fd) {
  Conversation conv{};
  std::vector<uint8_t> buffer(static_cast<size_t>(kMaxRecord));
  if (cpic) {
    // Serve the TP name, accept the client's conversation and answer its
    // one-byte greeting.  A first allocation the daemon refused because the
    // name was not registered yet never reaches this process.
    CM_INT32 length = static_cast<CM_INT32>(std::strlen(kServerTp));
    CM_RETURN_CODE rc;
    cmsltp(reinterpret_cast<unsigned char *>(const_cast<char *>(kServerTp)), &length, &rc);
    check("CMSLTP", rc);
    cmaccp(conv.id, &rc);
    check("CMACCP", rc);
    long last = 0;
    if (receive_until_turn(conv, buffer.data(), 1, last) != 1) die("server: no greeting");
    set_send_type(conv, CM_SEND_AND_PREP_TO_RECEIVE);
    send_record(conv, buffer.data(), 1);
  }
  for (;;) {
    Order order{};
    if (!read_all(socket_fd, &order, sizeof order)) die("server: the client is gone");
    if (order.path == kEnd) break;
    const Usage before = usage_now();
    const auto path = static_cast<Path>(order.path);
    const auto bytes = static_cast<size_t>(size);
    if (test == Test::kLatency && path == Path::kRaw) {
      for (uint32_t i = 0; i < order.count; ++i) {
        if (!read_all(socket_fd, buffer.data(), bytes) ||
            !write_all(socket_fd, buffer.data(), bytes)) {
          die("server: raw ping-pong broke");
        }
      }
    } else if (test == Test::kThroughput && path == Path::kRaw) {
      for (uint32_t i = 0; i < order.count; ++i) {
        if (!read_all(socket_fd, buffer.data(), bytes)) die("server: raw stream broke");
      }
      const uint8_t ack = 'A';
      if (!write_all(socket_fd, &ack, 1)) die("server: raw stream broke");
    } else if (test == Test::kLatency) {
      set_send_type(conv, CM_SEND_AND_PREP_TO_RECEIVE);
      for (uint32_t i = 0; i < order.count; ++i) {
        long last = 0;
        if (receive_until_turn(conv, buffer.data(), size, last) != 1 || last != size) {
          die("server: CPI-C ping-pong broke");
        }
        send_record(conv, buffer.data(), size);
      }
    } else {
      long last = 0;
      const long records = receive_until_turn(conv, buffer.data(), size, last);
      if (records != static_cast<long>(order.count) || last != size) {
        die("server: CPI-C stream got " + std::to_string(records) + " records of " +
            std::to_string(order.count));
      }
      set_send_type(conv, CM_SEND_AND_PREP_TO_RECEIVE);
      buffer[0] = 'A';
      send_record(conv, buffer.data(), 1);
    }
    send_report(report_fd, 1, order, 0, before);
  }
  if (cpic) {
    // The client deallocates after its last order.
    long last = 0;
    const long rc = receive_until_turn(conv, buffer.data(), size, last);
    if (rc != -CM_DEALLOCATED_NORMAL) die("server: the conversation did not end normally");
  }
  return 0;
}

// ---- this program: the daemon, the processes, the figures ------------------------

// One figure over the repetitions: its median and its extremes.
struct Spread {
  double median = 0, low = 0, high = 0;
};
Spread spread(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  const double median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  return {median, values.front(), values.back()};
}

std::string show(const Spread &s, int decimals) {
  char text[96];
  std::snprintf(text, sizeof text, "%.*f [%.*f-%.*f]", decimals, s.median, decimals, s.low,
                decimals, s.high);
  return text;
}

struct PairResult {
  std::string placement;  // "local", or the two nodes and their RU size
  Test test;
  long size;
  std::vector<BlockReport> reports;
  double daemon_cpu_us = 0;  // of the daemons, over the whole pair's run
};

// Runs one test at one size: a client and a server process, their reports.
// The client is a user of the node of `client_config`, the server of
// `server_config`: the same daemon, or two joined by a link.
PairResult run_pair(const Options &o, const fs::path &dir, const fs::path &client_config,
                    const fs::path &server_config, const std::string &placement,
                    const std::vector<pid_t> &daemons, Test test, long size) {
  auto daemons_cpu_us = [&] {
    double sum = 0;
    for (pid_t daemon : daemons) sum += process_cpu_seconds(daemon) * 1e6;
    return sum;
  };
  const double daemon_cpu_before = daemons_cpu_us();
  int link[2], client_report[2], server_report[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link) != 0 ||
      ::pipe2(client_report, O_CLOEXEC) != 0 || ::pipe2(server_report, O_CLOEXEC) != 0) {
    die("cannot make the socketpair and pipes");
  }
  auto env = [](const fs::path &config) {
    return std::vector<std::pair<std::string, std::string>>{{"SNANODE_CONFIG", config.string()},
                                                            {"SNANODE_DAEMON", "required"}};
  };
  const std::string self = self_path();
  const std::string test_name = test == Test::kLatency ? "latency" : "throughput";
  auto command = [](const std::string &wrap, std::vector<std::string> args) {
    auto out = split(wrap, ' ');
    out.insert(out.end(), args.begin(), args.end());
    return out;
  };
  const pid_t server = spawn(
      command(o.wrap_server,
              {self, "--run-server", test_name, std::to_string(size), o.cpic ? "1" : "0",
               std::to_string(link[1]), std::to_string(server_report[1])}),
      {link[1], server_report[1]}, env(server_config), dir / "server.out", o.pin.empty() ? -1 : 0);
  const pid_t client =
      spawn(command(o.wrap_client,
                    {self, "--run-client", test_name, std::to_string(size), std::to_string(o.reps),
                     std::to_string(o.seconds), o.raw ? "1" : "0", o.cpic ? "1" : "0", o.mode,
                     std::to_string(link[0]), std::to_string(client_report[1])}),
            {link[0], client_report[1]}, env(client_config), dir / "client.out",
            o.pin.empty()     ? -1
            : o.pin == "same" ? 0
                              : 1);
  if (o.verbose) {
    std::printf("%s, %s %ld B: client pid %d, server pid %d\n", placement.c_str(),
                test_name.c_str(), size, client, server);
  }
  ::close(link[0]);
  ::close(link[1]);
  ::close(client_report[1]);
  ::close(server_report[1]);
  PairResult result{placement, test, size, {}};
  for (int fd : {client_report[0], server_report[0]}) {
    BlockReport report;
    while (read_all(fd, &report, sizeof report)) result.reports.push_back(report);
    ::close(fd);
  }
  int failed = 0;
  for (pid_t pid : {client, server}) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
  }
  if (failed != 0) {
    std::ifstream client_out(dir / "client.out"), server_out(dir / "server.out");
    std::fprintf(stderr, "client:\n%s\nserver:\n%s\n",
                 std::string(std::istreambuf_iterator<char>(client_out), {}).c_str(),
                 std::string(std::istreambuf_iterator<char>(server_out), {}).c_str());
    die(test_name + " at " + std::to_string(size) + " B: a process failed (kept " + dir.string() +
        ")");
  }
  result.daemon_cpu_us = daemons_cpu_us() - daemon_cpu_before;
  return result;
}

// The reports of one side and path, in repetition order.
std::vector<BlockReport> of(const PairResult &r, uint32_t side, Path path) {
  std::vector<BlockReport> out;
  for (const auto &report : r.reports) {
    if (report.side == side && report.path == static_cast<uint32_t>(path) && report.rep >= 0) {
      out.push_back(report);
    }
  }
  std::sort(out.begin(), out.end(),
            [](const BlockReport &a, const BlockReport &b) { return a.rep < b.rep; });
  return out;
}

// Latency in microseconds per turn; throughput in MB/s.
double figure(const PairResult &r, const BlockReport &b) {
  return r.test == Test::kLatency
             ? b.seconds * 1e6 / b.count
             : static_cast<double>(b.count) * static_cast<double>(r.size) / b.seconds / 1e6;
}

std::vector<double> figures(const PairResult &r, Path path) {
  std::vector<double> out;
  for (const auto &b : of(r, 0, path)) out.push_back(figure(r, b));
  return out;
}

// The results of one placement.
void print_results(const Options &o, const std::vector<PairResult> &all,
                   const std::string &placement) {
  std::vector<PairResult> results;
  for (const auto &r : all) {
    if (r.placement == placement) results.push_back(r);
  }
  if (results.empty()) return;
  std::printf("\n==== %s\n", placement.c_str());
  for (Test test : {Test::kLatency, Test::kThroughput}) {
    bool header = false;
    for (const auto &r : results) {
      if (r.test != test) continue;
      const bool latency = test == Test::kLatency;
      if (!header) {
        std::printf("\n%s\n", latency ? "Latency: ping-pong, one record each way, us per turn"
                                      : "Throughput: streaming, MB/s (10^6 bytes)");
        std::printf("%-7s %-26s %-26s %-22s %s\n", "size", "raw", "cpic", "ratio cpic/raw",
                    latency ? "(target <= 1.25)" : "(target >= 0.8 at 32 KB)");
        header = true;
      }
      const auto raw_figures = figures(r, Path::kRaw), cpic_figures = figures(r, Path::kCpic);
      std::vector<double> ratios;
      for (size_t i = 0; i < raw_figures.size() && i < cpic_figures.size(); ++i) {
        ratios.push_back(cpic_figures[i] / raw_figures[i]);
      }
      std::printf("%-7ld %-26s %-26s %-22s\n", r.size, show(spread(raw_figures), 1).c_str(),
                  show(spread(cpic_figures), 1).c_str(),
                  ratios.empty() ? "-" : show(spread(ratios), 2).c_str());
    }
  }

  std::printf(
      "\nPer %s, medians: CPU time (us, whole process) and context switches "
      "(voluntary+involuntary)\n",
      "turn (latency) or record (throughput)");
  std::printf("%-11s %-7s %-5s %10s %10s %12s %12s %12s\n", "test", "size", "path", "client cpu",
              "server cpu", "client csw", "server csw", "daemons cpu");
  for (const auto &r : results) {
    for (Path path : {Path::kRaw, Path::kCpic}) {
      if ((path == Path::kRaw && !o.raw) || (path == Path::kCpic && !o.cpic)) continue;
      double cpu[2], csw[2];
      for (uint32_t side = 0; side < 2; ++side) {
        std::vector<double> cpus, switches;
        for (const auto &b : of(r, side, path)) {
          cpus.push_back(b.cpu_us / b.count);
          switches.push_back((b.voluntary_switches + b.involuntary_switches) / b.count);
        }
        cpu[side] = spread(cpus).median;
        csw[side] = spread(switches).median;
      }
      // The daemons work for the CPI-C path alone: their CPU time over every
      // CPI-C turn or record of the client, calibration included.
      double cpic_ops = 0;
      for (const auto &b : r.reports) {
        if (b.side == 0 && b.path == static_cast<uint32_t>(Path::kCpic)) cpic_ops += b.count;
      }
      char daemons[32] = "-";
      if (path == Path::kCpic && cpic_ops > 0) {
        std::snprintf(daemons, sizeof daemons, "%.2f", r.daemon_cpu_us / cpic_ops);
      }
      std::printf("%-11s %-7ld %-5s %10.2f %10.2f %12.3f %12.3f %12s\n",
                  r.test == Test::kLatency ? "latency" : "throughput", r.size, path_name(path),
                  cpu[0], cpu[1], csw[0], csw[1], daemons);
    }
  }
  if (o.verbose) {
    // The totals (calibration included) turn a profiler's counts for a whole
    // process into counts per turn or record.
    std::printf("\nBlocks of the client (rep -1: calibration): test size path rep count seconds\n");
    for (const auto &r : results) {
      std::map<uint32_t, uint64_t> totals;
      for (const auto &b : r.reports) {
        if (b.side != 0) continue;
        totals[b.path] += b.count;
        std::printf("%s %ld %s %d %u %.4f\n", r.test == Test::kLatency ? "latency" : "throughput",
                    r.size, path_name(static_cast<Path>(b.path)), b.rep, b.count, b.seconds);
      }
      for (const auto &[path, total] : totals) {
        std::printf("%s %ld %s: %llu in all\n", r.test == Test::kLatency ? "latency" : "throughput",
                    r.size, path_name(static_cast<Path>(path)),
                    static_cast<unsigned long long>(total));
      }
    }
  }
}

// Each two-node figure of the CPI-C path against the same test on one node:
// time / time for latency (above 1: two nodes slower), bytes/s / bytes/s for
// throughput (below 1: two nodes slower).  The placements ran one after the
// other, not interleaved, so the second ratio divides out the load: the
// two-node cpic/raw ratio over the local one.
void print_two_node_ratios(const std::vector<PairResult> &results) {
  bool header = false;
  for (const auto &two : results) {
    if (two.placement == "local") continue;
    const auto local = std::find_if(results.begin(), results.end(), [&](const PairResult &r) {
      return r.placement == "local" && r.test == two.test && r.size == two.size;
    });
    if (local == results.end()) continue;
    if (!header) {
      std::printf("\n==== two nodes / local, CPI-C medians (latency: time, throughput: MB/s)\n");
      std::printf("%-24s %-11s %-7s %10s %10s %10s %12s\n", "placement", "test", "size", "local",
                  "two nodes", "ratio", "ratio vs raw");
      header = true;
    }
    auto over_raw = [](const PairResult &r) {
      const auto raw = figures(r, Path::kRaw), cpic = figures(r, Path::kCpic);
      std::vector<double> ratios;
      for (size_t i = 0; i < raw.size() && i < cpic.size(); ++i) ratios.push_back(cpic[i] / raw[i]);
      return spread(ratios).median;
    };
    const double at_local = spread(figures(*local, Path::kCpic)).median;
    const double at_two = spread(figures(two, Path::kCpic)).median;
    std::printf("%-24s %-11s %-7ld %10.1f %10.1f %10.2f %12.2f\n", two.placement.c_str(),
                two.test == Test::kLatency ? "latency" : "throughput", two.size, at_local, at_two,
                at_two / at_local, over_raw(two) / over_raw(*local));
  }
}

// Two daemons joined by a link of whole units: node A (the client's, its LU
// LUA) reaches the LU LOCAL of node B (the server's), so the client's
// allocation of partner LOCAL crosses the link.  Runs every test there.
void run_two_nodes(const Options &o, const fs::path &dir, long ru_size,
                   std::vector<PairResult> &results) {
  const std::string mode = "[[mode]]\nname = \"" + o.mode +
                           "\"\nmax_ru_size = " + std::to_string(ru_size) +
                           "\npacing_window = " + std::to_string(o.pacing_window) + "\n";
  const fs::path a = write_config(
      dir / "a", mode +
                     "[network]\nenabled = true\ncp_name = \"APPN.NODEA\"\n[[local_lu]]\n"
                     "alias = \"LUA\"\n[[partner_lu]]\nalias = \"LOCAL\"\nlu_name = "
                     "\"APPN.LOCAL\"\nowning_cp = \"APPN.NODEB\"\n");
  const fs::path b = write_config(
      dir / "b", mode +
                     "[network]\nenabled = true\ncp_name = \"APPN.NODEB\"\n[[partner_lu]]\n"
                     "alias = \"LUA\"\nlu_name = \"APPN.LUA\"\nowning_cp = \"APPN.NODEA\"\n"
                     "trust_already_verified = true\n");
  int link[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, link) != 0) die("no link socketpair");
  const pid_t daemon_a =
      start_daemon(o.snanoded, a, dir / "a" / "snanode.sock", dir / "a" / "daemon.out", link[0]);
  const pid_t daemon_b =
      start_daemon(o.snanoded, b, dir / "b" / "snanode.sock", dir / "b" / "daemon.out", link[1]);
  ::close(link[0]);
  ::close(link[1]);
  const std::string placement = "two nodes, RU " + std::to_string(ru_size);
  for (Test test : o.tests) {
    for (long size : o.sizes)
      results.push_back(run_pair(o, dir, a, b, placement, {daemon_a, daemon_b}, test, size));
  }
  stop_daemon(daemon_a);
  stop_daemon(daemon_b);
}

int orchestrate(const Options &o) {
  for (const char *name : {"SNANODE_LOG_DIR", "SNANODE_SOCKET", "SNANODE_TRACE",
                           "SNANODE_TRACE_FILE", "SNANODE_TRACE_FLAGS", "SNANODE_CAPTURE"}) {
    ::unsetenv(name);
  }
  char pattern[] = "/tmp/cpic-two-process-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) die("cannot make a temporary directory");
  const fs::path dir = pattern;

  std::printf("two_process_bench: %d repetitions of %.2f s blocks per path, mode %s%s\n", o.reps,
              o.seconds, o.mode.c_str(),
              o.pin.empty()     ? ""
              : o.pin == "same" ? ", both processes on CPU 0"
                                : ", client on CPU 1, server on CPU 0");
  if (o.two_nodes) std::printf("two nodes: pacing window %ld\n", o.pacing_window);
  std::printf("load average before: %s\n", load_average().c_str());
  std::fflush(stdout);
  std::vector<PairResult> results;
  if (o.one_node) {
    const fs::path config = write_config(dir, "");
    const pid_t daemon = start_daemon(o.snanoded, config, dir / "snanode.sock", dir / "daemon.out");
    for (Test test : o.tests) {
      for (long size : o.sizes) {
        results.push_back(run_pair(o, dir, config, config, "local", {daemon}, test, size));
      }
    }
    stop_daemon(daemon);
  }
  if (o.two_nodes) {
    for (long ru_size : o.ru_sizes) {
      run_two_nodes(o, dir / ("ru" + std::to_string(ru_size)), ru_size, results);
    }
  }
  std::printf("load average after:  %s\n", load_average().c_str());
  std::vector<std::string> placements;
  for (const auto &r : results) {
    if (std::find(placements.begin(), placements.end(), r.placement) == placements.end()) {
      placements.push_back(r.placement);
    }
  }
  for (const auto &placement : placements) print_results(o, results, placement);
  print_two_node_ratios(results);

  if (o.keep) {
    std::printf("\nkept %s\n", dir.string().c_str());
  } else {
    fs::remove_all(dir);
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  // The two roles this program starts itself in.
  if (argc == 11 && std::strcmp(argv[1], "--run-client") == 0) {
    ClientSetup setup;
    setup.test = std::strcmp(argv[2], "latency") == 0 ? Test::kLatency : Test::kThroughput;
    setup.size = std::atol(argv[3]);
    setup.reps = std::atoi(argv[4]);
    setup.seconds = std::atof(argv[5]);
    setup.raw = argv[6][0] == '1';
    setup.cpic = argv[7][0] == '1';
    setup.mode = argv[8];
    setup.socket_fd = std::atoi(argv[9]);
    setup.report_fd = std::atoi(argv[10]);
    Client(setup).run();
    return 0;
  }
  if (argc == 7 && std::strcmp(argv[1], "--run-server") == 0) {
    return serve(std::strcmp(argv[2], "latency") == 0 ? Test::kLatency : Test::kThroughput,
                 std::atol(argv[3]), argv[4][0] == '1', std::atoi(argv[5]), std::atoi(argv[6]));
  }
  return orchestrate(parse(argc, argv));
}
