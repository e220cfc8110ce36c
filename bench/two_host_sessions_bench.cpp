// CPU per datagram in each node daemon as the number of active sessions
// grows.  Two daemons on 127.0.0.2 and 127.0.0.3 joined by an Enterprise
// Extender link; for each count N, N conversations at once between TPs on the
// two nodes, each on a session of its own.  Client processes on node A each
// hold a share of the conversations and exchange in rounds: a record sent on
// every conversation with the turn, then the echo received on every one; the
// server processes on node B accept their share and echo in the same way.
//
// Once every conversation is open and has done a round, the bench takes each
// daemon's CPU time and its endpoint's datagram counters (`snanodectl
// session list --json`), lets the rounds run for a while, and takes them
// again.  Each N gets fresh daemons, so the sessions bound are the N in use.
// The table: exchanges (a record and its echo) per second; datagrams per
// second on the link, both ways (node A's sent and received); each daemon's
// CPU time per datagram it sent or received, and its ratio to the first N;
// each daemon's CPU time per exchange (as N grows, more units share a
// datagram, so the two figures part).
//
//   two_host_sessions_bench [--sessions 1,10,100,1000] [--seconds S]
//       [--per-process K] [--record BYTES] [--port-base P] [--snanoded PATH] [--keep]
//   defaults: 1,10,100,1000; 3 s; 250 conversations a process; 100; 12400
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>

#include "bench_options.h"
#include "bench_processes.h"
#include "cpic_turn.h"
#include "cpic.h"

namespace {

using bench::die;
using Clock = std::chrono::steady_clock;
constexpr const char *kAddress[2] = {"127.0.0.2", "127.0.0.3"};
constexpr const char *kTp = "SESSBNCH";
constexpr const char *kMode = "#BENCH";

struct Options {
  std::vector<int> sessions{1, 10, 100, 1000};
  double seconds = 3;
  int per_process = 250;
  long record = 100;
  int port_base = 12400;
  std::string snanoded = SNANODED_PATH;
  bool keep = false;
};

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: two_host_sessions_bench [--sessions 1,10,100,1000] [--seconds S]\n"
               "         [--per-process K] [--record BYTES] [--port-base P]\n"
               "         [--snanoded PATH] [--keep]\n");
  std::exit(2);
}

Options parse(int argc, char **argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--keep") {
      o.keep = true;
      continue;
    }
    if (i + 1 >= argc) usage();
    const std::string value = argv[++i];
    if (arg == "--sessions") {
      o.sessions.clear();
      for (const auto &n : bench::split(value, ',')) o.sessions.push_back(std::atoi(n.c_str()));
    } else if (arg == "--seconds") {
      o.seconds = std::atof(value.c_str());
    } else if (arg == "--per-process") {
      o.per_process = std::atoi(value.c_str());
    } else if (arg == "--record") {
      o.record = std::atol(value.c_str());
    } else if (arg == "--port-base") {
      o.port_base = std::atoi(value.c_str());
    } else if (arg == "--snanoded") {
      o.snanoded = value;
    } else {
      usage();
    }
  }
  const bool counts_ok = !o.sessions.empty() && std::all_of(o.sessions.begin(), o.sessions.end(),
                                                            [](int n) { return n >= 1; });
  if (!counts_ok || o.seconds <= 0 || o.per_process < 1 || o.record < 1 ||
      o.record > bench::kMaxRecord || o.port_base < 1024 || o.port_base > 65000) {
    usage();
  }
  return o;
}

// What the bench and its TP processes share (an anonymous shared mapping).
struct Shared {
  std::atomic<uint64_t> exchanges{0};   // records echoed back to a client
  std::atomic<int> clients_running{0};  // clients past their first round
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
};

// ---- the TPs ---------------------------------------------------------------------

struct Conv {
  unsigned char id[8] = {};
  bool open = true;
};

void check(const char *call, CM_RETURN_CODE rc, Shared &shared) {
  if (rc == CM_OK) return;
  shared.failures.fetch_add(1);
  std::fprintf(stderr, "two_host_sessions_bench: %s returned %d\n", call, static_cast<int>(rc));
  std::exit(1);
}

