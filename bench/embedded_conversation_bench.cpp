// Embedded conversations against a raw socketpair between two threads.
//
// Each benchmark runs the engine and the baseline side by side in the same
// iterations and reports both times and their ratio (engine / socketpair),
// so the figure survives a busy machine better than either time alone.
//   PingPong/size: one record each way per round trip (send, turn, echo).
//   Stream/size:   records sent one way as fast as the receiver takes them.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "snanode/snanode.h"
#include "snanode/verbs.h"

namespace {

using Clock = std::chrono::steady_clock;

// Upper-case letters, digits and '#' in EBCDIC: enough for the names used here.
void put_ebcdic(const std::string &name, uint8_t *field, size_t size) {
  std::memset(field, 0x40, size);
  for (size_t i = 0; i < name.size() && i < size; ++i) {
    const char c = name[i];
    if (c >= 'A' && c <= 'I') field[i] = static_cast<uint8_t>(0xC1 + (c - 'A'));
    if (c >= 'J' && c <= 'R') field[i] = static_cast<uint8_t>(0xD1 + (c - 'J'));
    if (c >= 'S' && c <= 'Z') field[i] = static_cast<uint8_t>(0xE2 + (c - 'S'));
    if (c >= '0' && c <= '9') field[i] = static_cast<uint8_t>(0xF0 + (c - '0'));
    if (c == '#') field[i] = 0x7B;
  }
}

void run(void *vcb) {
  appc_c_version(APPC_INTERFACE_VERSION, vcb);
}

struct Side {
  uint8_t tp[8];
  uint32_t conv;
};

template <typename V>
V verb(uint16_t opcode, const Side &side) {
  V vcb{};
  vcb.hdr.opcode = opcode;
  vcb.hdr.opext = NAP_OPEXT_MAPPED;
  std::memcpy(vcb.hdr.tp_id, side.tp, 8);
  vcb.hdr.conv_id = side.conv;
  return vcb;
}

uint16_t send(const Side &side, std::vector<uint8_t> &data, uint8_t type) {
  auto vcb = verb<NAP_SEND_DATA_VCB>(NAP_SEND_DATA, side);
  vcb.data_length = static_cast<uint16_t>(data.size());
  vcb.data_pointer = data.data();
  vcb.send_data_type = type;
  run(&vcb);
  return vcb.hdr.primary_rc;
}

// Receive-and-wait with status: returns the primary return code.
uint16_t receive(const Side &side, std::vector<uint8_t> &buffer, uint16_t *what = nullptr) {
  auto vcb = verb<NAP_RECEIVE_VCB>(NAP_RECEIVE_AND_WAIT, side);
  vcb.max_length = static_cast<uint16_t>(buffer.size());
  vcb.data_pointer = buffer.data();
  vcb.fill = 1;
  vcb.return_status = 1;
  run(&vcb);
  if (what != nullptr) *what = vcb.what_received;
  return vcb.hdr.primary_rc;
}

// A conversation whose accepting side runs `serve` on a thread of its own.
class Conversation {
 public:
  template <typename Serve>
  Conversation(const std::string &tp_name, Serve serve) {
    NAP_LOCAL_TP_VCB define{};
    define.opcode = NAP_DEFINE_LOCAL_TP;
    put_ebcdic(tp_name, define.tp_name, sizeof define.tp_name);
    run(&define);
    server_ = std::thread([this, tp_name, serve] {
      std::vector<uint8_t> names(64);
      put_ebcdic(tp_name, names.data(), 64);
      NAP_RECEIVE_ALLOCATE accept{};
      accept.opcode = NAP_RECEIVE_ALLOCATE_CPIC;
      accept.format = 1;
      accept.tp_name_count = 1;
      accept.tp_name_list = names.data();
      run(&accept);
      Side side;
      std::memcpy(side.tp, accept.tp_id, 8);
      side.conv = accept.conv_id;
      serve(side);
    });
    NAP_START_TP_VCB start{};
    start.opcode = NAP_START_TP;
    run(&start);
    NAP_ALLOCATE allocate{};
    allocate.hdr.opcode = NAP_M_ALLOCATE;
    allocate.hdr.opext = NAP_OPEXT_MAPPED;
    allocate.hdr.format = 1;
    std::memcpy(allocate.hdr.tp_id, start.tp_id, 8);
    std::memcpy(allocate.partner_lu_alias, "LOCAL   ", 8);
    put_ebcdic("#INTER", allocate.mode_name, sizeof allocate.mode_name);
    put_ebcdic(tp_name, allocate.tp_name, sizeof allocate.tp_name);
    run(&allocate);
    std::memcpy(client.tp, start.tp_id, 8);
    client.conv = allocate.hdr.conv_id;
  }
  ~Conversation() {
    auto dealloc = verb<NAP_DEALLOCATE_VCB>(NAP_DEALLOCATE, client);
    dealloc.dealloc_type = AP_DEALLOC_FLUSH;
    run(&dealloc);
    server_.join();
  }
  Side client;

