// Frame encoding, the LL walk and the in-memory link.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "engine/frame.h"
#include "engine/frame_reader.h"
#include "engine/link.h"
#include "engine/logical_records.h"

namespace {

using namespace snanode::engine;

std::vector<uint8_t> bytes(const std::string &s) {
  return {s.begin(), s.end()};
}

TEST(EngineFrame, EncodesInFixedByteOrderAndDecodesBack) {
  std::vector<uint8_t> out;
  encode_frame(
      {.type = FrameType::kAttachFailed, .flags = 2, .code = 0x21600810, .payload = bytes("log")},
      out);
  EXPECT_EQ(out, bytes(std::string("\0\0\0\x09\x08\x02\x21\x60\x08\x10log", 13)));
  encode_frame({.type = FrameType::kData, .payload = bytes("xy")}, out);
  size_t used = 0;
  auto first = decode_frame(out.data(), out.size(), used);
  ASSERT_TRUE(first);
  EXPECT_EQ(used, 13u);
  EXPECT_EQ(first->code, 0x21600810u);
  EXPECT_EQ(first->flags, 2);
  EXPECT_EQ(first->payload, bytes("log"));
  auto next = decode_frame(out.data() + used, out.size() - used, used);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->type, FrameType::kData);
  EXPECT_EQ(next->payload, bytes("xy"));
}

TEST(EngineFrame, PartialInputWaitsAndBadInputIsRefused) {
  std::vector<uint8_t> out;
  encode_frame({.payload = bytes("abcdef")}, out);
  size_t used = 99;
  for (size_t cut = 0; cut < out.size(); ++cut) {
    EXPECT_FALSE(decode_frame(out.data(), cut, used)) << cut;
    EXPECT_EQ(used, 0u);
  }
  std::vector<uint8_t> short_length = {0, 0, 0, 3, 1, 0, 0};
  EXPECT_THROW(decode_frame(short_length.data(), short_length.size(), used), std::invalid_argument);
  std::vector<uint8_t> huge = {0x7F, 0, 0, 0};
  EXPECT_THROW(decode_frame(huge.data(), huge.size(), used), std::invalid_argument);
  std::vector<uint8_t> unknown = out;
  unknown[4] = 0x55;
  EXPECT_THROW(decode_frame(unknown.data(), unknown.size(), used), std::invalid_argument);
}

// A reader given a budget stops once its frames hold that much and takes
// the rest, in order and whole, on the following reads; to the end it
// ignores the budget.
TEST(EngineFrameReader, StopsAtItsBudgetAndResumesWhereItStopped) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  constexpr int kFrames = 4;
  std::vector<uint8_t> wire;
  for (int i = 0; i < kFrames; ++i) {
    encode_frame({.type = FrameType::kData,
                  .code = static_cast<uint32_t>(i),
                  .payload = std::vector<uint8_t>(40000, static_cast<uint8_t>(i))},
                 wire);
  }
  const int room = 1 << 20;
  ::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  ASSERT_EQ(::send(fds[1], wire.data(), wire.size(), MSG_DONTWAIT),
            static_cast<ssize_t>(wire.size()));
  FrameReader reader;
  std::vector<Frame> frames;
  // Each frame alone passes the budget: one per read, the next one's start
  // kept for the following read.
  reader.read(fds[0], frames, false, false, 30000);
  EXPECT_EQ(frames.size(), 1u);
  reader.read(fds[0], frames, false, false, 30000);
  EXPECT_EQ(frames.size(), 2u);
  reader.read(fds[0], frames, true, false, 1);
  ASSERT_EQ(frames.size(), static_cast<size_t>(kFrames));
  for (int i = 0; i < kFrames; ++i) {
    EXPECT_EQ(frames[i].code, static_cast<uint32_t>(i));
    EXPECT_EQ(frames[i].payload, std::vector<uint8_t>(40000, static_cast<uint8_t>(i)));
  }
  EXPECT_EQ(reader.end(), FrameReader::End::kNone);
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST(EngineRecordCursor, WalksRecordsAcrossPiecesAndRefusesBadLengths) {
  RecordCursor cursor;
  const std::string stream = std::string("\x00\x05", 2) + "abc" + std::string("\x00\x02", 2);
  // Byte by byte: a boundary after each whole record only.
  std::vector<bool> boundaries;
  for (char c : stream) {
    const auto b = static_cast<uint8_t>(c);
    ASSERT_TRUE(cursor.advance(&b, 1));
    boundaries.push_back(cursor.at_boundary());
  }
  EXPECT_EQ(boundaries, (std::vector<bool>{false, false, false, false, true, false, true}));

  RecordCursor fresh;
  const auto data = bytes(std::string("\x00\x06", 2) + "ab");
  EXPECT_EQ(fresh.left_in_record(data.data(), 1), std::nullopt);
  EXPECT_EQ(fresh.left_in_record(data.data(), data.size()), 6u);
  EXPECT_EQ(fresh.last_boundary(data.data(), data.size()), 0u);
  ASSERT_TRUE(fresh.advance(data.data(), 3));  // inside the record now
  EXPECT_EQ(fresh.left_in_record(nullptr, 0), 3u);
  EXPECT_EQ(fresh.last_boundary(data.data() + 3, 1), std::nullopt);

  for (const char *ll : {"\x00\x00", "\x00\x01", "\x80\x00", "\x80\x01"}) {
    RecordCursor c;
    const auto bad = bytes(std::string("\x00\x03", 2) + "z" + std::string(ll, 2));
    EXPECT_FALSE(c.advance(bad.data(), bad.size()));
    EXPECT_TRUE(c.at_boundary());  // unchanged by the refused walk
  }
  RecordCursor high_bit;
  const auto continued = bytes(std::string("\x80\x03", 2) + "z");
  EXPECT_TRUE(high_bit.advance(continued.data(), continued.size()));
  EXPECT_TRUE(high_bit.at_boundary());
}

struct Recorder : FrameSink {
  std::vector<Frame> frames;
  int lost = 0;
  void on_frame(Frame &&frame) override { frames.push_back(std::move(frame)); }
  void link_lost() override { ++lost; }
};

TEST(EngineLink, DeliversInOrderDropsAfterCloseAndReportsLoss) {
  for (bool quietly : {true, false}) {
    auto pair = make_in_memory_link();
    Recorder left, right;
    pair.first->attach(&left);
    pair.second->attach(&right);
    for (uint8_t i = 0; i < 3; ++i) pair.first->send({.flags = i, .payload = {}});
    ASSERT_EQ(right.frames.size(), 3u);
    EXPECT_EQ(right.frames[2].flags, 2);
    pair.second->close(quietly);
    EXPECT_EQ(left.lost, quietly ? 0 : 1);
    pair.first->send(Frame{});
    pair.second->send(Frame{});
    EXPECT_EQ(right.frames.size(), 3u);
    EXPECT_TRUE(left.frames.empty());
  }
}

}  // namespace
