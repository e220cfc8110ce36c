// Captures written by the node, read back by Wireshark's SNA dissector: every
// unit must show the TH, RH and RU bytes the node meant (the expected values
// below are written from the published layouts, not from the encoders), no
// packet may be malformed or carry an expert item, and no password may reach
// the file.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "net/capture/pcap_writer.h"
#include "net/formats/biu.h"
#include "net/formats/thdr_segments.h"
#include "net/formats/xid3.h"
#include "net/golden_units.h"
#include "net/tshark_run.h"

namespace snanode::net {
namespace {

using tshark_check::have_tshark;
using tshark_check::hex;
using tshark_check::run;

std::vector<std::string> split(const std::string &text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + 1) {
    parts.push_back(text.substr(start, at - start));
  }
  if (start < text.size()) parts.push_back(text.substr(start));
  return parts;
}

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
  Bytes rh;  // as the published flows give it
  Bytes ru;
  Priority priority = Priority::kHigh;
};

std::string temp_path(const char *name) {
  const char *dir = std::getenv("TMPDIR");
  return std::string(dir ? dir : "/tmp") + "/" + name + "." + std::to_string(getpid()) + ".pcap";
}

// Writes the units as BIUs of one session, returning the file's path.
std::string write_capture(const std::vector<Unit> &units, const char *name) {
  const std::string path = temp_path(name);
  std::string error;
  auto writer = CaptureWriter::open(path, CaptureEndpoints{}, &error);
  EXPECT_TRUE(writer) << error;
  if (!writer) return path;
  BiuFraming framing;
  framing.sent_tcid = {1, 2, 3, 4, 5, 6, 7, 8};
  framing.received_tcid = {8, 7, 6, 5, 4, 3, 2, 1};
  for (const Unit &u : units) {
    framing.priority = u.priority;
    Bytes biu = {static_cast<uint8_t>(0x5C | (u.expedited ? 1 : 0)),
                 0x00,
                 static_cast<uint8_t>(u.snf >> 8),
                 static_cast<uint8_t>(u.snf),
                 0x80,
                 0,
                 0,
                 0,
                 0,
                 0,
                 0,
                 0x01};
    biu.insert(biu.end(), u.rh.begin(), u.rh.end());
    biu.insert(biu.end(), u.ru.begin(), u.ru.end());
    EXPECT_TRUE(writer->write_biu(u.direction, biu, framing)) << u.what;
  }
  return path;
}

const char *kFields =
    " -e ip.src -e udp.dstport -e llc.dsap -e llc.control -e sna.nlp.nhdr.sm"
    " -e sna.nlp.nhdr.tpf -e sna.nlp.thdr.tcid -e sna.nlp.thdr.somi -e sna.nlp.thdr.eomi"
    " -e sna.nlp.thdr.bsn -e sna.nlp.thdr.dlf -e sna.th.fid -e sna.th.mpf -e sna.th.efi"
    " -e sna.th.snf -e sna.th.sa -e sna.rh.0 -e sna.rh.1 -e sna.rh.2 -e data.data"
    " -e _ws.expert -e _ws.malformed";

