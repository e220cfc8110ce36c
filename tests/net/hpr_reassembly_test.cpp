// What an RTP receiver hands up: a whole message that arrived in order in one
// NLP is the NLP's own bytes; everything else is held by the result, so it
// outlives the NLPs it came in.
#include <gtest/gtest.h>

#include <string>

#include "net/hpr/rtp_reassembly.h"

namespace snanode::net::hpr {
namespace {

Bytes bytes_of(const std::string &text) {
  return Bytes(text.begin(), text.end());
}

std::string text_of(ByteSpan span) {
  return std::string(span.begin(), span.end());
}

bool inside(ByteSpan part, const Bytes &buffer) {
  return part.data() >= buffer.data() && part.data() + part.size() <= buffer.data() + buffer.size();
}

TEST(HprReassembly, InOrderWholeMessagesAreViewsOfTheNlpAndTheRestIsHeld) {
  RtpReassembly r(1024, 1024);
  using Outcome = RtpReassembly::Outcome;

  const Bytes first = bytes_of("abc");
  RtpReassembly::Completed done;
  EXPECT_EQ(r.accept(0, first, true, true, done), Outcome::kAccepted);
  ASSERT_EQ(done.messages.size(), 1u);
  EXPECT_EQ(done.messages[0].data(), first.data());
  EXPECT_EQ(done.messages[0].size(), first.size());
  EXPECT_TRUE(done.storage.empty());

  // "de" in two NLPs and the whole "fgh" after it arrive backwards; the NLPs'
  // buffers are gone before the messages are read.
  RtpReassembly::Completed later;
  for (auto [bsn, text, start, end] :
       {std::tuple{5u, "fgh", true, true}, {4u, "e", false, true}, {3u, "d", true, false}}) {
    const Bytes nlp = bytes_of(text);
    EXPECT_EQ(r.accept(bsn, nlp, start, end, later), Outcome::kAccepted) << text;
  }
  ASSERT_EQ(later.messages.size(), 2u);
  EXPECT_EQ(text_of(later.messages[0]), "de");
  EXPECT_EQ(text_of(later.messages[1]), "fgh");
  for (ByteSpan message : later.messages) {
    EXPECT_TRUE(inside(message, later.storage.at(0)) || inside(message, later.storage.at(1)));
  }
  EXPECT_EQ(r.next(), 8u);
  EXPECT_EQ(r.buffered(), 0u);

  // A message in several NLPs, in order, comes out once its end is in.
  RtpReassembly::Completed split;
  const Bytes head = bytes_of("ij"), tail = bytes_of("k");
  EXPECT_EQ(r.accept(8, head, true, false, split), Outcome::kAccepted);
  EXPECT_TRUE(split.messages.empty());
  EXPECT_EQ(r.accept(10, tail, false, true, split), Outcome::kAccepted);
  ASSERT_EQ(split.messages.size(), 1u);
  EXPECT_EQ(text_of(split.messages[0]), "ijk");
  ASSERT_EQ(split.storage.size(), 1u);
  EXPECT_TRUE(inside(split.messages[0], split.storage[0]));

  // A repeat of delivered data hands up nothing.
  RtpReassembly::Completed again;
  EXPECT_EQ(r.accept(0, first, true, true, again), Outcome::kDuplicate);
  EXPECT_TRUE(again.messages.empty());
}

}  // namespace
}  // namespace snanode::net::hpr
