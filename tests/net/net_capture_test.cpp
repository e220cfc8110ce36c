// Captures written by the node, read back by Wireshark's SNA dissector: every
// unit must show the TH, RH and RU bytes the node meant (the expected values
// below are written from the published layouts, not from the encoders), no
// packet may be malformed or carry an expert item, and no password may reach
// the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "net/capture_files.h"
#include "net/formats/biu.h"
#include "net/formats/thdr_segments.h"
#include "net/formats/xid3.h"
#include "net/golden_units.h"
#include "net/tshark_run.h"

namespace snanode::net {
namespace {

using golden::from_hex;
using namespace tshark_check;

constexpr auto kSent = CaptureDirection::kSent, kReceived = CaptureDirection::kReceived;

// tshark prints integer fields as 0x and as many digits as the field's width.
std::string hex_field(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*x", digits, value);
  return text;
}

struct Unit {
  const char *what;
  CaptureDirection direction;
  bool expedited;
  uint16_t snf;
  const char *rh;  // as the published flows give it
  Bytes ru;
  Priority priority = Priority::kHigh;
};

// Writes the units as BIUs of one session, returning the file's path.
std::string write_capture(const std::vector<Unit> &units, const char *name) {
  const std::string path = temp_pcap(name);
  auto writer = open_capture(path);
  if (!writer) return path;
  BiuFraming framing;
  framing.sent_tcid = {1, 2, 3, 4, 5, 6, 7, 8};
  framing.received_tcid = {8, 7, 6, 5, 4, 3, 2, 1};
  for (const Unit &u : units) {
    framing.priority = u.priority;
    EXPECT_TRUE(writer->write_biu(u.direction, whole_biu(u.expedited, u.snf, from_hex(u.rh), u.ru),
                                  framing))
        << u.what;
  }
  return path;
}

// The tshark fields of `path`, '|'-separated, a line per packet.
std::string fields(const std::string &path, const std::string &fields) {
  return run("tshark -r " + path + " -T fields -E separator='|' " + fields + " 2>/dev/null");
}

TEST(NetCapture, TsharkShowsEveryUnitAsTheNodeMeantIt) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const Priority net = Priority::kNetwork;
  const std::vector<Unit> units = {
      {"BIND", kSent, true, 1, "6b8000", golden::kBind, net},
      {"+RSP(BIND)", kReceived, true, 1, "eb8000", golden::kBind, net},
      {"Attach + data, BB CD", kSent, false, 1, "0b90a0", golden::kAttachWithData},
      {"chain first", kSent, false, 2, "029000", golden::kChainFirst},
      {"chain middle", kSent, false, 3, "009000", golden::kChainMiddle},
      {"chain last, CD", kSent, false, 4, "019020", golden::kChainLast},
      {"FMH-7 abend, CEB", kReceived, false, 1, "0b9001", golden::kFmh7Abend},
      {"SIG", kSent, true, 2, "4b8000", golden::kSignalRequestToSend, net},
      {"+RSP(SIG)", kReceived, true, 2, "cb8000", {0xC9}, net},
      {"-RSP to a chain", kReceived, false, 4, "879000", from_hex("08460000")},
      {"LUSTAT", kSent, false, 5, "4b9001", golden::kLustatNull},
      {"UNBIND", kSent, true, 3, "6b8000", golden::kUnbindNormal, net},
  };
  const std::string path = write_capture(units, "net_capture");
  const std::string out =
      fields(path,
             "-E occurrence=a -e ip.src -e udp.dstport -e llc.dsap -e llc.control"
             " -e sna.nlp.nhdr.sm -e sna.nlp.nhdr.tpf -e sna.nlp.thdr.tcid -e sna.nlp.thdr.somi"
             " -e sna.nlp.thdr.eomi -e sna.nlp.thdr.bsn -e sna.nlp.thdr.dlf -e sna.th.fid"
             " -e sna.th.mpf -e sna.th.efi -e sna.th.snf -e sna.th.sa -e sna.rh.0 -e sna.rh.1"
             " -e sna.rh.2 -e data.data -e _ws.expert -e _ws.malformed");
  std::remove(path.c_str());
  const std::vector<std::string> lines = split(out);
  ASSERT_EQ(lines.size(), units.size()) << out;

