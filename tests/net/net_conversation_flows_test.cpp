// One conversation on a session, flow by flow: the frames a TP's engine sends,
// the units that go over the session (RH bytes and RU bytes written from the
// published flows, not from the encoders), and the frames the partner's TP
// sees.  Two translators run back to back (A allocates, B is attached); a local
// link hands every frame to the peer as it is, so unless a row says otherwise
// the partner's TP must see exactly the frames the sender's TP sent.  Every unit
// of every flow is then written to a pcap and read back by tshark.
#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <functional>
#include <string>

#include "net/capture_files.h"
#include "net/lu62/conversation_translator.h"
#include "net/tshark_run.h"
#include "snanode/verbs.h"

namespace snanode::net::lu62 {
namespace {

using engine::Frame;
using engine::FrameType;

enum class Dir : uint8_t { kAtoB, kBtoA };

std::string to_hex(ByteSpan bytes) {
  return tshark_check::hex(bytes);
}

std::string repeat(const std::string &text, size_t times) {
  std::string out;
  for (size_t i = 0; i < times; ++i) out += text;
  return out;
}

Bytes rh_bytes(const Rh &rh) {
  Bytes bytes;
  ByteWriter w(bytes);
  encode_rh(rh, w);
  return bytes;
}
std::string rh_hex(const Rh &rh) {
  return to_hex(rh_bytes(rh));
}

Frame frame(FrameType type, uint8_t flags = 0, const std::string &payload = "", uint32_t code = 0) {
  Frame f;
  f.type = type;
  f.flags = flags;
  f.code = code;
  f.payload.assign(payload.begin(), payload.end());
  return f;
}
Frame data(const std::string &text, bool more = false) {
  return frame(FrameType::kData, more ? engine::kDataMoreFollows : 0, text);
}
Frame data_bytes(const Bytes &bytes, bool more = false) {
  return frame(FrameType::kData, more ? engine::kDataMoreFollows : 0, {bytes.begin(), bytes.end()});
}
constexpr uint8_t kCdKind = static_cast<uint8_t>(engine::ConfirmKind::kChangeDirection);
constexpr uint8_t kDeallocKind = static_cast<uint8_t>(engine::ConfirmKind::kDeallocate);
constexpr uint8_t kAbend = static_cast<uint8_t>(engine::DeallocKind::kAbend);
constexpr uint8_t kTrunc = static_cast<uint8_t>(engine::SendErrorKind::kTruncation);
constexpr uint8_t kPurging = static_cast<uint8_t>(engine::SendErrorKind::kPurging);

// Frames as text, compared whole: type, flags, code and every payload byte.
std::string text(const std::vector<Frame> &frames) {
  std::string out;
  for (const Frame &f : frames) {
    out += "{" + std::to_string(static_cast<int>(f.type)) + " " + std::to_string(f.flags) + " " +
           std::to_string(f.code) + " " + to_hex(f.payload) + "} ";
  }
  return out;
}

// TP "HELLO" (EBCDIC), no security, sync level as given.
Attach hello(bool mapped, AttachSyncLevel sync = AttachSyncLevel::kConfirm) {
  Attach attach;
  attach.resource =
      mapped ? ConversationResource::kMappedHalfDuplex : ConversationResource::kBasicHalfDuplex;
  attach.sync_level = sync;
  attach.tp_name = {0xC8, 0xC5, 0xD3, 0xD3, 0xD6};
  return attach;
}
// The FMH-5 of hello(true): length, type 5, Attach, no security flags, fixed
// part (mapped, confirm), TP name, empty security, LUW and correlator.
const std::string kHelloMapped = "120502ff0003d1004005c8c5d3d3d6000000";
const std::string kHelloBasic = "120502ff0003d0004005c8c5d3d3d6000000";

struct Wire {
  Dir dir;
  Unit unit;
};

// Two translators joined by an in-order session in each direction.
struct Pair {
  explicit Pair(Attach attach, size_t max_ru = 256)
      : a(ConversationTranslator::allocating(attach, max_ru)),
        b(ConversationTranslator::attached(max_ru)) {}