void set_name(unsigned char *id,
              void (*call)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *),
              const char *value, Shared &shared) {
  CM_INT32 length = static_cast<CM_INT32>(std::strlen(value));
  CM_RETURN_CODE rc;
  call(id, reinterpret_cast<unsigned char *>(const_cast<char *>(value)), &length, &rc);
  check("CMSPLN/CMSMN/CMSTPN/CMSLTP", rc, shared);
}

void send_turn(Conv &c, std::vector<unsigned char> &data, long size, Shared &shared) {
  CM_SEND_TYPE type = CM_SEND_AND_PREP_TO_RECEIVE;
  CM_RETURN_CODE rc;
  cmsst(c.id, &type, &rc);
  check("CMSST", rc, shared);
  CM_INT32 length = static_cast<CM_INT32>(size);
  CM_REQUEST_TO_SEND_RECEIVED rts;
  cmsend(c.id, data.data(), &length, &rts, &rc);
  check("CMSEND", rc, shared);
}

// The length of the turn's last record, or the return code that ended the
// conversation, negated.
long receive_turn(Conv &c, std::vector<unsigned char> &buffer) {
  long last = 0;
  const long records = bench::receive_turn(c.id, buffer, last);
  return records < 0 ? records : last;
}

// Node B: accepts `count` conversations, then echoes each one's record, in
// rounds, until the clients deallocate them all.
void serve(int count, int ready_fd, Shared &shared) {
  CM_RETURN_CODE rc;
  unsigned char unused[8] = {};
  set_name(
      unused,
      [](unsigned char *, unsigned char *name, CM_INT32 *length, CM_RETURN_CODE *rc) {
        cmsltp(name, length, rc);
      },
      kTp, shared);
  (void)!::write(ready_fd, "+", 1);
  std::vector<Conv> convs(static_cast<size_t>(count));
  for (Conv &c : convs) {
    cmaccp(c.id, &rc);
    check("CMACCP", rc, shared);
  }
  std::vector<unsigned char> buffer(bench::kMaxRecord);
  for (int open = count; open > 0;) {
    for (Conv &c : convs) {
      if (!c.open) continue;
      const long got = receive_turn(c, buffer);
      if (got < 0) {
        if (got != -CM_DEALLOCATED_NORMAL)
          check("CMRCV", static_cast<CM_RETURN_CODE>(-got), shared);
        c.open = false;
        --open;
        continue;
      }
      send_turn(c, buffer, got, shared);
    }
  }
}

// Node A: allocates `count` conversations and exchanges in rounds until told
// to stop, then deallocates them.
void exchange(int count, long record, Shared &shared) {
  std::vector<Conv> convs(static_cast<size_t>(count));
  CM_RETURN_CODE rc;
  for (Conv &c : convs) {
    cminit(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>("        ")), &rc);
    check("CMINIT", rc, shared);
    set_name(c.id, cmspln, "LUB", shared);
    set_name(c.id, cmsmn, kMode, shared);
    set_name(c.id, cmstpn, kTp, shared);
    cmallc(c.id, &rc);
    check("CMALLC", rc, shared);
  }
  std::vector<unsigned char> data(static_cast<size_t>(record), 'r'), buffer(bench::kMaxRecord);
  for (bool first = true; !shared.stop.load(); first = false) {
    for (Conv &c : convs) send_turn(c, data, record, shared);
    for (Conv &c : convs) {
      if (receive_turn(c, buffer) != record) check("the echo", CM_PRODUCT_SPECIFIC_ERROR, shared);
    }
    shared.exchanges.fetch_add(static_cast<uint64_t>(count));
    if (first) shared.clients_running.fetch_add(1);
  }
  for (Conv &c : convs) {
    cmdeal(c.id, &rc);
    check("CMDEAL", rc, shared);
  }
}

// ---- the daemons -----------------------------------------------------------------

