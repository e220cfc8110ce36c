// Two nodes as two hosts: node daemons on 127.0.0.2 and 127.0.0.3 joined by
// an Enterprise Extender link, against the bare transports between the same
// two addresses, in one run:
//   ping-pong: a 100-byte record and its echo between a TP on each node,
//              against a 100-byte UDP datagram and its echo;
//   streaming: 32767-byte records from a TP on one node to a TP on the other,
//              against a TCP stream written 32767 bytes at a time.
// Both conversation figures are taken twice, on a mode tuned for bulk data
// (RUs of up to 65536 bytes, the largest a mode offers): over a link of the
// default maximum BTU (what an Ethernet frame holds), where RTP cuts each RU
// into NLPs of one frame that leave in segmentation-offload runs, and over
// one whose nodes offer the largest BTU (a whole datagram, as loopback and
// jumbo paths allow), where an RU is one datagram or two.  Each in a process
// of its own.
//
// Each figure is taken in `reps` blocks, each block right beside a block of
// its baseline (which goes first alternates), after one untimed block of
// each: the ratio of each pair is taken, and the median of those is
// reported with the lowest and highest.  The machine's load changes from
// second to second (the baselines themselves swing by a factor of two on a
// small VM); a ratio of neighbouring blocks is what travels.
//
//   two_host_bench [--hosts-on-cpus] [--reps N]
//                  [rounds [megabytes [port_base [snanoded]]]]
//   defaults 5 repetitions of 2000 rounds and 64 MB, ports from 12000 and
//   the daemon built with the bench; another daemon (an earlier build, say)
//   compares its figures in the same session.
// --hosts-on-cpus places each "host" on a CPU of its own, as two machines
// would be: node A's daemon and TP, the UDP echo's client and the TCP writer
// on CPU 0; node B's daemon and TP, the echo and the TCP reader on CPU 1.
// Without it the scheduler places the processes as it likes (it may put both
// ends of a baseline on one CPU, which no two hosts can do).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>

#include "bench_processes.h"
#include "cpic_turn.h"
#include "cpic.h"

namespace {

using bench::die;
using Clock = std::chrono::steady_clock;
constexpr const char *kAddress[2] = {"127.0.0.2", "127.0.0.3"};
constexpr long kPingSize = 100;
constexpr long kRecord = 32767;
constexpr const char *kTp = "BENCH";
std::string snanoded_path = SNANODED_PATH;

bool hosts_on_cpus = false;

// With --hosts-on-cpus, binds the calling process (and what it forks after)
// to the CPU of `host`.
void on_host(int host) {
  if (!hosts_on_cpus) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(host, &set);
  if (::sched_setaffinity(0, sizeof set, &set) != 0) die("cannot bind to a CPU");
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

sockaddr_in address_of(const char *ip, uint16_t port) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(port);
  ::inet_pton(AF_INET, ip, &at.sin_addr);
  return at;
}

int bound_socket(int type, const char *ip, uint16_t port) {
  const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in at = address_of(ip, port);
  if (::bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
    die(std::string("cannot bind ") + ip + ":" + std::to_string(port));
  }
  return fd;
}

// Seconds per UDP round trip between the two addresses.
double udp_ping_pong(int rounds, uint16_t port) {
  const int server = bound_socket(SOCK_DGRAM, kAddress[1], port);
  const pid_t echo = ::fork();
  if (echo == 0) {
    on_host(1);
    char buffer[2048];
    sockaddr_in from{};
    for (;;) {
      socklen_t size = sizeof from;
      const ssize_t n =
          ::recvfrom(server, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &size);
      if (n > 0)
        ::sendto(server, buffer, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&from),
                 size);
    }
  }
  ::close(server);
  const int client = bound_socket(SOCK_DGRAM, kAddress[0], 0);
  sockaddr_in to = address_of(kAddress[1], port);
  char data[kPingSize] = {};
  const auto start = Clock::now();
  for (int i = 0; i < rounds; ++i) {
    ::sendto(client, data, sizeof data, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (::recv(client, data, sizeof data, 0) != kPingSize) die("UDP echo lost");
  }
  const double per_round = seconds_since(start) / rounds;
  ::kill(echo, SIGKILL);
  ::waitpid(echo, nullptr, 0);
  ::close(client);
  return per_round;
}

// Bytes per second of a TCP stream between the two addresses.
double tcp_stream(long bytes, uint16_t port) {
  const int listener = bound_socket(SOCK_STREAM, kAddress[1], port);
  ::listen(listener, 1);
  // Allocated before the fork: the caller may have threads (the library's),
  // and a child of a threaded process must not allocate.
  std::vector<char> data(kRecord, 's');
  const pid_t sink = ::fork();
  if (sink == 0) {
    on_host(1);
    const int fd = ::accept(listener, nullptr, nullptr);
    while (::read(fd, data.data(), data.size()) > 0) {
    }
    (void)!::write(fd, "A", 1);
    ::_exit(0);
  }
  ::close(listener);
  const int fd = bound_socket(SOCK_STREAM, kAddress[0], 0);
  sockaddr_in to = address_of(kAddress[1], port);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) die("TCP connect");
  const auto start = Clock::now();
  for (long sent = 0; sent < bytes; sent += kRecord) {
    if (!bench::write_all(fd, data.data(), data.size())) die("TCP write");
  }
  ::shutdown(fd, SHUT_WR);
  char answer = 0;
  if (!bench::read_all(fd, &answer, 1)) die("TCP: no answer");
  const double rate = static_cast<double>(bytes / kRecord * kRecord) / seconds_since(start);
  ::close(fd);
  ::waitpid(sink, nullptr, 0);
  return rate;
}

