// The impairment's text form, and what an Impairer does to a stream of
// datagrams: the rates it is given, the same run for the same seed, delays
// held until due, reordered datagrams overtaken by the next.
#include <gtest/gtest.h>

#include "net/ee/impairment.h"

namespace snanode::net::ee {
namespace {

using namespace std::chrono_literals;
using TimePoint = Impairer::TimePoint;

TEST(EeImpairment, ParsesTheTextFormAndNamesWhatIsWrong) {
  std::string error;
  auto parsed = parse_impairment(" loss=0.05, dup=0.01,reorder=1,delay_ms=5,seed=42 ", &error);
  ASSERT_TRUE(parsed) << error;
  EXPECT_DOUBLE_EQ(parsed->loss, 0.05);
  EXPECT_DOUBLE_EQ(parsed->duplication, 0.01);
  EXPECT_DOUBLE_EQ(parsed->reorder, 1.0);
  EXPECT_EQ(parsed->delay, 5ms);
  EXPECT_EQ(parsed->seed, 42u);
  ASSERT_TRUE(parse_impairment("", &error));
  EXPECT_FALSE(parse_impairment("", &error)->any());

  const std::pair<const char *, const char *> bad[] = {
      {"loss=1.5", "\"loss=1.5\": a rate is a number from 0 to 1"},
      {"loss=-0.1", "\"loss=-0.1\": a rate is a number from 0 to 1"},
      {"dup=0.1x", "\"dup=0.1x\": a rate is a number from 0 to 1"},
      {"loss", "\"loss\" is not NAME=VALUE"},
      {"delay_ms=fast", "\"delay_ms=fast\": milliseconds from 0 to 60000"},
      {"jitter=3",
       "unknown item \"jitter=3\" (known: loss, dup, reorder, delay_ms, "
       "reorder_hold_ms, seed)"},
  };
  for (const auto &[text, why] : bad) {
    error.clear();
    EXPECT_FALSE(parse_impairment(text, &error)) << text;
    EXPECT_EQ(error, why);
  }
  ::setenv("SNANODE_IMPAIR", "loss=2", 1);
  EXPECT_FALSE(impairment_from_environment(&error));
  EXPECT_EQ(error, "SNANODE_IMPAIR: \"loss=2\": a rate is a number from 0 to 1");
  // The environment, when set, wins over the configured text.
  EXPECT_FALSE(effective_impairment("loss=0.5", &error));
  ::setenv("SNANODE_IMPAIR", "dup=0.25", 1);
  bool from_environment = false;
  EXPECT_EQ(effective_impairment("loss=0.5", &error, &from_environment)->duplication, 0.25);
  EXPECT_TRUE(from_environment);
  ::unsetenv("SNANODE_IMPAIR");
  EXPECT_FALSE(impairment_from_environment(&error)->any());
  EXPECT_EQ(effective_impairment("loss=0.5", &error, &from_environment)->loss, 0.5);
  EXPECT_FALSE(from_environment);
  EXPECT_FALSE(effective_impairment("loss=2", &error));
  EXPECT_EQ(error, "[network] impair: \"loss=2\": a rate is a number from 0 to 1");
  EXPECT_EQ(impairment_text(*parse_impairment("loss=0.05,delay_ms=5", &error)),
            "loss 0.05, duplication 0, reordering 0, delay 5 ms");
}

std::vector<uint8_t> run_stream(const Impairment &impairment, int count) {
  Impairer impairer(impairment);
  std::vector<HeldDatagram> out;
  TimePoint now{};
  for (int i = 0; i < count; ++i) {
    impairer.push({0, {}, Bytes{uint8_t(i), uint8_t(i >> 8)}}, now, out);
    now += 1ms;
    impairer.release(now, out);
  }
  now += 1s;
  impairer.release(now, out);
  EXPECT_FALSE(impairer.next_deadline());
  std::vector<uint8_t> order;
  for (const auto &d : out) order.push_back(d.payload[0]);
  return order;
}

TEST(EeImpairment, RatesSeedsDelayAndReorder) {
  Impairment i;
  i.loss = 0.05;
  i.duplication = 0.01;
  i.reorder = 0.01;
  i.seed = 9;
  Impairer counted(i);
  std::vector<HeldDatagram> out;
  for (int n = 0; n < 20000; ++n) counted.push({0, {}, Bytes{1}}, TimePoint{}, out);
  counted.release(TimePoint{} + 1h, out);
  EXPECT_NEAR(double(counted.counters().lost) / 20000, 0.05, 0.01);
  EXPECT_NEAR(double(counted.counters().duplicated) / 20000, 0.01, 0.004);
  EXPECT_NEAR(double(counted.counters().reordered) / 20000, 0.01, 0.004);
  EXPECT_EQ(out.size(), 20000 - counted.counters().lost + counted.counters().duplicated);

  EXPECT_EQ(run_stream(i, 500), run_stream(i, 500));  // same seed, same run
  Impairment other = i;
  other.seed = 10;
  EXPECT_NE(run_stream(i, 500), run_stream(other, 500));

  // Every datagram reordered that can be: each held one goes right after the
  // one that overtook it.
  Impairment swap;
  swap.reorder = 1;
  EXPECT_EQ(run_stream(swap, 6), (std::vector<uint8_t>{1, 0, 3, 2, 5, 4}));

  // A delay holds each datagram exactly that long, in order.
  Impairment slow;
  slow.delay = 5ms;
  Impairer delayed(slow);
  out.clear();
  delayed.push({0, {}, Bytes{7}}, TimePoint{}, out);
  delayed.push({0, {}, Bytes{8}}, TimePoint{} + 1ms, out);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(delayed.next_deadline(), TimePoint{} + 5ms);
  delayed.release(TimePoint{} + 5ms, out);
  ASSERT_EQ(out.size(), 1u);
  delayed.release(TimePoint{} + 6ms, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].payload, Bytes{8});
}

}  // namespace
}  // namespace snanode::net::ee