std::string node_config(int host, int port_base, int sessions) {
  const char *self = host == 0 ? "A" : "B";
  const char *partner = host == 0 ? "B" : "A";
  std::ostringstream text;
  text << "[network]\nenabled = true\ncp_name = \"APPN.CP" << self << "\"\nlocal_address = \""
       << kAddress[host] << "\"\nport_base = " << port_base << "\n[[link]]\npartner = \""
       << kAddress[1 - host] << "\"\ncp_name = \"APPN.CP" << partner
       << "\"\n[[local_lu]]\nalias = \"LU" << self << "\"\nlu_name = \"APPN.LU" << self
       << "\"\n[[partner_lu]]\nalias = \"LU" << partner << "\"\nlu_name = \"APPN.LU" << partner
       << "\"\nowning_cp = \"APPN.CP" << partner
       << "\"\ntrust_already_verified = true\n"
       // Each side wins half the sessions: twice the count leaves A all it needs.
       << "[[mode]]\nname = \"" << kMode << "\"\nsession_limit = " << 2 * sessions + 2 << "\n";
  return text.str();
}

// The CPU time a process used so far, in seconds: the scheduler's nanosecond
// counts of all its threads where the kernel keeps them, else clock ticks.
double cpu_seconds(pid_t pid) {
  std::error_code error;
  unsigned long long total = 0;
  bool counted = false;
  for (const auto &task :
       bench::fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::ifstream in(task.path() / "schedstat");
    unsigned long long ns = 0;
    if (in >> ns) total += ns, counted = true;
  }
  return counted ? static_cast<double>(total) / 1e9 : bench::process_cpu_seconds(pid);
}

std::string run_command(const std::string &command) {
  FILE *pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) die("popen failed");
  std::string out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

// A number field of snanodectl's JSON answer (the first of that name).
uint64_t json_number(const std::string &json, const std::string &name) {
  const size_t at = json.find("\"" + name + "\":");
  if (at == std::string::npos) die("snanodectl's answer has no " + name + ": " + json);
  return std::strtoull(json.c_str() + at + name.size() + 3, nullptr, 10);
}

struct Node {
  bench::fs::path dir;
  pid_t pid = -1;
  std::string status() const {
    return run_command(std::string(SNANODECTL_PATH) + " --socket " +
                       (dir / "snanode.sock").string() + " --json session list 2>&1");
  }
};

struct Sample {
  double cpu = 0;
  uint64_t datagrams = 0;
};

Sample sample(const Node &node, bool status_first) {
  // The status query's own work stays outside the CPU interval: before it
  // when starting, after it when ending.
  Sample s;
  if (!status_first) s.cpu = cpu_seconds(node.pid);
  const std::string json = node.status();
  s.datagrams = json_number(json, "datagrams_sent") + json_number(json, "datagrams_received");
  if (status_first) s.cpu = cpu_seconds(node.pid);
  return s;
}

struct Result {
  int sessions = 0;
  uint64_t bound = 0;  // sessions node A had bound when measured
  double exchanges_per_s = 0, datagrams_per_s = 0;
  double us_per_datagram[2] = {};
  double us_per_exchange[2] = {};  // datagrams carry more units each as N grows
};

template <typename Body>
pid_t fork_tp(const bench::fs::path &config, Body body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) die("fork failed");
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setenv("SNANODE_DAEMON", "required", 1);
  ::setenv("SNANODE_CONFIG", config.c_str(), 1);
  body();
  std::exit(0);
}