  uint32_t bsn[2] = {0, 0};
  for (size_t i = 0; i < units.size(); ++i) {
    const Unit &u = units[i];
    const int side = u.direction == kSent ? 0 : 1;
    const size_t dlf = 12 + 3 + u.ru.size();
    const std::string rh = u.rh, p = std::to_string(static_cast<int>(u.priority));
    // LLC UI, ANR, FID5, whole BIU; the address and TCIDs of the test session.
    EXPECT_EQ(lines[i], (side == 0 ? "127.0.0.2|" : "127.0.0.3|") +
                            std::to_string(12004 - std::stoi(p)) + "|0xc8|0x0003|0x06|0x0" + p +
                            "|" + (side == 0 ? "0102030405060708" : "0807060504030201") + "|1|1|" +
                            hex_field(bsn[side], 8) + "|" +
                            hex_field(static_cast<uint32_t>(dlf), 8) + "|0x05|3|" +
                            (u.expedited ? "1|" : "0|") + std::to_string(u.snf) +
                            "|8000000000000001|0x" + rh.substr(0, 2) + "|0x" + rh.substr(2, 2) +
                            "|0x" + rh.substr(4, 2) + "|" + hex(u.ru) + "||")
        << u.what;
    bsn[side] += static_cast<uint32_t>(dlf);
  }

  // The same reading flags a BIU cut inside its TH, so an empty column above
  // means the dissector found nothing wrong.
  const auto cut = [](CaptureWriter &writer) {
    Bytes datagram(golden::kDataDatagram.begin(), golden::kDataDatagram.begin() + 34);
    datagram[24] = 5;  // DLF: the 5 bytes that remain
    ASSERT_TRUE(writer.write_datagram(kSent, 12002, datagram));
  };
  EXPECT_NE(read_back("net_capture_cut", cut, "-T fields -e _ws.malformed").find("malformed"),
            std::string::npos);
}

TEST(NetCapture, TsharkShowsAnXid3AsTheNodeMeantIt) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const auto xid = [](CaptureWriter &writer) {
    Bytes datagram = {kLinkSap, kLinkSap, kLlcXidCommandPoll};
    datagram.insert(datagram.end(), golden::kXid3.begin(), golden::kXid3.end());
    ASSERT_TRUE(writer.write_datagram(kSent, kEePortLlc, datagram));
  };
  const std::string x = " -e sna.xid.", t3 = x + "type3.";
  EXPECT_EQ(read_back("net_capture_xid", xid,
                      "-T fields -E separator='|' -e udp.dstport -e llc.dsap" + x + "format" + x +
                          "type" + x + "len" + x + "idblock" + x + "idnum" + t3 + "8" + t3 +
                          "state" + t3 + "10" + t3 + "negcsup" + t3 + "tg" + t3 + "dlc" + t3 +
                          "dlen -e sna.control.key -e sna.control.len -e sna.control.0e.type"
                          " -e sna.control.0e.value -e _ws.expert -e _ws.malformed"),
            "12000|0x04|3|2|40|0x0000005d|0x00012345|0x7038|0x0002|0xc0|1|0x00|0x01|11|0x0e|9|0xf4|"
            "NETA.CPA||\n");
}