// ---- the conversations ------------------------------------------------------------

struct Conv {
  unsigned char id[8] = {};
};

void check(const char *call, CM_RETURN_CODE rc) {
  if (rc != CM_OK) die(std::string(call) + " failed with return code " + std::to_string(rc));
}

void send_as(Conv &c, CM_SEND_TYPE type, const void *data, long size) {
  CM_RETURN_CODE rc;
  cmsst(c.id, &type, &rc);
  check("CMSST", rc);
  CM_INT32 length = static_cast<CM_INT32>(size);
  CM_REQUEST_TO_SEND_RECEIVED rts;
  cmsend(c.id, static_cast<unsigned char *>(const_cast<void *>(data)), &length, &rts, &rc);
  check("CMSEND", rc);
}

long receive_turn(Conv &c, std::vector<unsigned char> &buffer, long &last) {
  return bench::receive_turn(c.id, buffer, last);
}

// Node B's TP: echoes the first conversation's records until it ends, then
// answers each turn of the second (its greeting, the stream) with one byte.
void serve() {
  CM_INT32 length = static_cast<CM_INT32>(std::strlen(kTp));
  CM_RETURN_CODE rc;
  cmsltp(reinterpret_cast<unsigned char *>(const_cast<char *>(kTp)), &length, &rc);
  check("CMSLTP", rc);
  std::vector<unsigned char> buffer(kRecord);
  long last = 0;
  Conv echo;
  cmaccp(echo.id, &rc);
  check("CMACCP", rc);
  while (receive_turn(echo, buffer, last) > 0) {
    send_as(echo, CM_SEND_AND_PREP_TO_RECEIVE, buffer.data(), last);
  }
  Conv stream;
  cmaccp(stream.id, &rc);
  check("CMACCP", rc);
  // The greeting, then the stream: each answered with one byte.
  while (receive_turn(stream, buffer, last) > 0) {
    send_as(stream, CM_SEND_AND_PREP_TO_RECEIVE, "A", 1);
  }
}

Conv allocate() {
  // The server's TP may not have registered its name yet: try again.
  for (int attempt = 0; attempt < 300; ++attempt) {
    Conv c;
    CM_RETURN_CODE rc;
    cminit(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>("        ")), &rc);
    check("CMINIT", rc);
    using Setter = void (*)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *);
    const std::pair<Setter, const char *> names[] = {
        {cmspln, "LUB"}, {cmsmn, "#INTER"}, {cmstpn, kTp}};
    for (auto [call, value] : names) {
      CM_INT32 length = static_cast<CM_INT32>(std::strlen(value));
      call(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>(value)), &length, &rc);
      check("CMSPLN/CMSMN/CMSTPN", rc);
    }
    cmallc(c.id, &rc);
    std::vector<unsigned char> buffer(kRecord);
    long last = 0;
    if (rc == CM_OK) {
      // A refused allocation shows on this send (a name not served yet).
      CM_SEND_TYPE type = CM_SEND_AND_PREP_TO_RECEIVE;
      cmsst(c.id, &type, &rc);
      CM_INT32 length = 1;
      CM_REQUEST_TO_SEND_RECEIVED rts;
      cmsend(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>("x")), &length, &rts, &rc);
      if (rc == CM_OK && receive_turn(c, buffer, last) == 1) return c;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  die("the server's TP could not be allocated");
}

std::string node_config(int host, uint16_t base, unsigned max_btu) {
  const char *self = host == 0 ? "A" : "B";
  const char *partner = host == 0 ? "B" : "A";
  std::ostringstream text;
  text << "[network]\nenabled = true\ncp_name = \"APPN.CP" << self << "\"\nlocal_address = \""
       << kAddress[host] << "\"\nport_base = " << base << "\n";
  if (max_btu != 0) text << "max_btu = " << max_btu << "\n";
  text << "[[link]]\npartner = \"" << kAddress[1 - host] << "\"\ncp_name = \"APPN.CP" << partner
       << "\"\n[[local_lu]]\nalias = \"LU" << self << "\"\nlu_name = \"APPN.LU" << self
       << "\"\n[[partner_lu]]\nalias = \"LU" << partner << "\"\nlu_name = \"APPN.LU" << partner
       << "\"\nowning_cp = \"APPN.CP" << partner << "\"\ntrust_already_verified = true\n"
       << "[[mode]]\nname = \"#INTER\"\nmax_ru_size = 65536"
       << "\npacing_window = 32\n";
  return text.str();
}

