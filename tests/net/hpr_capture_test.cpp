// The NLPs of a connection setup, a segmented message, status exchanges and
// the answer, as two RTP nodes send them, written with the capture writer and
// read by Wireshark's SNA dissector: nothing malformed, and the THDR fields it
// shows follow the protocol (setup segments first, TCIDs exchanged, byte
// sequence numbers contiguous, SOMI/EOMI around each message).  The same
// NLPs then seed a bounded mutation loop over the incoming-NLP path.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "net/capture_files.h"
#include "net/hpr_pipe.h"
#include "net/tshark_run.h"

namespace snanode::net::hpr {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> split(const std::string &text, char separator) {
  return tshark_check::split(text, separator, true);
}

struct Captured {
  int from;
  Bytes nlp;
};

// A setup, a 3000-byte BIU from A cut into NLPs of 1461 bytes, B's answer.
std::vector<Captured> exchange() {
  RtpConfig config;
  test::TwoNodes n(config, 3, 1461);
  std::vector<Captured> out;
  n.tap = [&](int from, ByteSpan nlp) { out.push_back({from, Bytes(nlp.begin(), nlp.end())}); };
  EXPECT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, test::make_biu(1, 3000)));
  EXPECT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
  EXPECT_TRUE(n.b.send_biu("NETA.CPA", Priority::kHigh, test::make_biu(2, 200)));
  EXPECT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == 1; }, 1s));
  n.run_until([] { return false; }, 100ms);
  n.a.close("NETB.CPB", Priority::kHigh);
  EXPECT_TRUE(n.run_until([&] { return !n.seen_a.ended.empty() && !n.seen_b.ended.empty(); }, 1s));
  return out;
}

