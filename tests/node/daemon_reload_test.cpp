// snanoded reads its TP definitions again on SIGHUP, keeping the connections
// it has, and keeps the definitions in use when the new file is unusable.
#include <sstream>

#include "client/daemon_protocol.h"
#include "node/daemon_test_support.h"
#include "snanode/verbs.h"

namespace {

using namespace snanode;
using namespace daemon_test;

class DaemonReloadTest : public DaemonFixture {
 protected:
  std::string more_config() const override { return first_tp(); }
  std::string first_tp() const {
    return "[[tp]]\ntp_name = \"FIRST\"\nprogram = \"/bin/true\"\nqueue_timeout_ms = 300\n";
  }
  std::string second_tp() const {
    return "[[tp]]\ntp_name = \"SECOND\"\nprogram = \"/bin/true\"\nqueue_timeout_ms = 300\n";
  }

  // Waits until the daemon's log holds `text` (a line that follows the
  // signal), at most five seconds.
  bool logged(const std::string &text) {
    for (int tries = 0; tries < 500; ++tries) {
      std::stringstream log;
      log << std::ifstream(dir_.path / "snanoded.log").rdbuf();
      if (log.str().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  // The secondary code of the allocation's answer; 0 for accepted.
  uint32_t allocate(client::MessageChannel &channel, const std::string &tp_name) {
    static uint32_t next_id = 1;
    client::AllocateRequest request = request_for(tp_name);
    request.request_id = next_id++;
    if (!channel.send(request)) return ~0u;
    auto answer = channel.receive();
    if (!answer) return ~0u;
    const auto &result = std::get<client::AllocateResult>(answer->message);
    return result.primary == AP_OK ? 0 : result.secondary;
  }
};

TEST_F(DaemonReloadTest, SighupTakesNewTpsAndKeepsTheOldOnesWhenTheFileIsBad) {
  // One connection throughout: a reload must not drop it.
  auto channel = greet(socket_);
  ASSERT_TRUE(channel);
  constexpr uint32_t kTpNotRecognized = 0x21600810;
  EXPECT_EQ(allocate(*channel, "SECOND"), kTpNotRecognized);

  write_file(config_, "[node]\nname = \"TESTNODE\"\n" +
                          test_support::with_tp_user(first_tp() + second_tp()));
  ::kill(daemon_, SIGHUP);
  ASSERT_TRUE(logged("reloaded 2 invokable TPs")) << "no reload in " << dir_.path;
  EXPECT_EQ(allocate(*channel, "SECOND"), 0u);
  EXPECT_EQ(allocate(*channel, "FIRST"), 0u);

  // A file that does not parse: the reason is logged, SECOND stays defined.
  write_file(config_, "[node]\nname = 5\n");
  ::kill(daemon_, SIGHUP);
  ASSERT_TRUE(logged("reload refused, the definitions in use stay: " + config_ + ":2"));
  EXPECT_EQ(allocate(*channel, "SECOND"), 0u);

  EXPECT_TRUE(logged("TP SECOND started"));  // the TP defined by the reload
}

}  // namespace
