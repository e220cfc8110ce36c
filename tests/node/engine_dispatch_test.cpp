// The engine behind the node's APPC entry points: blocking callers on
// threads of their own, completion routines, the problem log and the end of
// the path.
#include <atomic>
#include <thread>

#include "node/engine_harness.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace engine_test {
namespace {

// A conversation for `name` through the entry points: the name served by
// this process, an allocation, and its accept waited for on a thread.
std::pair<Conv, Conv> connected(const std::string &name, bool mapped = true) {
  NAP_LOCAL_TP_VCB define{};
  define.opcode = NAP_DEFINE_LOCAL_TP;
  snanode::engine::put_ebcdic_name(name, define.tp_name, sizeof define.tp_name);
  appc_c_version(APPC_INTERFACE_VERSION, &define);
  EXPECT_EQ(define.primary_rc, AP_OK);
  Conv server;
  std::thread acceptor([&] {
    EngineHarness::Accept accept;
    EngineHarness::prepare_accept(accept, {name});
    appc_c_version(APPC_INTERFACE_VERSION, &accept.vcb);
    EXPECT_EQ(accept.vcb.primary_rc, AP_OK);
    server = EngineHarness::accepted(accept);
  });
  NAP_START_TP_VCB start{};
  start.opcode = NAP_START_TP;
  appc_c_version(APPC_INTERFACE_VERSION, &start);
  EXPECT_EQ(start.primary_rc, AP_OK);
  std::array<uint8_t, 8> tp;
  std::memcpy(tp.data(), start.tp_id, 8);
  AllocateOptions o;
  o.tp_name = name;
  o.mapped = mapped;
  NAP_ALLOCATE vcb = EngineHarness::allocate_vcb(tp, o);
  appc_c_version(APPC_INTERFACE_VERSION, &vcb);
  EXPECT_EQ(vcb.hdr.primary_rc, AP_OK);
  acceptor.join();
  return {Conv{tp, vcb.hdr.conv_id, mapped}, server};
}

struct Completion {
  std::mutex mutex;
  std::condition_variable cv;
  void *vcb = nullptr;
  uintptr_t correlator = 0;
  int runs = 0;
};
Completion g_completion;

void record_completion(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  std::lock_guard<std::mutex> lock(g_completion.mutex);
  g_completion.vcb = vcb;
  g_completion.correlator = correlator;
  ++g_completion.runs;
  g_completion.cv.notify_all();
}

TEST(EngineDispatch, WaitingVerbCompletesThroughItsRoutineAndImmediateOnesAtOnce) {
  auto [client, server] = connected("ASYNC");

  std::vector<uint8_t> buffer(64);
  auto immediate = EngineHarness::receive_vcb(server, buffer, false);
  EXPECT_EQ(appc_c_async_version(APPC_INTERFACE_VERSION, &immediate, record_completion, 5),
            AP_ASYNC_COMPLETED);
  EXPECT_EQ(immediate.hdr.primary_rc, AP_UNSUCCESSFUL);

  auto wait = EngineHarness::receive_vcb(server, buffer, true);
  ASSERT_EQ(appc_c_async_version(APPC_INTERFACE_VERSION, &wait, record_completion, 7),
            AP_ASYNC_IN_PROGRESS);
  auto send = EngineHarness::send_vcb(client, "later", AP_SEND_FLUSH);
  appc_c_version(APPC_INTERFACE_VERSION, &send);
  std::unique_lock<std::mutex> lock(g_completion.mutex);
  ASSERT_TRUE(g_completion.cv.wait_for(lock, std::chrono::seconds(10),
                                       [] { return g_completion.runs > 0; }));
  EXPECT_EQ(
      std::tuple(g_completion.runs, g_completion.vcb, g_completion.correlator, wait.hdr.primary_rc),
      std::tuple(1, static_cast<void *>(&wait), uintptr_t{7}, AP_OK));
  EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + wait.data_length), "later");
}

TEST(EngineDispatch, BasicLogDataReachesTheProblemLogAndNoPassword) {
  snt_reset();
  const Conv client = connected("LOGGER", false).first;
  const uint32_t before = snt_problem_count();
  auto abend = EngineHarness::deallocate_vcb(client, AP_DEALLOC_ABEND_LOG, "disk full");
  appc_c_version(APPC_INTERFACE_VERSION, &abend);
  ASSERT_EQ(abend.hdr.primary_rc, AP_OK);
  ASSERT_EQ(snt_problem_count(), before + 1);
  SNT_RECORD record;
  ASSERT_TRUE(snt_problem(before, &record));
  EXPECT_EQ(std::tuple(record.code, record.args[0],
                       std::string(reinterpret_cast<char *>(record.bytes[0]), 9)),
            std::tuple(snanode::engine::kPartnerLogDataProblem, uint64_t{9}, "disk full"));
}

TEST(EngineDispatch, EndOfPathReleasesAThreadWaitingOnItsPartner) {
  const Conv server = connected("STUCK").second;
  std::atomic<uint16_t> rc{0xFFFF};
  std::thread waiter([&] {
    std::vector<uint8_t> buffer(16);
    auto wait = EngineHarness::receive_vcb(server, buffer, true);
    appc_c_version(APPC_INTERFACE_VERSION, &wait);
    rc = wait.hdr.primary_rc;
  });
  // Let the waiter get into its wait; the end of the path must free it
  // whether it is already waiting or not.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  snt_end_path();
  waiter.join();
  EXPECT_TRUE(rc.load() != AP_OK && rc.load() != 0xFFFF) << rc.load();
}

}  // namespace
}  // namespace engine_test