  void send(Dir from, const Frame &f, bool deliver = true) {
    (from == Dir::kAtoB ? sent_by_a : sent_by_b).push_back(f);
    take(from, (from == Dir::kAtoB ? a : b).on_frame(f));
    if (deliver) pump();
  }
  void pump() {
    // Bounded: two translators must never keep answering each other.
    while (!in_flight.empty() && deliveries < kMaxDeliveries) deliver_one();
  }
  void deliver_one() {
    Wire w = std::move(in_flight.front());
    in_flight.pop_front();
    if (deliveries++ == mutate_at) mutate(w.unit);
    const Dir back = w.dir == Dir::kAtoB ? Dir::kBtoA : Dir::kAtoB;
    (back == Dir::kAtoB ? bytes_to_a : bytes_to_b) += w.unit.ru.size();
    take(back, (w.dir == Dir::kAtoB ? b : a).on_unit(w.unit.rh, w.unit.ru));
  }
  // What a side's translator produced: its units go on the wire, its frames
  // to its own TP.
  void take(Dir side, Output out) {
    auto &seen = side == Dir::kAtoB ? a_sees : b_sees;
    for (auto &f : out.frames) seen.push_back(std::move(f));
    if (out.attach) attach = out.attach;
    if (out.failure) (side == Dir::kAtoB ? a_failure : b_failure) = out.failure;
    for (auto &u : out.units) {
      transcript.push_back({side, u});
      in_flight.push_back({side, std::move(u)});
    }
  }