Result measure(const Options &o, int n, const bench::fs::path &dir, Shared &shared) {
  Node nodes[2];
  bench::fs::path configs[2];
  for (int host = 0; host < 2; ++host) {
    nodes[host].dir = dir / (host == 0 ? "a" : "b");
    configs[host] = bench::write_config(nodes[host].dir, node_config(host, o.port_base, n));
    nodes[host].pid = bench::start_daemon(
        o.snanoded, configs[host], nodes[host].dir / "snanode.sock", nodes[host].dir / "out");
  }
  for (int i = 0;; ++i) {
    std::ifstream log(nodes[0].dir / "logs" / "snanoded.log");
    const std::string text((std::istreambuf_iterator<char>(log)), {});
    if (text.find(" is up") != std::string::npos) break;
    if (i == 1000) die("the link did not come up (see " + nodes[0].dir.string() + ")");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  shared.exchanges = 0;
  shared.clients_running = 0;
  shared.stop = false;
  std::vector<int> shares;
  for (int left = n; left > 0; left -= o.per_process)
    shares.push_back(std::min(left, o.per_process));
  std::vector<pid_t> tps;
  int ready[2];
  if (::pipe(ready) != 0) die("pipe");
  for (int count : shares) {
    tps.push_back(fork_tp(configs[1], [&] { serve(count, ready[1], shared); }));
  }
  for (size_t seen = 0; seen < shares.size(); ++seen) {
    char byte;
    if (::read(ready[0], &byte, 1) != 1) die("a server TP did not start");
  }
  ::close(ready[0]);
  ::close(ready[1]);
  for (int count : shares) {
    tps.push_back(fork_tp(configs[0], [&] { exchange(count, o.record, shared); }));
  }
  const auto setup_limit = Clock::now() + std::chrono::seconds(120);
  while (shared.clients_running.load() < static_cast<int>(shares.size())) {
    if (shared.failures.load() != 0) die("a TP failed while starting");
    if (Clock::now() > setup_limit) die("the conversations did not all open in 120 s");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // past the first round's stragglers

  // For a profiler to attach to while the rounds run.
  std::fprintf(stderr, "%d sessions: daemons A %d, B %d, measuring for %.1f s\n", n,
               static_cast<int>(nodes[0].pid), static_cast<int>(nodes[1].pid), o.seconds);
  Result r;
  r.sessions = n;
  r.bound = json_number(nodes[0].status(), "bound");
  Sample before[2], after[2];
  for (int host = 0; host < 2; ++host) before[host] = sample(nodes[host], true);
  const uint64_t exchanges_before = shared.exchanges.load();
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
  const uint64_t exchanges_after = shared.exchanges.load();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  for (int host = 0; host < 2; ++host) after[host] = sample(nodes[host], false);

  r.exchanges_per_s = static_cast<double>(exchanges_after - exchanges_before) / seconds;
  for (int host = 0; host < 2; ++host) {
    const auto datagrams = static_cast<double>(after[host].datagrams - before[host].datagrams);
    if (datagrams == 0) die("no datagrams counted in the interval");
    const double cpu_us = (after[host].cpu - before[host].cpu) * 1e6;
    r.us_per_datagram[host] = cpu_us / datagrams;
    r.us_per_exchange[host] = cpu_us / static_cast<double>(exchanges_after - exchanges_before);
    if (host == 0) r.datagrams_per_s = datagrams / seconds;
  }
  shared.stop = true;
  for (pid_t tp : tps) {
    int status = 0;
    ::waitpid(tp, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) die("a TP ended badly");
  }
  for (const Node &node : nodes) bench::stop_daemon(node.pid);
  if (!o.keep) bench::fs::remove_all(dir);
  return r;
}

}  // namespace

int main(int argc, char **argv) {
  const Options o = parse(argc, argv);
  // Every conversation is a socket in its TP's process; the daemons raise their own.
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  void *memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) die("mmap");
  Shared &shared = *new (memory) Shared;
  char pattern[] = "/tmp/two-host-sessions-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) die("mkdtemp");
  const bench::fs::path dir = pattern;

  std::printf(
      "two hosts (127.0.0.2, 127.0.0.3), %ld-byte records, %.1f s per count, "
      "%d conversations a process\n",
      o.record, o.seconds, o.per_process);
  std::printf("%8s %6s %11s %11s %13s %13s %7s %7s %13s %13s\n", "sessions", "bound", "exchanges/s",
              "datagrams/s", "A us/datagram", "B us/datagram", "A ratio", "B ratio",
              "A us/exchange", "B us/exchange");
  std::vector<Result> results;
  for (int n : o.sessions) {
    const std::string load = bench::load_average();
    results.push_back(measure(o, n, dir / std::to_string(n), shared));
    const Result &r = results.back();
    const Result &base = results.front();
    std::printf("%8d %6" PRIu64
                " %11.0f %11.0f %13.2f %13.2f %7.2f %7.2f %13.2f %13.2f  (load %s)\n",
                r.sessions, r.bound, r.exchanges_per_s, r.datagrams_per_s, r.us_per_datagram[0],
                r.us_per_datagram[1], r.us_per_datagram[0] / base.us_per_datagram[0],
                r.us_per_datagram[1] / base.us_per_datagram[1], r.us_per_exchange[0],
                r.us_per_exchange[1], load.c_str());
    std::fflush(stdout);
  }
  if (o.keep) {
    std::printf("files in %s\n", dir.c_str());
  } else {
    bench::fs::remove_all(dir);
  }
  return 0;
}