TEST(HprCapture, TsharkShowsTheSetupDataAndStatusNlpsAsSent) {
  if (!tshark_check::have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const std::vector<Captured> nlps = exchange();
  ASSERT_GE(nlps.size(), 5u);
  const std::string t = " -e sna.nlp.thdr.";
  const std::string out = tshark_check::read_back(
      "hpr_capture",
      [&](CaptureWriter &writer) {
        for (const Captured &c : nlps) {
          Bytes datagram = {kHprSap, kHprSap, kLlcUi};
          datagram.insert(datagram.end(), c.nlp.begin(), c.nlp.end());
          ASSERT_TRUE(writer.write_datagram(
              c.from == 0 ? CaptureDirection::kSent : CaptureDirection::kReceived,
              ee_port(Priority::kHigh), datagram));
        }
      },
      "-T fields -E separator='|' -E occurrence=a -e ip.src" + t + "tcid" + t + "setupi" + t +
          "somi" + t + "eomi" + t + "sri" + t + "osi" + t + "dlf" + t + "bsn" + t +
          "optional.type" + t + "optional.10.tcid" + t + "optional.0e.rseq" +
          " -e sna.th.fid -e _ws.expert -e _ws.malformed" + t + "lmi");
  const std::vector<std::string> lines = split(out, '\n');
  ASSERT_EQ(lines.size(), nlps.size() + 1) << out;

  // What the protocol says each field must be, followed along the capture.
  std::string a_tcid, b_tcid;  // each side's own TCID, as tshark shows it
  uint64_t next_bsn[2] = {0, 0};
  bool in_message[2] = {false, false};
  size_t data_nlps[2] = {0, 0}, statuses = 0, a_set_up = 0, lmis[2] = {0, 0};
  for (size_t i = 0; i < nlps.size(); ++i) {
    const std::vector<std::string> f = split(lines[i], '|');
    ASSERT_EQ(f.size(), 16u) << lines[i];
    const int from = nlps[i].from;
    const std::string &tcid = f[1], &types = f[9];
    const bool setup = f[2] == "1", somi = f[3] == "1", eomi = f[4] == "1";
    const uint32_t dlf = static_cast<uint32_t>(std::stoul(f[7], nullptr, 16));
    EXPECT_EQ(f[0], from == 0 ? "127.0.0.2" : "127.0.0.3");
    EXPECT_EQ(f[13] + f[14], "") << "expert or malformed: " << lines[i];
    // The indicators tshark shows are those the node set.
    auto meant = decode_nlp(nlps[i].nlp);
    ASSERT_TRUE(meant);
    EXPECT_EQ(f[5] + f[6], std::to_string(meant->thdr.status_requested) +
                               std::to_string(meant->thdr.optional_segments));
    EXPECT_EQ(dlf, meant->data.size());
    // LMI closes the connection: on data-less NLPs only, A's first (it
    // closes), B's answer last.
    if (f[15] == "1") {
      EXPECT_EQ(dlf, 0u) << lines[i];
      ++lmis[from];
    }
    if (i + 1 == nlps.size()) {
      EXPECT_TRUE(from == 1 && f[15] == "1" && lmis[0] > 0) << lines[i];
    }
    if (i == 0) {
      // A's first NLP sets the connection up, on A's own TCID.
      EXPECT_TRUE(setup);
      EXPECT_EQ(types, "0x0d,0x14,0x22,0x10");
      EXPECT_EQ(f[10], tcid);
      a_tcid = tcid;
    }
    if (from == 1 && b_tcid.empty()) {
      // B answers on A's TCID and names its own.
      EXPECT_EQ(tcid, a_tcid);
      EXPECT_NE(types.find("0x10"), std::string::npos);
      b_tcid = f[10];
      ASSERT_FALSE(b_tcid.empty());
    }
    // A addresses its own TCID while setting up, B's once it knows it; B
    // always addresses A's.
    EXPECT_EQ(tcid, from == 0 && !setup ? b_tcid : a_tcid) << lines[i];
    if (from == 0 && !setup) ++a_set_up;
    if (types.find("0x0e") != std::string::npos) {
      // A status acknowledges no more than the other side has sent.
      ++statuses;
      EXPECT_LE(std::stoul(f[11], nullptr, 16), next_bsn[1 - from]) << lines[i];
    }
    if (dlf == 0) continue;
    // Data: contiguous byte sequence numbers; SOMI starts a message with a
    // FID5 TH, EOMI ends it.
    ++data_nlps[from];
    EXPECT_EQ(std::stoul(f[8], nullptr, 16), next_bsn[from]) << lines[i];
    EXPECT_EQ(somi, !in_message[from]) << lines[i];
    EXPECT_EQ(f[12], somi ? "0x05" : "") << lines[i];
    in_message[from] = !eomi;
    next_bsn[from] += dlf;
  }
  EXPECT_EQ(next_bsn[0], 3000u);
  EXPECT_EQ(next_bsn[1], 200u);
  EXPECT_GE(data_nlps[0], 3u);
  EXPECT_EQ(data_nlps[1], 1u);
  EXPECT_GE(statuses, 2u);
  EXPECT_GE(a_set_up, 1u);
  EXPECT_FALSE(in_message[0] || in_message[1]);
}

TEST(HprFuzz, MutatedNlpsNeverCrashTheNodeNorGrowItsBuffers) {
  const std::vector<Captured> seeds = exchange();
  ASSERT_FALSE(seeds.empty());
  RtpConfig config;
  config.window = 64 * 1024;
  std::mt19937 random(1125);
  size_t inputs = 0;
  for (const Captured &seed : seeds) {
    test::TwoNodes n(config, 5, 1461);
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, test::make_biu(1, 3000)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
    const int to = 1 - seed.from;
    auto feed = [&](const Bytes &mutant) {
      ++inputs;
      // Exactly the mutant's size, so a read past its end is an ASan report.
      std::unique_ptr<uint8_t[]> exact(new uint8_t[mutant.size() + 1]);
      std::copy(mutant.begin(), mutant.end(), exact.get());
      n.inject(to, ByteSpan(exact.get(), mutant.size()));
    };
    for (size_t size = 0; size <= seed.nlp.size(); size += 1 + size / 64) {
      feed(Bytes(seed.nlp.begin(), seed.nlp.begin() + static_cast<std::ptrdiff_t>(size)));
    }
    for (size_t at = 0; at < std::min<size_t>(seed.nlp.size(), 160); ++at) {
      Bytes mutant = seed.nlp;
      for (int value = 0; value < 256; value += 3) {
        mutant[at] = static_cast<uint8_t>(value);
        feed(mutant);
      }
    }
    for (int i = 0; i < 2000; ++i) {
      Bytes mutant = seed.nlp;
      for (int e = 1 + static_cast<int>(random() % 4); e > 0 && !mutant.empty(); --e) {
        mutant[random() % mutant.size()] = static_cast<uint8_t>(random());
      }
      if (random() % 5 == 0) mutant.resize(random() % (mutant.size() + 1));
      feed(mutant);
    }
    n.run_until([] { return false; }, 3s);
    for (const test::TwoNodes *both = &n; const RtpNode *node : {&both->a, &both->b}) {
      for (const RtpConnection *c : node->connections()) EXPECT_LE(c->bytes_held(), config.window);
    }
  }
  EXPECT_GT(inputs, 80000u);
}

}  // namespace
}  // namespace snanode::net::hpr