  ConversationTranslator a, b;
  std::vector<Frame> sent_by_a, sent_by_b, a_sees, b_sees;
  std::optional<Attach> attach;
  std::optional<uint16_t> a_failure, b_failure;  // what each TP's next verb got
  std::vector<Wire> transcript;
  std::deque<Wire> in_flight;
  static constexpr size_t kMaxDeliveries = 1000;
  size_t deliveries = 0, bytes_to_a = 0, bytes_to_b = 0;
  size_t mutate_at = SIZE_MAX;  // the delivery `mutate` spoils
  std::function<void(Unit &)> mutate;
};

// One expected unit: direction, RH, and the RU (or its start, with "...").
struct Expect {
  Dir dir;
  std::string rh;
  std::string ru;
  bool expedited = false;
  int times = 1;  // the same unit this many times in a row
};

struct Step {
  Dir from;
  Frame frame;
  bool deliver = true;  // false: its units stay on the wire while the next step runs
};

// Stand-ins for "the frames the other TP sent", the local partner's view.
const std::vector<Frame> kAsSent = {frame(FrameType::kErrorSeen, 0xEE)};

struct Flow {
  const char *name;
  Attach attach;
  size_t max_ru;
  std::vector<Step> steps;
  std::vector<Expect> units;
  std::vector<Frame> b_sees = kAsSent;
  std::vector<Frame> a_sees = kAsSent;
  bool ended = false;
};

constexpr Dir AB = Dir::kAtoB, BA = Dir::kBtoA;
const std::string kLustat = "0400060001";
const std::string kMinusRsp0846 = "08460000";

// Short names for the table.
const auto cd = [] { return frame(FrameType::kChangeDirection); };
const auto confirm = [](uint8_t kind = 0) { return frame(FrameType::kConfirm, kind); };
const auto confirmed = [] { return frame(FrameType::kConfirmed); };
const auto purging = [] { return frame(FrameType::kSendError, kPurging); };
const auto seen = [] { return frame(FrameType::kErrorSeen); };
const auto dealloc = [](uint8_t kind = 0, const std::string &log = "") {
  return frame(FrameType::kDeallocate, kind, log);
};
const auto refused = [](uint32_t code) { return frame(FrameType::kAttachFailed, 0, "", code); };
const auto basic = [](std::initializer_list<uint8_t> bytes, bool more = false) {
  return data_bytes(Bytes(bytes), more);
};

std::vector<Flow> flows() {
  // A basic record of 40000 bytes as the TP writes it: segments with the
  // continuation bit, each at most 32767 bytes counting its LL.
  Bytes big_basic = {0xFF, 0xFF};
  big_basic.resize(32767, 'y');
  big_basic.insert(big_basic.end(), {0x1D, 0x4B});
  big_basic.resize(big_basic.size() + 0x1D4B - 2, 'z');
  const auto part = [&](size_t from, size_t to) {
    return data_bytes(Bytes(big_basic.begin() + from, big_basic.begin() + to));
  };
  const size_t first = 16384 - 18;  // the FMH-5 takes 18 bytes of the first RU
  const std::string m = kHelloMapped, b = kHelloBasic, fmh7 = "0707";
  const auto alloc_error = [&](uint32_t secondary, const std::string &sense) {
    return Flow{"allocation error",
                hello(true),
                256,
                {{AB, data("hi")}, {BA, refused(secondary)}},
                {{AB, "0b9080", m + "000612ff6869"},
                 {BA, "879000", kMinusRsp0846},
                 {AB, "4b9020", kLustat},
                 {BA, "0b9001", fmh7 + sense + "00"}},
                {data("hi")},
                {refused(secondary)},
                true};
  };
  // clang-format off
  std::vector<Flow> table = {
    {"attach + first data, flush", hello(true), 256, {{AB, data("HELLO")}},
     {{AB, "0b9080", m + "000912ff48454c4c4f"}}},
    {"flush, then a second chain", hello(true), 256, {{AB, data("one")}, {AB, data("two")}},
     {{AB, "0b9080", m + "000712ff6f6e65"}, {AB, "039000", "000712ff74776f"}}},
    {"record larger than the RU size: a chain", hello(true), 32, {{AB, data(std::string(60, 'a'))}},
     {{AB, "0a9080", m + "004012ff" + repeat("61", 10)}, {AB, "009000", repeat("61", 32)},
      {AB, "019000", repeat("61", 18)}}},
    {"mapped record over 32767 bytes: continuation", hello(true), 4096,
     {{AB, data(std::string(40000, 'x'))}},
     {{AB, "0a9080", m + "ffff12ff..."}, {AB, "009000", "...", false, 8}, {AB, "019000", "..."}}},
    {"basic record over 32767 bytes: the TP's segments pass unchanged", hello(false), 16384,
     {{AB, data_bytes(big_basic)}},
     {{AB, "0a9080", b + "ffff7979..."}, {AB, "009000", "..."}, {AB, "019000", "..."}},
     {part(0, first), part(first, first + 16384), part(first + 16384, big_basic.size())}},
    {"data filling the RU exactly still carries the status", hello(true), 32,
     {{AB, data(std::string(10, 'e'), true)}, {AB, cd()}},
     {{AB, "0b90a0", m + "000e12ff" + repeat("65", 10)}}},
    {"change direction, then B sends", hello(true), 256,
     {{AB, data("q", true)}, {AB, cd()}, {BA, data("r")}},
     {{AB, "0b90a0", m + "000512ff71"}, {BA, "039000", "000512ff72"}}},
    {"confirm / confirmed, with data and alone", hello(true), 256,
     {{AB, data("c", true)}, {AB, confirm()}, {BA, confirmed()}, {AB, confirm()}, {BA, confirmed()}},
     {{AB, "0ba080", m + "000512ff63"}, {BA, "83a000", ""}, {AB, "4ba000", kLustat},
      {BA, "cba000", "04"}}},
    {"request to send", hello(true), 256, {{AB, data("x")}, {BA, frame(FrameType::kRequestToSend)}},
     {{AB, "0b9080", m + "000512ff78"}, {BA, "4b8000", "c900010001", true},
      {AB, "cb8000", "c9", true}}},
    {"send-error in send state, basic, truncating, with log data", hello(false), 256,
     {{AB, basic({0, 4, 'o', 'k'})}, {AB, basic({0, 9, 'p', 'a'}, true)},
      {AB, frame(FrameType::kSendError, kTrunc, "LOG")}},
     {{AB, "0b9080", b + "00046f6b"}, {AB, "039000", "00097061"},
      {AB, "0b9000", fmh7 + "0889000180" "000712e14c4f47"}},
     {basic({0, 4, 'o', 'k'}), basic({0, 9, 'p', 'a'}), frame(FrameType::kSendError, kTrunc, "LOG")}},
    {"send-error in receive state: purging", hello(true), 256,
     {{AB, data("d1")}, {BA, purging()}, {BA, data("b1")}},
     {{AB, "0b9080", m + "000612ff6431"}, {BA, "879000", kMinusRsp0846}, {AB, "4b9020", kLustat},
      {BA, "0b9000", fmh7 + "0889000000"}, {BA, "039000", "000612ff6231"}},
     {data("d1"), seen()}},
    {"send-error in confirm state", hello(true), 256,
     {{AB, data("d", true)}, {AB, confirm()}, {BA, purging()}},
     {{AB, "0ba080", m + "000512ff64"}, {BA, "87b000", kMinusRsp0846}, {AB, "4b9020", kLustat},
      {BA, "0b9000", fmh7 + "0889000000"}},
     {data("d", true), confirm(), seen()}},
    {"send-error in confirm-send state: B already has the turn", hello(true), 256,
     {{AB, confirm(kCdKind)}, {BA, purging()}},
     {{AB, "0ba0a0", m}, {BA, "87b000", kMinusRsp0846}, {BA, "0b9000", fmh7 + "0889000000"}},
     {confirm(kCdKind), seen()}},
    {"send-error in send-pending state: the error is in what came with the turn", hello(true), 256,
     {{AB, data("q", true)}, {AB, cd()}, {BA, purging()}},
     {{AB, "0b90a0", m + "000512ff71"}, {BA, "879000", kMinusRsp0846},
      {BA, "0b9000", fmh7 + "0889000000"}},
     {data("q", true), cd(), seen()}},
    {"what the TP sent before it read the partner's purging error is purged, even with the turn",
     hello(true), 256,
     {{AB, data("d1")}, {BA, purging()}, {BA, cd()}, {AB, data("stale", true)}, {AB, cd()},
      {AB, seen()}, {AB, data("fresh")}},
     {{AB, "0b9080", m + "000612ff6431"}, {BA, "879000", kMinusRsp0846}, {AB, "4b9020", kLustat},
      {BA, "0b9000", fmh7 + "0889000000"}, {BA, "4b9020", kLustat},
      {AB, "039000", "000912ff6672657368"}},
     {data("d1"), seen(), data("fresh")}},
    {"data crossing a purging send-error is purged", hello(true), 256,
     {{AB, data("d1")}, {AB, data("d2"), false}, {BA, purging()}},
     {{AB, "0b9080", m + "000612ff6431"}, {AB, "039000", "000612ff6432"},
      {BA, "879000", kMinusRsp0846}, {AB, "4b9020", kLustat}, {BA, "0b9000", fmh7 + "0889000000"}},
     {data("d1"), seen()}},
    {"a purging send-error before the partner's data came: its negative response answers that data",
     hello(true),
     256,
     {{AB, data("d", true)}, {AB, cd()}, {BA, data("b1"), false}, {AB, purging()}},
     {{AB, "0b90a0", m + "000512ff64"}, {BA, "039000", "000612ff6231"},
      {AB, "879000", kMinusRsp0846}, {BA, "4b9020", kLustat}, {AB, "0b9000", fmh7 + "0889000000"}},
     kAsSent,
     {seen()}},
    {"a confirmation crossing a purging send-error is refused too", hello(true), 256,
     {{AB, data("d1")}, {AB, data("d2", true), false}, {AB, confirm(), false}, {BA, purging()}},
     {{AB, "0b9080", m + "000612ff6431"}, {AB, "03a000", "000612ff6432"},
      {BA, "879000", kMinusRsp0846}, {BA, "87b000", kMinusRsp0846}, {AB, "4b9020", kLustat},
      {BA, "0b9000", fmh7 + "0889000000"}},
     {data("d1"), seen()}},
    {"deallocate flush", hello(true), 256, {{AB, data("z", true)}, {AB, dealloc()}},
     {{AB, "0b9081", m + "000512ff7a"}}, kAsSent, kAsSent, true},
    {"deallocate confirm", hello(true), 256,
     {{AB, data("z", true)}, {AB, confirm(kDeallocKind)}, {BA, confirmed()}},
     {{AB, "0ba081", m + "000512ff7a"}, {BA, "83a000", ""}}, kAsSent, kAsSent, true},
    {"deallocate abend with log data, basic", hello(false), 256,
     {{AB, basic({0, 3, 'k'})}, {AB, basic({0, 3, 'z'}, true)}, {AB, dealloc(kAbend, "BAD")}},
     {{AB, "0b9080", b + "00036b"}, {AB, "039000", "00037a"},
      {AB, "0b9001", fmh7 + "0864000080" "000712e1424144"}},
     {basic({0, 3, 'k'}), basic({0, 3, 'z'}), dealloc(kAbend, "BAD")}, kAsSent, true},
    {"Attach and FMH-7 with log data each spanning RUs", hello(false), 8,
     {{AB, basic({0, 3, 'k'})}, {AB, dealloc(kAbend, "BAD")}},
     {{AB, "0a9080", "120502ff0003d000"}, {AB, "009000", "4005c8c5d3d3d600"},
      {AB, "019000", "000000036b"}, {AB, "0a9000", "0707086400008000"},
      {AB, "019001", "0712e1424144"}},
     kAsSent, kAsSent, true},
    {"deallocate abend from the receiving side", hello(true), 256,
     {{AB, data("x")}, {BA, dealloc(kAbend)}},
     {{AB, "0b9080", m + "000512ff78"}, {BA, "879000", kMinusRsp0846}, {AB, "4b9020", kLustat},
      {BA, "0b9001", fmh7 + "0864000000"}},
     kAsSent, kAsSent, true},
    {"attach refused when B already has the turn", hello(true), 256,
     {{AB, cd()}, {BA, refused(AP_TP_NAME_NOT_RECOGNIZED)}},
     {{AB, "0b90a0", m}, {BA, "0b9001", fmh7 + "1008602100"}}, kAsSent, kAsSent, true},
  };
  // clang-format on
  table.push_back(alloc_error(AP_TP_NAME_NOT_RECOGNIZED, "10086021"));
  table.push_back(alloc_error(AP_SECURITY_NOT_VALID, "080f6051"));
  table.push_back(alloc_error(AP_CONV_TYPE_MISMATCH, "10086034"));
  table.push_back(alloc_error(AP_SYNC_LEVEL_NOT_SUPPORTED, "10086041"));
  table.push_back(alloc_error(AP_TP_NOT_AVAILABLE_RETRY, "084b6031"));
  table.push_back(alloc_error(AP_TP_NOT_AVAILABLE_NO_RETRY, "084c0000"));
  return table;
}

// The RH of every unit that went over the session, in order.
std::string rhs(const Pair &pair) {
  std::string out;
  for (const Wire &w : pair.transcript) out += rh_hex(w.unit.rh) + " ";
  return out;
}

// Runs a flow's steps through a fresh pair; the delivery `mutate_at`, if
// any, is spoiled by `mutate` on its way.
Pair run_flow(const Flow &flow, size_t mutate_at = SIZE_MAX,
              std::function<void(Unit &)> mutate = {}) {
  Pair pair(flow.attach, flow.max_ru);
  pair.mutate_at = mutate_at;
  pair.mutate = std::move(mutate);
  for (const Step &step : flow.steps) pair.send(step.from, step.frame, step.deliver);
  return pair;
}

std::vector<Frame> expected(const std::vector<Frame> &row, const std::vector<Frame> &sent) {
  if (text(row) != text(kAsSent)) return row;
  // A local link would deliver every frame but the purging handshake's answer,
  // which each side's translator makes for its own TP.
  std::vector<Frame> out;
  for (const Frame &f : sent) {
    if (f.type != FrameType::kErrorSeen) out.push_back(f);
  }
  return out;
}

TEST(NetConversationFlows, EachFlowSendsTheUnitsMeantAndThePartnerSeesTheSameFrames) {
  for (const Flow &flow : flows()) {
    SCOPED_TRACE(flow.name);
    const Pair pair = run_flow(flow);

    std::vector<Expect> want;
    for (const Expect &e : flow.units) want.insert(want.end(), e.times, e);
    ASSERT_EQ(pair.transcript.size(), want.size()) << rhs(pair);
    for (size_t i = 0; i < want.size(); ++i) {
      const Wire &got = pair.transcript[i];
      SCOPED_TRACE("unit " + std::to_string(i));
      EXPECT_EQ(got.dir, want[i].dir);
      EXPECT_EQ(rh_hex(got.unit.rh), want[i].rh);
      EXPECT_EQ(got.unit.expedited, want[i].expedited);
      EXPECT_LE(got.unit.ru.size(), flow.max_ru);
      const std::string ru = to_hex(got.unit.ru);
      const size_t open = want[i].ru.find("...");
      EXPECT_EQ(open == std::string::npos ? ru : ru.substr(0, open), want[i].ru.substr(0, open));
    }
    EXPECT_EQ(text(pair.b_sees), text(expected(flow.b_sees, pair.sent_by_a)));
    EXPECT_EQ(text(pair.a_sees), text(expected(flow.a_sees, pair.sent_by_b)));
    EXPECT_EQ(pair.attach, flow.attach);
    EXPECT_EQ(pair.a.ended() + 10 * pair.b.ended(), 11 * flow.ended);
  }
}

TEST(NetConversationFlows, AttachCarriesSecurityAndTheSessionEndsConversationsWithTheRightCode) {
  Attach secured = hello(false, AttachSyncLevel::kNone);
  secured.user_id = Bytes{0xE4, 0xE2, 0xC5, 0xD9, 0xF1};  // USER1
  secured.password = Bytes{0xD7, 0xE6};
  secured.conversation_correlator = {1, 2, 3, 4};
  Pair pair(secured);
  pair.send(AB, data_bytes({0x00, 0x02}));
  ASSERT_EQ(pair.transcript.size(), 1u);
  // Security 0b: user ID, password; no LUW; correlator 01020304; the record.
  EXPECT_EQ(to_hex(pair.transcript[0].unit.ru),
            "210502ff0003d0000005c8c5d3d3d60b0602e4e2c5d9f10301d7e6000401020304"
            "0002");
  EXPECT_EQ(pair.attach, secured);

  Attach verified = hello(true);
  verified.user_id = Bytes{0xE4, 0xE2, 0xC5, 0xD9, 0xF1};
  verified.already_verified = true;
  Pair second(verified);
  second.send(AB, frame(FrameType::kChangeDirection));
  EXPECT_EQ(second.attach, verified);
  EXPECT_EQ(to_hex(second.transcript[0].unit.ru).substr(8, 2), "80");

  // A partner that ends the bracket with RQD1 gets its response at once; the
  // TP sees a plain deallocation.
  Pair rqd1(hello(true));
  rqd1.send(AB, data("x"));
  Rh end;
  end.set_form(ResponseForm::kRqd1);
  end.cebi = true;
  Output ended = rqd1.b.on_unit(end, Bytes{0x00, 0x05, 0x12, 0xFF, 'y'});
  ASSERT_EQ(ended.units.size(), 1u);
  EXPECT_EQ(rh_hex(ended.units[0].rh), "838000");
  EXPECT_EQ(text(ended.frames), text({data("y", true), dealloc()}));
  EXPECT_TRUE(rqd1.b.ended());

  // A path failure may heal on a new session; a protocol error would recur.
  Output path = pair.a.on_session_failure(0x80020000);
  EXPECT_EQ(path.failure, AP_CONV_FAILURE_RETRY);
  EXPECT_TRUE(pair.a.ended());
  EXPECT_FALSE(pair.a.on_session_failure(0x80020000).failure.has_value());
  EXPECT_EQ(pair.b.on_session_failure(0x20030000).failure, AP_CONV_FAILURE_NO_RETRY);
  // After the end, nothing the TP sends reaches the session.
  EXPECT_TRUE(pair.a.on_frame(data_bytes({0x00, 0x02})).units.empty());

  // The TP's link breaking (its process died) is a conversation failure for
  // the partner's TP, not an abend; before anything reached the partner there
  // is nothing to end there.
  Pair lost(hello(true));
  lost.send(AB, data("x"));
  lost.send(AB, data("y", true));
  lost.take(AB, lost.a.on_link_lost());
  lost.pump();
  ASSERT_EQ(rhs(lost), "0b9080 039000 0b9001 ");
  EXPECT_EQ(to_hex(lost.transcript[2].unit.ru), "07070864000100");
  EXPECT_EQ(text(lost.b_sees), text({data("x"), data("y")}));
  EXPECT_EQ(lost.b_failure, AP_CONV_FAILURE_NO_RETRY);
  EXPECT_TRUE(lost.a.ended() && lost.b.ended());
  // A TP that deallocates while its partner's purging error is on the way
  // gave the turn away: its end reaches the partner as an abend after the
  // partner's FMH-7.
  Pair gone(hello(true));
  gone.send(AB, data("d1"));
  gone.send(BA, frame(FrameType::kSendError, kPurging), false);
  gone.deliver_one();  // the −RSP reaches A, A's CD is on the wire
  gone.send(AB, frame(FrameType::kDeallocate), false);
  gone.pump();
  EXPECT_EQ(rhs(gone), "0b9080 879000 4b9020 0b9000 879000 4b9020 0b9001 ");
  EXPECT_EQ(to_hex(gone.transcript.back().unit.ru), "07070864000000");
  EXPECT_EQ(text(gone.b_sees), text({data("d1"), seen(), dealloc(kAbend)}));
  EXPECT_EQ(text(gone.a_sees), "");
  EXPECT_TRUE(gone.a.ended() && gone.b.ended());
  // The same when the partner's FMH-7 reached A's translator first: A's TP
  // had not read it yet when it deallocated.
  Pair late(hello(true));
  late.send(AB, data("d1"));
  late.send(BA, frame(FrameType::kSendError, kPurging));
  late.send(AB, frame(FrameType::kDeallocate));
  EXPECT_EQ(rhs(late), "0b9080 879000 4b9020 0b9000 879000 4b9020 0b9001 ");
  EXPECT_TRUE(late.a.ended() && late.b.ended());

  Pair unsent(hello(true));
  unsent.send(AB, data("y", true));
  EXPECT_TRUE(unsent.a.on_link_lost().units.empty());
  EXPECT_TRUE(unsent.a.ended());
}

using tshark_check::have_tshark;

size_t data_bytes_in(const std::vector<Frame> &frames) {
  size_t total = 0;
  for (const Frame &f : frames) total += f.type == FrameType::kData ? f.payload.size() : 0;
  return total;
}

// Every unit of every flow, delivered cut short or with one RH bit flipped:
// the translators may end the conversation, but they stay bounded, never hand
// a TP more data than came in, and say nothing more once ended.
TEST(NetConversationFlows, SpoiledUnitsNeverLoopOrMakeUpData) {
  for (const Flow &flow : flows()) {
    SCOPED_TRACE(flow.name);
    const Pair clean = run_flow(flow);
    for (size_t at = 0; at < clean.deliveries; ++at) {
      std::vector<std::function<void(Unit &)>> spoils;
      for (size_t cut : {0, 1, 2, 3, 5, 7, 9}) {
        spoils.push_back([cut](Unit &u) { u.ru.resize(std::min(cut, u.ru.size())); });
      }
      for (int bit = 0; bit < 24; ++bit) {
        spoils.push_back([bit](Unit &u) {
          Bytes rh = rh_bytes(u.rh);
          rh[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
          ByteReader in(rh);
          u.rh = decode_rh(in).value();
        });
      }
      for (const auto &spoil : spoils) {
        Pair pair = run_flow(flow, at, spoil);
        ASSERT_TRUE(pair.in_flight.empty()) << "unit " << at << " set off an endless exchange";
        EXPECT_LE(data_bytes_in(pair.a_sees), pair.bytes_to_a);
        EXPECT_LE(data_bytes_in(pair.b_sees), pair.bytes_to_b);
        for (ConversationTranslator *t : {&pair.a, &pair.b}) {
          if (!t->ended()) continue;
          const Output after =
              t->on_unit(clean.transcript.front().unit.rh, Bytes{0, 5, 0x12, 0xFF, 1});
          EXPECT_TRUE(after.frames.empty() && after.units.empty());
        }
      }
    }
  }
}

TEST(NetConversationFlows, TsharkReadsEveryUnitWithTheIndicatorsMeant) {
  if (!have_tshark()) GTEST_SKIP() << "tshark is not installed";
  std::vector<Wire> all_units;
  for (const Flow &flow : flows()) {
    const Pair pair = run_flow(flow);
    all_units.insert(all_units.end(), pair.transcript.begin(), pair.transcript.end());
  }
  BiuFraming framing;
  framing.sent_tcid = {1, 2, 3, 4, 5, 6, 7, 8};
  framing.received_tcid = {8, 7, 6, 5, 4, 3, 2, 1};
  const std::string out = tshark_check::read_back(
      "net_conversation_flows",
      [&](CaptureWriter &writer) {
        uint16_t snf[2][2] = {};
        for (const Wire &w : all_units) {
          const uint16_t seq = ++snf[w.dir == AB ? 0 : 1][w.unit.expedited ? 1 : 0];
          ASSERT_TRUE(writer.write_biu(
              w.dir == AB ? CaptureDirection::kSent : CaptureDirection::kReceived,
              tshark_check::whole_biu(w.unit.expedited, seq, rh_bytes(w.unit.rh), w.unit.ru),
              framing));
        }
      },
      "-T fields -E separator='|' -e sna.rh.0 -e sna.rh.1 -e sna.rh.2 -e _ws.expert"
      " -e _ws.malformed");
  const std::vector<std::string> lines = tshark_check::split(out, '\n', true);
  ASSERT_EQ(lines.size(), all_units.size() + 1) << "tshark printed another number of packets";
  EXPECT_EQ(lines.back(), "");
  for (size_t i = 0; i < all_units.size(); ++i) {
    const std::string rh = rh_hex(all_units[i].unit.rh);
    EXPECT_EQ(lines[i],
              "0x" + rh.substr(0, 2) + "|0x" + rh.substr(2, 2) + "|0x" + rh.substr(4, 2) + "||");
  }
}

}  // namespace
}  // namespace snanode::net::lu62