 private:
  std::thread server_;
};

// The baseline: two threads on a socketpair, length-prefixed records.
class SocketPair {
 public:
  explicit SocketPair(bool echo) {
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds_);
    peer_ = std::thread([this, echo] {
      std::vector<uint8_t> buffer(1 << 16);
      uint32_t length;
      while (read_all(fds_[1], &length, sizeof length) && length != 0) {
        if (!read_all(fds_[1], buffer.data(), length)) break;
        if (echo) {
          write_all(fds_[1], &length, sizeof length);
          write_all(fds_[1], buffer.data(), length);
        }
      }
    });
  }
  ~SocketPair() {
    uint32_t end = 0;
    write_all(fds_[0], &end, sizeof end);
    peer_.join();
    close(fds_[0]);
    close(fds_[1]);
  }
  void send(const std::vector<uint8_t> &data) {
    const auto length = static_cast<uint32_t>(data.size());
    write_all(fds_[0], &length, sizeof length);
    write_all(fds_[0], data.data(), length);
  }
  void receive(std::vector<uint8_t> &buffer) {
    uint32_t length = 0;
    read_all(fds_[0], &length, sizeof length);
    read_all(fds_[0], buffer.data(), length);
  }

 private:
  static bool read_all(int fd, void *data, size_t size) {
    auto *p = static_cast<uint8_t *>(data);
    while (size > 0) {
      const ssize_t n = read(fd, p, size);
      if (n <= 0) return false;
      p += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }
  static void write_all(int fd, const void *data, size_t size) {
    const auto *p = static_cast<const uint8_t *>(data);
    while (size > 0) {
      const ssize_t n = write(fd, p, size);
      if (n <= 0) return;
      p += n;
      size -= static_cast<size_t>(n);
    }
  }
  int fds_[2];
  std::thread peer_;
};

void report(benchmark::State &state, double engine_ns, double baseline_ns, size_t bytes) {
  const double n = static_cast<double>(state.iterations());
  state.counters["engine_us"] = engine_ns / n / 1000.0;
  state.counters["socketpair_us"] = baseline_ns / n / 1000.0;
  state.counters["ratio"] = baseline_ns > 0 ? engine_ns / baseline_ns : 0.0;
  state.SetBytesProcessed(static_cast<int64_t>(n * static_cast<double>(bytes)));
}

double since(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

void PingPong(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> data(size, 'p'), buffer(size);
  Conversation conv("PINGSRV", [size](Side side) {
    std::vector<uint8_t> echo(size);
    uint16_t what = 0;
    while (receive(side, echo, &what) == AP_OK) send(side, echo, AP_SEND_PTR_FLUSH);
  });
  SocketPair pair(true);
  double engine_ns = 0, baseline_ns = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    send(conv.client, data, AP_SEND_BUFFER);
    receive(conv.client, buffer);  // turns the conversation, waits for the echo
    engine_ns += since(start);
    start = Clock::now();
    pair.send(data);
    pair.receive(buffer);
    baseline_ns += since(start);
  }
  report(state, engine_ns, baseline_ns, 2 * size);
}

void Stream(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> data(size, 's');
  Conversation conv("STREAMSRV", [size](Side side) {
    std::vector<uint8_t> sink(size);
    while (receive(side, sink) == AP_OK) {
    }
  });
  SocketPair pair(false);
  double engine_ns = 0, baseline_ns = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    send(conv.client, data, AP_SEND_BUFFER);
    engine_ns += since(start);
    start = Clock::now();
    pair.send(data);
    baseline_ns += since(start);
  }
  report(state, engine_ns, baseline_ns, size);
}

BENCHMARK(PingPong)->Arg(100)->Arg(4096)->Arg(32768)->UseRealTime();
BENCHMARK(Stream)->Arg(100)->Arg(4096)->Arg(32768)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
