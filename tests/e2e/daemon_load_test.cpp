// Two processes holding thousands of conversations with each other through a
// node daemon at once: every allocation, attach and acceptance crosses the
// daemon connection of both processes while their threads contend for the
// node, and every conversation is checked end to end.  The load benchmark
// (bench/daemon_load_bench.cpp) runs the same with ten thousand.
#include "e2e/scenario_runner.h"
#include "support/concurrent_pairs.h"

namespace e2e {
namespace {

constexpr int kPairs = 2000;
constexpr int kThreads = 2000;  // one thread per conversation on each side

void report(Side &side, const concurrent_pairs::Outcome &outcome) {
  CHECK_EQ(outcome.checked, kPairs);
  if (outcome.failed != 0) {
    side.say('F', std::to_string(outcome.failed) + " failed, the first: " + outcome.first_failure);
    side.say('A', "gave up");
  }
}

void load_client(Side &side) {
  report(side, concurrent_pairs::run_client(kPairs, kThreads));
}

void load_server(Side &side) {
  report(side, concurrent_pairs::run_server(kPairs, kThreads));
}

TEST(DaemonLoad, TwoThousandConversationsBetweenTwoProcessesAtOnce) {
  Scenario scenario;
  scenario.name = "load";
  scenario.client = load_client;
  scenario.server = load_server;
  scenario.serves = {concurrent_pairs::kTpName};
  scenario.config = concurrent_pairs::mode_config(kPairs);
  scenario.attach_timeout_ms = 30000;
  scenario.seconds = 100;  // about 2 s here, 35 s under ThreadSanitizer
  run(scenario, Deploy::kProcesses);
}

}  // namespace
}  // namespace e2e
