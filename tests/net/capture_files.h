// Capture files the tests write and hand to tshark: where they go, opening
// the writer, reading one back, and the whole BIU of one test session around
// an RH and RU.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "net/capture/pcap_writer.h"
#include "net/tshark_run.h"

namespace snanode::net::tshark_check {

// A capture file of this process under $TMPDIR (or /tmp).
inline std::string temp_pcap(const std::string &name) {
  const char *dir = std::getenv("TMPDIR");
  return std::string(dir ? dir : "/tmp") + "/" + name + "." + std::to_string(::getpid()) + ".pcap";
}

inline std::unique_ptr<CaptureWriter> open_capture(const std::string &path) {
  std::string error;
  auto writer = CaptureWriter::open(path, CaptureEndpoints{}, &error);
  EXPECT_TRUE(writer) << error;
  return writer;
}

// Writes a capture with `write(writer)`, and returns what tshark prints of it
// with `options` (standard error dropped); the file is removed.
template <class Write>
std::string read_back(const std::string &name, Write write, const std::string &options) {
  const std::string path = temp_pcap(name);
  if (auto writer = open_capture(path)) write(*writer);
  const std::string out = run("tshark -r " + path + " " + options + " 2>/dev/null");
  std::remove(path.c_str());
  return out;
}

inline Bytes read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// FID5 TH of the test session (address 80..01, whole BIU), then the RH and RU.
inline Bytes whole_biu(bool expedited, uint16_t snf, ByteSpan rh, ByteSpan ru) {
  Bytes biu = {
      uint8_t(0x5C | expedited), 0, uint8_t(snf >> 8), uint8_t(snf), 0x80, 0, 0, 0, 0, 0, 0, 1};
  biu.insert(biu.end(), rh.begin(), rh.end());
  biu.insert(biu.end(), ru.begin(), ru.end());
  return biu;
}

}  // namespace snanode::net::tshark_check