TEST(NetCapture, TsharkShowsEveryUnitAsTheNodeMeantIt) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const auto sent = CaptureDirection::kSent, received = CaptureDirection::kReceived;
  const std::vector<Unit> units = {
      {"BIND", sent, true, 1, {0x6B, 0x80, 0x00}, golden::kBind, Priority::kNetwork},
      {"+RSP(BIND)", received, true, 1, {0xEB, 0x80, 0x00}, golden::kBind, Priority::kNetwork},
      {"Attach + data, BB CD", sent, false, 1, {0x0B, 0x90, 0xA0}, golden::kAttachWithData},
      {"chain first", sent, false, 2, {0x02, 0x90, 0x00}, golden::kChainFirst},
      {"chain middle", sent, false, 3, {0x00, 0x90, 0x00}, golden::kChainMiddle},
      {"chain last, CD", sent, false, 4, {0x01, 0x90, 0x20}, golden::kChainLast},
      {"FMH-7 abend, CEB", received, false, 1, {0x0B, 0x90, 0x01}, golden::kFmh7Abend},
      {"SIG", sent, true, 2, {0x4B, 0x80, 0x00}, golden::kSignalRequestToSend, Priority::kNetwork},
      {"+RSP(SIG)", received, true, 2, {0xCB, 0x80, 0x00}, {0xC9}, Priority::kNetwork},
      {"-RSP to a chain", received, false, 4, {0x87, 0x90, 0x00}, {0x08, 0x46, 0x00, 0x00}},
      {"LUSTAT", sent, false, 5, {0x4B, 0x90, 0x01}, golden::kLustatNull},
      {"UNBIND", sent, true, 3, {0x6B, 0x80, 0x00}, golden::kUnbindNormal, Priority::kNetwork},
  };
  const std::string path = write_capture(units, "net_capture");
  const std::string out = run("tshark -r " + path + " -T fields -E separator='|' -E occurrence=a" +
                              kFields + " 2>/dev/null");
  const std::vector<std::string> lines = split(out, '\n');
  ASSERT_EQ(lines.size(), units.size()) << out;

  uint32_t bsn[2] = {0, 0};
  for (size_t i = 0; i < units.size(); ++i) {
    const Unit &u = units[i];
    const bool is_sent = u.direction == sent;
    const std::vector<std::string> f = split(lines[i] + "|", '|');
    ASSERT_GE(f.size(), 22u) << lines[i];
    const size_t dlf = 12 + 3 + u.ru.size();
    const auto port = 12004 - static_cast<int>(u.priority);
    const std::string expected[] = {
        is_sent ? "127.0.0.2" : "127.0.0.3",
        std::to_string(port),
        "0xc8",
        "0x0003",  // UI
        "0x06",    // ANR
        "0x0" + std::to_string(static_cast<int>(u.priority)),
        is_sent ? "0102030405060708" : "0807060504030201",
        "1",
        "1",
        hex_field(bsn[is_sent ? 0 : 1], 8),
        hex_field(static_cast<uint32_t>(dlf), 8),
        "0x05",
        "3",  // whole BIU
        u.expedited ? "1" : "0",
        std::to_string(u.snf),
        "8000000000000001",
        hex_field(u.rh[0], 2),
        hex_field(u.rh[1], 2),
        hex_field(u.rh[2], 2),
        hex(u.ru),
        "",
        "",
    };
    for (size_t k = 0; k < std::size(expected); ++k) {
      EXPECT_EQ(f[k], expected[k]) << u.what << ", field " << k << ": " << lines[i];
    }
    bsn[is_sent ? 0 : 1] += static_cast<uint32_t>(dlf);
  }
  std::remove(path.c_str());

  // The same reading flags a BIU cut inside its TH, so an empty column above
  // means the dissector found nothing wrong.
  const std::string cut_path = temp_path("net_capture_cut");
  {
    std::string error;
    auto writer = CaptureWriter::open(cut_path, CaptureEndpoints{}, &error);
    ASSERT_TRUE(writer) << error;
    Bytes datagram(golden::kDataDatagram.begin(), golden::kDataDatagram.begin() + 34);
    datagram[24] = 5;  // DLF: the 5 bytes that remain
    ASSERT_TRUE(writer->write_datagram(sent, 12002, datagram));
  }
  EXPECT_NE(
      run("tshark -r " + cut_path + " -T fields -e _ws.malformed 2>/dev/null").find("malformed"),
      std::string::npos);
  std::remove(cut_path.c_str());
}