constexpr int kMaxReps = 64;

// Each repetition's figures, the conversation's beside its baseline's.
struct Samples {
  int reps = 0;
  double udp[kMaxReps] = {};     // seconds per UDP round trip
  double ping[kMaxReps] = {};    // seconds per conversation round trip
  double tcp[kMaxReps] = {};     // bytes per second of the TCP stream
  double stream[kMaxReps] = {};  // bytes per second of the conversation's
};

// Seconds per round trip of `rounds` 100-byte records and their echoes.
double ping_block(Conv &echo, int rounds) {
  std::vector<unsigned char> record(kPingSize, 'c'), buffer(kRecord);
  long last = 0;
  const auto start = Clock::now();
  for (int i = 0; i < rounds; ++i) {
    send_as(echo, CM_SEND_AND_PREP_TO_RECEIVE, record.data(), kPingSize);
    if (receive_turn(echo, buffer, last) != 1 || last != kPingSize) die("the echo is wrong");
  }
  return seconds_since(start) / rounds;
}

// Bytes per second of `bytes` in 32767-byte records, buffered, then the turn
// and the partner's one-byte answer.
double stream_block(Conv &stream, long bytes) {
  std::vector<unsigned char> record(kRecord, 'c'), buffer(kRecord);
  long last = 0;
  CM_RETURN_CODE rc;
  const auto start = Clock::now();
  CM_SEND_TYPE buffered = CM_BUFFER_DATA;
  cmsst(stream.id, &buffered, &rc);
  for (long sent = 0; sent < bytes; sent += kRecord) {
    CM_INT32 length = kRecord;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    cmsend(stream.id, record.data(), &length, &rts, &rc);
    check("CMSEND", rc);
  }
  cmptr(stream.id, &rc);
  check("CMPTR", rc);
  if (receive_turn(stream, buffer, last) != 1) die("no answer to the stream");
  return static_cast<double>(bytes / kRecord * kRecord) / seconds_since(start);
}

// Two daemons joined by a link whose nodes offer `max_btu` (0: the default),
// a TP on each: the ping-pong and the stream between them, each block beside
// one of its baseline.
Samples conversations(const bench::fs::path &dir, int rounds, long bytes, uint16_t base,
                      unsigned max_btu, int reps) {
  pid_t daemons[2];
  bench::fs::path configs[2];
  for (int host = 0; host < 2; ++host) {
    const bench::fs::path node = dir / (host == 0 ? "a" : "b");
    configs[host] = bench::write_config(node, node_config(host, base, max_btu));
    on_host(host);
    daemons[host] =
        bench::start_daemon(snanoded_path, configs[host], node / "snanode.sock", node / "out");
  }
  // The link comes up in a round trip or two after both daemons are there.
  for (int i = 0; i < 500; ++i) {
    std::ifstream log(dir / "a" / "logs" / "snanoded.log");
    const std::string text((std::istreambuf_iterator<char>(log)), {});
    if (text.find(" is up") != std::string::npos) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::setenv("SNANODE_DAEMON", "required", 1);
  ::setenv("SNANODE_CONFIG", configs[1].c_str(), 1);
  std::fflush(nullptr);
  const pid_t server = ::fork();
  if (server == 0) {
    on_host(1);
    serve();
    std::exit(0);
  }
  ::setenv("SNANODE_CONFIG", configs[0].c_str(), 1);
  on_host(0);
  Samples samples;
  samples.reps = reps;
  // Ports of the baselines, a new pair per block.
  auto port = static_cast<uint16_t>(base + 100);
  Conv echo = allocate();
  ping_block(echo, rounds / 4 + 1);
  udp_ping_pong(rounds / 4 + 1, port++);
  for (int rep = 0; rep < reps; ++rep) {
    if (rep % 2 == 0) samples.udp[rep] = udp_ping_pong(rounds, port++);
    samples.ping[rep] = ping_block(echo, rounds);
    if (rep % 2 == 1) samples.udp[rep] = udp_ping_pong(rounds, port++);
  }
  CM_RETURN_CODE rc;
  cmdeal(echo.id, &rc);
  check("CMDEAL", rc);

  Conv stream = allocate();
  stream_block(stream, bytes / 4 + kRecord);
  tcp_stream(bytes / 4 + kRecord, port++);
  for (int rep = 0; rep < reps; ++rep) {
    if (rep % 2 == 0) samples.tcp[rep] = tcp_stream(bytes, port++);
    samples.stream[rep] = stream_block(stream, bytes);
    if (rep % 2 == 1) samples.tcp[rep] = tcp_stream(bytes, port++);
  }
  cmdeal(stream.id, &rc);
  ::waitpid(server, nullptr, 0);
  for (pid_t daemon : daemons) bench::stop_daemon(daemon);
  bench::fs::remove_all(dir / "a");
  bench::fs::remove_all(dir / "b");
  return samples;
}

// conversations() in a child of its own: the library keeps its daemon and
// configuration for the life of a process, and each run has its own.
Samples conversations_apart(const bench::fs::path &dir, int rounds, long bytes, uint16_t base,
                            unsigned max_btu, int reps) {
  int pipe_fds[2];
  if (::pipe(pipe_fds) != 0) die("pipe");
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(pipe_fds[0]);
    const Samples samples = conversations(dir, rounds, bytes, base, max_btu, reps);
    if (!bench::write_all(pipe_fds[1], &samples, sizeof samples)) ::_exit(1);
    ::_exit(0);
  }
  ::close(pipe_fds[1]);
  Samples samples;
  const bool got = bench::read_all(pipe_fds[0], &samples, sizeof samples);
  ::close(pipe_fds[0]);
  ::waitpid(child, nullptr, 0);
  if (!got) die("a conversation run failed");
  return samples;
}

