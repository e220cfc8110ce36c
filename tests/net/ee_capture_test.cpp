// A link activation, NLPs at each priority, a liveness TEST and the
// deactivation, written through the capture writer and read back by tshark:
// every datagram decodes on its port with no expert item and nothing
// malformed, and the LLC and XID3 fields tshark shows are the ones the link
// stations meant (expected values written from the layouts, not from the
// encoders).
#include <gtest/gtest.h>

#include "ee_pipe.h"
#include "net/capture_files.h"
#include "net/golden_units.h"
#include "net/tshark_run.h"

namespace snanode::net::ee {
namespace {

using namespace std::chrono_literals;

// Writes `sent` to a capture file (A's datagrams as sent, B's as received)
// and returns what tshark prints of `fields`, a line per datagram.
std::string read_back(const std::vector<testing::SentDatagram> &sent, const std::string &fields) {
  return tshark_check::read_back(
      "ee_capture",
      [&](CaptureWriter &writer) {
        for (const auto &d : sent) {
          EXPECT_TRUE(writer.write_datagram(
              d.from_a ? CaptureDirection::kSent : CaptureDirection::kReceived,
              static_cast<uint16_t>(kEePortLlc + d.port_index), d.bytes));
        }
      },
      "-T fields -E separator=/s " + fields);
}

TEST(EeCapture, ActivationNlpsTestAndDeactivationDecodeAsMeant) {
  if (!tshark_check::have_tshark()) GTEST_SKIP() << "tshark is not installed";
  testing::Pipe pipe(testing::station_config(0x05D00001, "NETA.CPA", "NETA.CPB"),
                     testing::station_config(0x05D00002, "NETA.CPB", "NETA.CPA"));
  pipe.a.activate(pipe.now);
  pipe.run_for(100ms);
  ASSERT_TRUE(pipe.a.active() && pipe.b.active());
  for (Priority p : testing::kAllPriorities) {
    Nhdr nhdr;
    nhdr.priority = p;
    nhdr.labels = pipe.a.partner().anr_label;
    Thdr thdr;
    thdr.tcid = {1, 2, 3, 4, 5, 6, 7, 8};
    thdr.bsn = 0x1000;
    // One whole BIU: FID5 TH, RH (RQE1), a mapped record "HELLO".
    const Bytes data = golden::from_hex("5C 00 0002 8000000000000001 039000 0009 12FF C8C5D3D3D6");
    Bytes nlp;
    ASSERT_TRUE(encode_nlp(nhdr, thdr, data, nlp).ok());
    ASSERT_TRUE(pipe.a.send_nlp(p, nlp));
  }
  pipe.run_for(3s);  // idle past a quarter of the liveness time: one TEST each way
  pipe.b.deactivate(pipe.now);
  pipe.run_for(100ms);

  const std::string fields =
      read_back(pipe.sent,
                "-e udp.dstport -e llc.dsap -e llc.ssap -e llc.control -e sna.xid.idnum"
                " -e sna.xid.type3.state -e sna.xid.type3.negcsup -e sna.xid.type3.negcomp"
                " -e sna.xid.type3.tg -e sna.control.0e.value -e sna.nlp.nhdr.tpf -e sna.nlp.frh"
                " -e sna.nlp.thdr.bsn -e _ws.expert -e _ws.malformed");
  const std::vector<std::string> rows = tshark_check::split(fields);
  // tshark prints each field at its width: LLC control as 16 bits, the
  // node ID number as 32, the exchange state as 16.
  const std::vector<std::string> expected = {
      // A's prenegotiation XID command (state 2), B's response (F bit, SSAP
      // C/R set), both offering "any" TG (0); then negotiation-proceeding
      // (state 1) with the agreed TG 1, where the secondary (A, the lower
      // node ID) says the negotiation is complete.
      "12000 0x04 0x04 0x00bf 0x00000001 0x0002 1 0 0x00 NETA.CPA     ",
      "12000 0x04 0x05 0x00bf 0x00000002 0x0002 1 0 0x00 NETA.CPB     ",
      "12000 0x04 0x04 0x00bf 0x00000001 0x0001 1 1 0x01 NETA.CPA     ",
      "12000 0x04 0x05 0x00bf 0x00000002 0x0001 1 0 0x01 NETA.CPB     ",
      // XID_DONE_RQ from the primary, XID_DONE_RSP: function-routed NLPs at
      // low priority on the LLC port.
      "12000 0xc8 0xc8 0x0003       0x00 0x03   ",
      "12000 0xc8 0xc8 0x0003       0x00 0x04   ",
      // NLPs on the port of their priority, network to low.
      "12001 0xc8 0xc8 0x0003       0x03  0x00001000  ",
      "12002 0xc8 0xc8 0x0003       0x02  0x00001000  ",
      "12003 0xc8 0xc8 0x0003       0x01  0x00001000  ",
      "12004 0xc8 0xc8 0x0003       0x00  0x00001000  ",
      // Idle for a quarter of the liveness time: A's TEST, B's answer; then
      // B's DISC and A's DM.
      "12000 0x04 0x04 0x00f3           ",
      "12000 0x04 0x05 0x00f3           ",
      "12000 0x04 0x04 0x0053           ",
      "12000 0x04 0x05 0x001f           ",
  };
  EXPECT_EQ(rows, expected) << fields;
}

TEST(EeCapture, RefusedActivationCarriesTheNegotiationErrorVector) {
  if (!tshark_check::have_tshark()) GTEST_SKIP() << "tshark is not installed";
  testing::Pipe pipe(testing::station_config(0x05D00001, "NETA.CPA", ""),
                     testing::station_config(0x05D00002, "NETA.CPB", "NETA.CPX"));
  pipe.a.activate(pipe.now);
  pipe.run_for(100ms);
  ASSERT_EQ(pipe.sent.size(), 2u);
  // B's answer: its XID3 with CP name, TG descriptor, HPR capabilities and
  // the negotiation error, whose last four bytes are the sense X'1016001D'.
  EXPECT_EQ(read_back(pipe.sent, "-e sna.control.key -e _ws.expert -e _ws.malformed"),
            "0x0e,0x46,0x61  \n0x0e,0x46,0x61,0x22  \n");
  const Bytes &answer = pipe.sent[1].bytes;
  EXPECT_EQ(Bytes(answer.end() - 9, answer.end()), golden::from_hex("22 07 000000 1016001D"));
}

}  // namespace
}  // namespace snanode::net::ee