TEST(NetCapture, TsharkShowsAnXid3AsTheNodeMeantIt) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const std::string path = temp_path("net_capture_xid");
  {
    std::string error;
    auto writer = CaptureWriter::open(path, CaptureEndpoints{}, &error);
    ASSERT_TRUE(writer) << error;
    Bytes datagram = {kLinkSap, kLinkSap, kLlcXidCommandPoll};
    datagram.insert(datagram.end(), golden::kXid3.begin(), golden::kXid3.end());
    ASSERT_TRUE(writer->write_datagram(CaptureDirection::kSent, kEePortLlc, datagram));
  }
  const std::string out =
      run("tshark -r " + path +
          " -T fields -E separator='|' -e udp.dstport -e llc.dsap -e sna.xid.format -e sna.xid.type"
          " -e sna.xid.len -e sna.xid.idblock -e sna.xid.idnum -e sna.xid.type3.8"
          " -e sna.xid.type3.state -e sna.xid.type3.10 -e sna.xid.type3.negcsup -e sna.xid.type3.tg"
          " -e sna.xid.type3.dlc -e sna.xid.type3.dlen -e sna.control.key -e sna.control.len"
          " -e sna.control.0e.type -e sna.control.0e.value -e _ws.expert -e _ws.malformed"
          " 2>/dev/null");
  EXPECT_EQ(out,
            "12000|0x04|3|2|40|0x0000005d|0x00012345|0x7038|0x0002|0xc0|1|0x00|0x01|11|0x0e|9|0xf4|"
            "NETA.CPA||\n");
  std::remove(path.c_str());
}

TEST(NetCapture, TsharkShowsTransportSegmentsAsTheNodeMeantThem) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  const std::string path = temp_path("net_capture_segments");
  {
    std::string error;
    auto writer = CaptureWriter::open(path, CaptureEndpoints{}, &error);
    ASSERT_TRUE(writer) << error;
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
    si.nested_cvs = {0x0B, 0x0E, 0xF4, 0xD5, 0xC5, 0xE3, 0xC1, 0x4B, 0xC3, 0xD7, 0xC1};  // NETA.CPA
    ASSERT_TRUE(append_switching_information(si, setup.options));
    append_arb(Arb{ArbMessage::kSetup, 0, false, 1, 0, 0, 1000, 2000, 3000, 4000}, setup.options);
    append_connection_id({9, 9, 9, 9, 9, 9, 9, 9}, setup.options);
    Bytes biu = {0x5D, 0x00, 0x00, 0x01, 0x80, 0, 0, 0, 0, 0, 0, 0x01, 0x6B, 0x80, 0x00};
    biu.insert(biu.end(), golden::kBind.begin(), golden::kBind.end());
    Bytes datagram = {kHprSap, kHprSap, kLlcUi};
    ASSERT_TRUE(encode_nlp(nhdr, setup, biu, datagram));
    ASSERT_TRUE(writer->write_datagram(CaptureDirection::kSent, 12001, datagram));
    // A status message: one gap, no data.
    Thdr status;
    status.tcid = {8, 7, 6, 5, 4, 3, 2, 1};
    status.start_of_message = status.end_of_message = false;
    status.optional_segments = true;
    append_status(StatusReport{true, false, 3, 2, 0x1000, {{0x1100, 0x11FF}}}, status.options);
    append_client_bits(0x8000, status.options);
    datagram = {kHprSap, kHprSap, kLlcUi};
    ASSERT_TRUE(encode_nlp(nhdr, status, {}, datagram));
    ASSERT_TRUE(writer->write_datagram(CaptureDirection::kReceived, 12001, datagram));
  }
  const std::string prefix = " -e sna.nlp.thdr.optional.";
  const std::string out =
      run("tshark -r " + path +
          " -T fields -E separator='|' -e sna.nlp.thdr.setupi -e sna.nlp.thdr.osi"
          " -e sna.nlp.thdr.offset" +
          prefix + "type" + prefix + "len" + prefix + "0d.version" + prefix + "0d.arb" + prefix +
          "0d.reliable" + prefix + "14.si.key" + prefix + "14.si.refifo" + prefix +
          "14.si.maxpsize" + prefix + "14.si.switch" + prefix + "14.si.alive" + prefix +
          "14.rr.key" + prefix + "22.type" + prefix + "22.arb" + prefix + "22.field1" + prefix +
          "22.field4" + prefix + "10.tcid" + " -e sna.th.efi -e sna.rh.0" + prefix + "0e.gap" +
          prefix + "0e.nabsp" + prefix + "0e.sync" + prefix + "0e.echo" + prefix + "0e.rseq" +
          prefix + "0f.bits -e _ws.expert -e _ws.malformed 2>/dev/null");
  const std::vector<std::string> lines = split(out, '\n');
  ASSERT_EQ(lines.size(), 2u) << out;
  EXPECT_EQ(lines[0],
            "1|1|0x0018|0x0d,0x14,0x22,0x10|2,9,5,3|0x0101|1|1|0x83|1|1461|180|30|0x85|0x00|"
            "0x01|1000|4000|0909090909090909|1|0x6b||||||||");
  EXPECT_EQ(lines[1],
            "0|1|0x000d|0x0e,0x0f|7,1|||||||||||||||||1|1|0x0003|0x0002|0x00001000|"
            "0x8000||");
  std::remove(path.c_str());
}