TEST(NetCapture, TsharkShowsTransportSegmentsAsTheNodeMeantThem) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const auto segments = [](CaptureWriter &writer) {
    // Connection setup carrying the BIND: SETUPI with segments X'0D', X'14', X'22', X'10'.
    Nhdr nhdr;
    nhdr.priority = Priority::kNetwork;
    nhdr.labels = {0x80, 0x01};
    Thdr setup;
    setup.tcid = {1, 2, 3, 4, 5, 6, 7, 8};
    setup.setup = setup.optional_segments = true;
    append_connection_setup(ConnectionSetup{}, setup.options);
    SwitchingInformation si;
    si.max_packet_size = 1461;
    si.path_switch_time = 180;
    si.alive_timer = 30;
    si.return_route = {0x04, 0x85, 0x00, 0x00};
    EXPECT_FALSE(append_switching_information(si, setup.options));
    si.nested_cvs = from_hex("0B 0E F4 D5C5E3C14BC3D7C1");  // NETA.CPA
    ASSERT_TRUE(append_switching_information(si, setup.options));
    append_arb(Arb{ArbMessage::kSetup, 0, false, 1, 0, 0, 1000, 2000, 3000, 4000}, setup.options);
    append_connection_id({9, 9, 9, 9, 9, 9, 9, 9}, setup.options);
    Bytes datagram = {kHprSap, kHprSap, kLlcUi};
    ASSERT_TRUE(
        encode_nlp(nhdr, setup, whole_biu(true, 1, from_hex("6b8000"), golden::kBind), datagram));
    ASSERT_TRUE(writer.write_datagram(kSent, 12001, datagram));
    // A status message: one gap, no data.
    Thdr status;
    status.tcid = {8, 7, 6, 5, 4, 3, 2, 1};
    status.start_of_message = status.end_of_message = false;
    status.optional_segments = true;
    append_status(StatusReport{true, false, 3, 2, 0x1000, {{0x1100, 0x11FF}}}, status.options);
    append_client_bits(0x8000, status.options);
    datagram = {kHprSap, kHprSap, kLlcUi};
    ASSERT_TRUE(encode_nlp(nhdr, status, {}, datagram));
    ASSERT_TRUE(writer.write_datagram(kReceived, 12001, datagram));
  };
  std::string names =
      "-T fields -E separator='|' -e sna.nlp.thdr.setupi -e sna.nlp.thdr.osi -e "
      "sna.nlp.thdr.offset";
  for (const char *o :
       {"type",          "len",          "0d.version",     "0d.arb",       "0d.reliable",
        "14.si.key",     "14.si.refifo", "14.si.maxpsize", "14.si.switch", "14.si.alive",
        "14.rr.key",     "22.type",      "22.arb",         "22.field1",    "22.field4",
        "10.tcid",       "-sna.th.efi",  "-sna.rh.0",      "0e.gap",       "0e.nabsp",
        "0e.sync",       "0e.echo",      "0e.rseq",        "0f.bits",      "-_ws.expert",
        "-_ws.malformed"}) {
    names +=
        o[0] == '-' ? std::string(" -e ") + (o + 1) : std::string(" -e sna.nlp.thdr.optional.") + o;
  }
  const std::vector<std::string> lines = split(read_back("net_capture_segments", segments, names));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "1|1|0x0018|0x0d,0x14,0x22,0x10|2,9,5,3|0x0101|1|1|0x83|1|1461|180|30|0x85|0x00|"
            "0x01|1000|4000|0909090909090909|1|0x6b||||||||");
  EXPECT_EQ(lines[1],
            "0|1|0x000d|0x0e,0x0f|7,1|||||||||||||||||1|1|0x0003|0x0002|0x00001000|"
            "0x8000||");
}

bool contains(const Bytes &haystack, const Bytes &needle) {
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) !=
         haystack.end();
}

TEST(NetCapture, PasswordsAreBlankedInTheFileAndTheAttachStillDecodes) {
  const std::string path = write_capture(
      {{"Attach with password", kSent, false, 1, "0b9080", golden::kAttachWithPassword}},
      "net_capture_password");
  const Bytes content = read_file(path);
  EXPECT_FALSE(contains(content, from_hex("E2C5C3D9C5E3")));
  Bytes blanked = golden::kAttachWithPassword;
  std::fill(blanked.begin() + 25, blanked.begin() + 31, 0x40);
  EXPECT_TRUE(contains(content, blanked));

  // An Attach cut by the end of an NLP inside its password: neither part of the
  // password reaches the file.
  const std::string split_path = temp_pcap("net_capture_split");
  {
    auto writer = open_capture(split_path);
    ASSERT_TRUE(writer);
    const Bytes biu = whole_biu(false, 1, from_hex("0b9080"), golden::kAttachWithPassword);
    const size_t cut = 15 + 27;  // TH, RH, and the Attach up to two bytes into the password
    Nhdr nhdr;
    Thdr first, second;
    first.end_of_message = false;
    second.start_of_message = false;
    second.bsn = cut;
    for (const auto &[thdr, part] : {std::pair{first, ByteSpan(biu).first(cut)},
                                     std::pair{second, ByteSpan(biu).subspan(cut)}}) {
      Bytes datagram = {kHprSap, kHprSap, kLlcUi};
      ASSERT_TRUE(encode_nlp(nhdr, thdr, part, datagram));
      ASSERT_TRUE(writer->write_datagram(kSent, 12002, datagram));
    }
  }
  const Bytes split_content = read_file(split_path);
  EXPECT_FALSE(contains(split_content, from_hex("0701E2C5")));
  EXPECT_FALSE(contains(split_content, from_hex("C3D9C5E3")));
  std::remove(split_path.c_str());

  if (have_tshark()) {
    EXPECT_EQ(fields(path, "-e sna.rh.0 -e data.data -e _ws.expert -e _ws.malformed"),
              "0x0b|" + hex(blanked) + "||\n");
  }
  std::remove(path.c_str());
}

}  // namespace
}  // namespace snanode::net
