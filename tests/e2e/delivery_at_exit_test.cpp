// What a sender's verbs accepted reaches its partner, however soon the
// sender's process goes after its last verb: a server sends a large stream in
// small records, deallocates and exits (or returns from main, as a TP the
// daemon started), while its partner receives slowly and checks every byte.
// A sender killed instead leaves its partner a conversation failure, never a
// hang.  CPIC_E2E_DELIVERY_MB sets the stream's size (100 MB by default).
#include <cstdlib>
#include <cstring>

#include "e2e/delivery_stream.h"
#include "e2e/scenario_runner.h"
#include "support/read_lines.h"

namespace e2e {
namespace {

using delivery::Ending;
using delivery::kRecordSize;

uint64_t stream_records() {
  const char *mb = std::getenv("CPIC_E2E_DELIVERY_MB");
  const uint64_t bytes = (mb != nullptr ? std::strtoull(mb, nullptr, 10) : 100) << 20;
  return bytes / kRecordSize;
}

constexpr uint64_t kRecordsPerMiB = (1u << 20) / kRecordSize;

struct Outcome {
  uint64_t records = 0;  // received, every byte as sent
  CM_RETURN_CODE rc = -1;
  CM_STATUS_RECEIVED status = -1;
};

// Receives the stream as a slow reader does: late at first (the sender fills
// the socket and its link's queue meanwhile), with short pauses on the way,
// and a long one near the end, while the sender deallocates and goes.
Outcome receive_slowly(Conv &c, uint64_t records) {
  std::this_thread::sleep_for(200ms);
  const uint64_t last_stretch = records > 8 * kRecordsPerMiB ? records - 8 * kRecordsPerMiB : 0;
  std::vector<unsigned char> buffer(kRecordSize), expected(kRecordSize);
  Outcome out;
  for (;;) {
    if (out.records == last_stretch) std::this_thread::sleep_for(300ms);
    if (out.records % kRecordsPerMiB == kRecordsPerMiB - 1) std::this_thread::sleep_for(2ms);
    CM_INT32 max = kRecordSize, length = 0;
    CM_DATA_RECEIVED_TYPE data = -1;
    cmrcv(c.id, buffer.data(), &max, &data, &length, &out.status, &c.rts, &out.rc);
    if (data != CM_NO_DATA_RECEIVED || length != 0) {
      delivery::fill_record(out.records, expected.data());
      if (data != CM_COMPLETE_DATA_RECEIVED || length != kRecordSize || out.records >= records ||
          std::memcmp(buffer.data(), expected.data(), kRecordSize) != 0) {
        t_side->say('F', "record " + std::to_string(out.records) + " is not as sent (length " +
                             std::to_string(length) + ", data_received " + std::to_string(data) +
                             ")");
        throw SideAborted{};
      }
      ++out.records;
    }
    if (out.rc != CM_OK || out.status != CM_NO_STATUS_RECEIVED) return out;
  }
}

// Asks `tp_name` for the stream and receives it.
template <Ending kEnding>
void receive_stream(const std::string &tp_name) {
  const uint64_t records = stream_records();
  Conv c = initialize(tp_name, CM_MAPPED_CONVERSATION,
                      kEnding == Ending::kConfirm ? CM_CONFIRM : CM_NONE);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  REQUIRE_EQ(c.set(cmsptr, CM_PREP_TO_RECEIVE_FLUSH), CM_OK);  // no confirmation for the turn
  REQUIRE_EQ(c.send(delivery::encode({records, kEnding}), CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  const auto started = Clock::now();
  const Outcome out = receive_slowly(c, records);
  switch (kEnding) {
    case Ending::kDeallocate:
    case Ending::kKilledAfter:
      CHECK_EQ(out.records, records);
      CHECK_EQ(out.rc, CM_DEALLOCATED_NORMAL);
      break;
    case Ending::kConfirm:
      CHECK_EQ(out.records, records);
      CHECK_EQ(out.rc, CM_OK);
      CHECK_EQ(out.status, CM_CONFIRM_DEALLOC_RECEIVED);
      CHECK_EQ(c.call(cmcfmd), CM_OK);
      break;
    case Ending::kKilledMidway:
      CHECK_EQ(out.records <= records / 2, true);
      CHECK_EQ(out.rc, CM_RESOURCE_FAILURE_NO_RETRY);
      break;
  }
  CHECK_EQ(c.state(), kEnded);
  // Not a hang that the runner's time limit would cut: the pauses and the
  // reading itself.
  CHECK_EQ(Clock::now() - started < 60s, true);
}

template <Ending kEnding>
void receiver(Side &) {
  receive_stream<kEnding>("E2E");
}

// The server: returns (and its process exits) as soon as its last verb has.
template <Ending kEnding>
void sender(Side &side) {
  Conv c = accept();
  const Received request = c.receive_and(CM_SEND_RECEIVED, 64);
  delivery::Request asked;
  REQUIRE_EQ(request.status, CM_SEND_RECEIVED);
  REQUIRE_EQ(delivery::decode(request.text, asked), true);
  const std::string failed = delivery::send_stream(c.id, asked, [&] { side.say('K', "server"); });
  if (!failed.empty()) side.say('F', failed);
}

// The same from the TP program the daemon starts, which returns from main:
// it must have ended well.
void invokable_receiver(Side &side) {
  receive_stream<Ending::kDeallocate>("SENDER");
  const fs::path log = side.log_dir.parent_path() / "snanoded.log";
  bool exited = false;
  for (const auto until = Clock::now() + 5s; !exited && Clock::now() < until;) {
    for (const std::string &line : test_support::read_lines(log)) {
      if (line.find("TP SENDER") == std::string::npos) continue;
      exited = line.find("exited with status 0") != std::string::npos;
      if (line.find(") exited") != std::string::npos || line.find(") ended") != std::string::npos) {
        CHECK_EQ(exited, true);
      }
    }
    if (!exited) std::this_thread::sleep_for(20ms);
  }
  CHECK_EQ(exited, true);
}

Scenario streaming(const char *name, void (*client)(Side &), void (*server)(Side &),
                   bool processes_only, std::string config = "") {
  Scenario scenario{name, client, server};
  if (server == nullptr) scenario.serves.clear();
  scenario.config = std::move(config);
  scenario.processes_only = processes_only;
  scenario.seconds = 90;  // far above what a run needs
  return scenario;
}

const Scenario kDeallocate = streaming("DeallocateThenExit", receiver<Ending::kDeallocate>,
                                       sender<Ending::kDeallocate>, false);
const Scenario kConfirm = streaming("SendAndDeallocateWithConfirm", receiver<Ending::kConfirm>,
                                    sender<Ending::kConfirm>, false);
const Scenario kKilledMidway =
    streaming("KilledMidway", receiver<Ending::kKilledMidway>, sender<Ending::kKilledMidway>, true);
const Scenario kKilledAfter =
    streaming("KilledRightAfterDeallocating", receiver<Ending::kKilledAfter>,
              sender<Ending::kKilledAfter>, true);
const Scenario kInvokable =
    streaming("TpStartedByTheDaemon", invokable_receiver, nullptr, true,
              "[[tp]]\ntp_name = \"SENDER\"\nprogram = \"" DELIVERY_SENDER_PATH "\"\n");

TEST(DeliveryAtExit, DeallocateThenExitThreads) {
  run(kDeallocate, Deploy::kThreads);
}
TEST(DeliveryAtExit, DeallocateThenExitProcesses) {
  run(kDeallocate, Deploy::kProcesses);
}
TEST(DeliveryAtExit, SendAndDeallocateWithConfirmThreads) {
  run(kConfirm, Deploy::kThreads);
}
TEST(DeliveryAtExit, SendAndDeallocateWithConfirmProcesses) {
  run(kConfirm, Deploy::kProcesses);
}
TEST(DeliveryAtExit, SenderKilledMidwayProcesses) {
  run(kKilledMidway, Deploy::kProcesses);
}
TEST(DeliveryAtExit, SenderKilledRightAfterDeallocatingProcesses) {
  run(kKilledAfter, Deploy::kProcesses);
}
TEST(DeliveryAtExit, TpStartedByTheDaemonReturnsFromMainProcesses) {
  run(kInvokable, Deploy::kProcesses);
}

}  // namespace
}  // namespace e2e