// The median of `n` figures, and the lowest and highest.
struct Spread {
  double median, low, high;
};
Spread spread(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return {n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2, v.front(), v.back()};
}

void report(const char *name, const Samples &s) {
  std::vector<double> udp, ping, ping_ratio, tcp, stream, stream_ratio;
  for (int i = 0; i < s.reps; ++i) {
    udp.push_back(s.udp[i] * 1e6);
    ping.push_back(s.ping[i] * 1e6);
    ping_ratio.push_back(s.ping[i] / s.udp[i]);
    tcp.push_back(s.tcp[i] / 1e6);
    stream.push_back(s.stream[i] / 1e6);
    stream_ratio.push_back(s.stream[i] / s.tcp[i]);
  }
  const Spread pr = spread(ping_ratio), sr = spread(stream_ratio);
  std::printf("%s:\n  ping-pong %.1f us, UDP %.1f us: ratio %.2f (%.2f-%.2f)\n", name,
              spread(ping).median, spread(udp).median, pr.median, pr.low, pr.high);
  std::printf("  stream %.0f MB/s, TCP %.0f MB/s: ratio %.2f (%.2f-%.2f)\n", spread(stream).median,
              spread(tcp).median, sr.median, sr.low, sr.high);
}

}  // namespace

int main(int argc, char **argv) {
  int reps = 5;
  for (;;) {
    if (argc > 1 && std::strcmp(argv[1], "--hosts-on-cpus") == 0) {
      hosts_on_cpus = true;
    } else if (argc > 2 && std::strcmp(argv[1], "--reps") == 0) {
      reps = std::clamp(std::atoi(argv[2]), 1, kMaxReps);
      --argc;
      ++argv;
    } else if (argc > 1 && argv[1][0] == '-') {
      std::fprintf(stderr,
                   "usage: two_host_bench [--hosts-on-cpus] [--reps N] "
                   "[rounds [megabytes [port_base [snanoded]]]]\n");
      return 2;
    } else {
      break;
    }
    --argc;
    ++argv;
  }
  on_host(0);
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 2000;
  const long bytes = (argc > 2 ? std::atol(argv[2]) : 64) * 1024 * 1024;
  const auto base = static_cast<uint16_t>(argc > 3 ? std::atoi(argv[3]) : 12000);
  if (argc > 4) snanoded_path = argv[4];
  char pattern[] = "/tmp/two-host-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) die("mkdtemp");
  const bench::fs::path dir = pattern;

  constexpr unsigned kLargestBtu = 65504;
  const Samples standard = conversations_apart(dir, rounds, bytes, base, 0, reps);
  const Samples large =
      conversations_apart(dir, rounds, bytes, static_cast<uint16_t>(base + 10), kLargestBtu, reps);

  std::printf(
      "two hosts (127.0.0.2, 127.0.0.3)%s, load %s\n"
      "%d repetitions: %d rounds of %ld bytes (against a UDP echo), %ld MB in %ld-byte records "
      "(against a TCP stream); medians, ratio range in brackets\n",
      hosts_on_cpus ? ", each on a CPU of its own" : "", bench::load_average().c_str(), reps,
      rounds, kPingSize, bytes >> 20, kRecord);
  report("max BTU 1461 (default)", standard);
  report("max BTU 65504", large);
  bench::fs::remove_all(dir);
  return 0;
}