TEST(NetCapture, PasswordsAreBlankedInTheFileAndTheAttachStillDecodes) {
  const Bytes password = {0xE2, 0xC5, 0xC3, 0xD9, 0xC5, 0xE3};
  const std::vector<Unit> units = {{"Attach with password",
                                    CaptureDirection::kSent,
                                    false,
                                    1,
                                    {0x0B, 0x90, 0x80},
                                    golden::kAttachWithPassword}};
  const std::string path = write_capture(units, "net_capture_password");
  std::ifstream file(path, std::ios::binary);
  const Bytes content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_EQ(std::search(content.begin(), content.end(), password.begin(), password.end()),
            content.end());
  Bytes blanked = golden::kAttachWithPassword;
  std::fill(blanked.begin() + 25, blanked.begin() + 31, 0x40);
  EXPECT_NE(std::search(content.begin(), content.end(), blanked.begin(), blanked.end()),
            content.end());

  // An Attach cut by the end of an NLP inside its password: neither part of the
  // password reaches the file.
  const std::string split_path = temp_path("net_capture_split");
  {
    std::string error;
    auto writer = CaptureWriter::open(split_path, CaptureEndpoints{}, &error);
    ASSERT_TRUE(writer) << error;
    Bytes biu = {0x5C, 0x00, 0x00, 0x01, 0x80, 0, 0, 0, 0, 0, 0, 0x01, 0x0B, 0x90, 0x80};
    biu.insert(biu.end(), golden::kAttachWithPassword.begin(), golden::kAttachWithPassword.end());
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
      ASSERT_TRUE(writer->write_datagram(CaptureDirection::kSent, 12002, datagram));
    }
  }
  std::ifstream split_file(split_path, std::ios::binary);
  const Bytes split((std::istreambuf_iterator<char>(split_file)), std::istreambuf_iterator<char>());
  const Bytes head = {0x07, 0x01, 0xE2, 0xC5}, tail = {0xC3, 0xD9, 0xC5, 0xE3};
  EXPECT_EQ(std::search(split.begin(), split.end(), head.begin(), head.end()), split.end());
  EXPECT_EQ(std::search(split.begin(), split.end(), tail.begin(), tail.end()), split.end());
  std::remove(split_path.c_str());

  if (have_tshark()) {
    const std::string out = run("tshark -r " + path +
                                " -T fields -E separator='|' -e sna.rh.0 -e data.data"
                                " -e _ws.expert -e _ws.malformed 2>/dev/null");
    EXPECT_EQ(out, "0x0b|" + hex(blanked) + "||\n");
  }
  std::remove(path.c_str());
}

}  // namespace
}  // namespace snanode::net
