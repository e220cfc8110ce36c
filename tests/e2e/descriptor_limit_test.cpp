// A process at its open-file limit: the conversation sockets the daemon passes
// it can no longer be received.  Only the allocations whose socket was lost
// fail, with an allocation failure that may be retried and a problem record;
// the conversations already running carry on, and once sockets are free again
// allocations succeed.
#include <sys/resource.h>

#include <atomic>
#include <mutex>

#include "e2e/scenario_runner.h"
#include "support/read_lines.h"

namespace e2e {
namespace {

constexpr rlim_t kFileLimit = 64;
constexpr int kAllocations = 200;

// A record out with the turn, and the partner's echo back the same way.
void ping(Conv &c, const std::string &text) {
  REQUIRE_EQ(c.send(text, CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  const Received echo = c.receive_and(CM_SEND_RECEIVED);
  CHECK_DATA(echo, CM_COMPLETE_DATA_RECEIVED, text, CM_SEND_RECEIVED);
}

void limited_client(Side &side) {
  // The first allocation connects the process to the daemon (which raises
  // the open-file limit); then the limit comes down.
  std::vector<Conv> running{allocate("E2E")};
  ping(running[0], "running before the limit");
  rlimit saved{};
  REQUIRE_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  const rlimit limit{kFileLimit, saved.rlim_max};
  REQUIRE_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  int refused = 0;
  for (int i = 0; i < kAllocations; ++i) {
    Conv c = initialize("E2E", CM_MAPPED_CONVERSATION);
    const CM_RETURN_CODE rc = c.call(cmallc);
    if (rc == CM_OK) {
      running.push_back(c);
    } else {
      CHECK_EQ(rc, CM_ALLOCATE_FAILURE_RETRY);
      ++refused;
    }
  }
  // Room again, which the sanitizers' own checks need (they open pipes).
  REQUIRE_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
  CHECK_EQ(refused > 0, true);
  CHECK_EQ(running.size() > 10, true);
  // Every conversation that got its socket works, the first one included.
  for (size_t k = 0; k < running.size(); ++k) ping(running[k], "carries on " + std::to_string(k));
  for (Conv &c : running) CHECK_EQ(c.deallocate(), CM_OK);

  int recorded = 0;
  for (const std::string &line : test_support::read_lines(side.log_dir / "problem.log")) {
    recorded += line.find("problem 0x10040004") != std::string::npos;
  }
  CHECK_EQ(recorded, refused);
  // With sockets free, the next allocation succeeds; it ends the server.
  Conv last = allocate("E2E");
  ping(last, "last");
  CHECK_EQ(last.deallocate(), CM_OK);
}

// Echoes every record with the turn until the partner deallocates, each
// conversation in a thread of its own; ends after the record "last".
void echo_server(Side &) {
  std::vector<std::thread> threads;
  auto echo = [](Conv c, Received r) {
    while (r.rc == CM_OK && r.status == CM_SEND_RECEIVED &&
           c.send(r.text, CM_SEND_AND_PREP_TO_RECEIVE) == CM_OK) {
      r = c.receive_and(CM_SEND_RECEIVED);
    }
    // A conversation whose allocating end was lost fails at once.
    if (r.rc != CM_DEALLOCATED_NORMAL) CHECK_EQ(r.rc, CM_RESOURCE_FAILURE_NO_RETRY);
  };
  for (;;) {
    Conv c = accept();
    Received first = c.receive_and(CM_SEND_RECEIVED);
    const bool last = first.text == "last";
    threads.emplace_back(echo, c, first);
    if (last) break;
  }
  for (std::thread &thread : threads) thread.join();
}

TEST(DescriptorLimit, OnlyTheAllocationsWhoseSocketWasLostFail) {
  Scenario scenario;
  scenario.name = "descriptor limit";
  scenario.client = limited_client;
  scenario.server = echo_server;
  scenario.seconds = 30;
  run(scenario, Deploy::kProcesses);
}

}  // namespace
}  // namespace e2e
