// Two endpoints over real UDP on loopback addresses: activation on demand at
// the receiving side, NLPs at each priority on their own port with their IP
// precedence, datagrams from an unknown address dropped, and the same over
// IPv6.  The loop is driven the way the daemon drives it (poll, on_readable,
// on_timer) but nothing is asserted about how long anything takes.
#include <netinet/ip.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ee_pipe.h"
#include "net/ee/udp_endpoint.h"

namespace snanode::net::ee {
namespace {

using namespace std::chrono_literals;
using testing::Receiver;
using testing::station_config;

struct Node {
  std::unique_ptr<UdpEndpoint> endpoint;
  Receiver receiver;
  TimePoint clock{};
  std::vector<unsigned> received_ports;  // port index of every NLP datagram received

  // Opens the endpoint; false when the address cannot be bound here.
  bool open(const std::string &address, uint16_t base, const Impairment &impairment = {},
            uint16_t max_btu = 0) {
    std::string error;
    EndpointConfig config;
    config.local_address = address;
    config.port_base = base;
    config.impairment = impairment;
    config.max_btu = max_btu;
    endpoint = UdpEndpoint::open(config, &error);
    receiver.clock = &clock;
    return endpoint != nullptr;
  }
  // A link to `partner` (at `port_base`, 0: this endpoint's) for node `id`.
  LinkStation *link(const std::string &partner, uint32_t id, const std::string &cp,
                    NlpReceiver *to = nullptr, uint16_t port_base = 0) {
    std::string error;
    LinkStation *station = endpoint->add_link(partner, station_config(id, cp, ""),
                                              to ? *to : receiver, &error, port_base);
    EXPECT_TRUE(station) << error;
    return station;
  }
};

uint16_t port_base_for_test(int slot) {
  return static_cast<uint16_t>(20000 + (::getpid() % 3000) * 10 + slot * 5);
}

// Runs the endpoints' loop until `done` holds or five seconds of wall time
// pass (a bound for a hung test, not a measurement).
template <class Done>
bool run(std::vector<Node *> nodes, Done done) {
  const auto give_up = std::chrono::steady_clock::now() + 5s;
  while (!done()) {
    const TimePoint now = std::chrono::steady_clock::now();
    if (now > give_up) return false;
    std::vector<pollfd> fds;
    std::vector<Node *> owners;
    for (Node *node : nodes) {
      node->clock = now;
      for (int fd : node->endpoint->fds()) {
        fds.push_back({fd, POLLIN, 0});
        owners.push_back(node);
      }
    }
    ::poll(fds.data(), fds.size(), 10);
    const TimePoint after = std::chrono::steady_clock::now();
    for (size_t i = 0; i < fds.size(); ++i) {
      owners[i]->clock = after;
      if (fds[i].revents & POLLIN) owners[i]->endpoint->on_readable(fds[i].fd, after);
    }
    for (Node *node : nodes) {
      if (auto due = node->endpoint->next_deadline(); due && *due <= after) {
        node->endpoint->on_timer(after);
      }
    }
  }
  return true;
}

Bytes nlp_with(uint8_t tag) {
  Nhdr nhdr;
  Thdr thdr;
  const uint8_t data[] = {tag, 0x5A};
  Bytes nlp;
  EXPECT_TRUE(encode_nlp(nhdr, thdr, data, nlp).ok());
  return nlp;
}

TEST(EeUdpEndpoint, TwoAddressesActivateOnDemandAndCarryEachPriority) {
  const uint16_t base = port_base_for_test(0);
  Node a, b, stranger;
  if (!a.open("127.0.0.2", base) || !b.open("127.0.0.3", base) ||
      !stranger.open("127.0.0.4", base)) {
    GTEST_SKIP() << "127.0.0.2-4 cannot be bound here";
  }

  // Each port carries its IP precedence: LLC and network 6, high 4, medium 2, low 1.
  const int kPrecedence[kPortCount] = {0xC0, 0xC0, 0x80, 0x40, 0x20};
  for (unsigned i = 0; i < kPortCount; ++i) {
    int tos = -1;
    socklen_t size = sizeof tos;
    ASSERT_EQ(::getsockopt(b.endpoint->fds()[i], IPPROTO_IP, IP_TOS, &tos, &size), 0);
    EXPECT_EQ(tos, kPrecedence[i]) << i;
    EXPECT_EQ(traffic_class_of(i), kPrecedence[i]) << i;
  }

  // B knows no link: it takes one from 127.0.0.2 when its XID arrives, and
  // nobody else.
  std::vector<std::string> offered;
  b.endpoint->set_unknown_sender([&](const std::string &address, ByteSpan, TimePoint) {
    offered.push_back(address);
    if (address != "127.0.0.2") return;
    std::string error;
    ASSERT_TRUE(b.endpoint->add_link(address, station_config(2, "NETA.CPB", "NETA.CPA"), b.receiver,
                                     &error))
        << error;
  });
  b.endpoint->set_observer([&](bool sent, const Bytes &, unsigned port, ByteSpan datagram) {
    if (!sent && datagram.size() > 3 && datagram[2] == kLlcUi && port != kLlcPortIndex) {
      b.received_ports.push_back(port);
    }
  });

  std::string error;
  LinkStation *to_b = a.endpoint->add_link("127.0.0.3", station_config(1, "NETA.CPA", "NETA.CPB"),
                                           a.receiver, &error);
  ASSERT_TRUE(to_b) << error;
  EXPECT_FALSE(
      a.endpoint->add_link("127.0.0.3", station_config(1, "NETA.CPA", ""), a.receiver, &error));
  EXPECT_FALSE(a.endpoint->add_link("::1", station_config(1, "NETA.CPA", ""), a.receiver, &error));
  LinkStation *stray = stranger.link("127.0.0.3", 3, "NETA.CPC");
  ASSERT_TRUE(stray);

  to_b->activate(std::chrono::steady_clock::now());
  stray->activate(std::chrono::steady_clock::now());
  ASSERT_TRUE(run({&a, &b, &stranger}, [&] {
    LinkStation *at_b = b.endpoint->find_link("127.0.0.2");
    return to_b->active() && at_b && at_b->active();
  }));
  LinkStation *to_a = b.endpoint->find_link("127.0.0.2");
  EXPECT_EQ(to_a->partner().cp_name, "NETA.CPA");
  EXPECT_FALSE(stray->active());
  EXPECT_GE(b.endpoint->counters().unknown_sender, 1u);
  EXPECT_NE(std::find(offered.begin(), offered.end(), "127.0.0.4"), offered.end());

  for (uint8_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(to_b->send_nlp(testing::kAllPriorities[i], nlp_with(i)));
    ASSERT_TRUE(to_a->send_nlp(testing::kAllPriorities[i], nlp_with(0x10 + i)));
  }
  ASSERT_TRUE(run({&a, &b, &stranger},
                  [&] { return a.receiver.nlps.size() == 4 && b.receiver.nlps.size() == 4; }));
  for (uint8_t i = 0; i < 4; ++i) {
    // One datagram per port: each arrives alone, so order is not promised.
    EXPECT_NE(std::find(b.receiver.nlps.begin(), b.receiver.nlps.end(), nlp_with(i)),
              b.receiver.nlps.end());
    EXPECT_NE(std::find(a.receiver.nlps.begin(), a.receiver.nlps.end(), nlp_with(0x10 + i)),
              a.receiver.nlps.end());
  }
  std::sort(b.received_ports.begin(), b.received_ports.end());
  EXPECT_EQ(b.received_ports, (std::vector<unsigned>{1, 2, 3, 4}));

  to_b->deactivate(std::chrono::steady_clock::now());
  ASSERT_TRUE(run({&a, &b}, [&] {
    return to_b->state() == LinkStation::State::kReset &&
           to_a->state() == LinkStation::State::kReset;
  }));
  EXPECT_EQ(a.receiver.inactive.size(), 1u);
  EXPECT_EQ(b.receiver.inactive.size(), 1u);
}

// An NLP of exactly `size` bytes (NHDR, THDR, then filler data).
Bytes nlp_of_size(size_t size, uint8_t fill) {
  Bytes nlp;
  EXPECT_TRUE(encode_nlp(Nhdr{}, Thdr{}, {}, nlp).ok());
  const size_t header = nlp.size();
  nlp.clear();
  const Bytes data(size - header, fill);
  EXPECT_TRUE(encode_nlp(Nhdr{}, Thdr{}, data, nlp).ok());
  EXPECT_EQ(nlp.size(), size);
  return nlp;
}

// Endpoints that offer the largest BTU carry NLPs of a whole UDP datagram
// between them; a partner that offers the default keeps its link to that.
TEST(EeUdpEndpoint, LargestBtuCarriesWholeDatagramsAndTheSmallerOfferWins) {
  const uint16_t base = port_base_for_test(2);
  constexpr uint16_t kLargest = 65504;  // 65507 bytes of UDP payload with the LLC header
  Node a, b, c;
  if (!a.open("127.0.0.2", base, {}, kLargest) || !b.open("127.0.0.3", base, {}, kLargest) ||
      !c.open("127.0.0.4", base)) {
    GTEST_SKIP() << "127.0.0.2-4 cannot be bound here";
  }
  LinkStation *a_b = a.link("127.0.0.3", 1, "NETA.CPA"), *b_a = b.link("127.0.0.2", 2, "NETA.CPB");
  LinkStation *a_c = a.link("127.0.0.4", 1, "NETA.CPA"), *c_a = c.link("127.0.0.2", 3, "NETA.CPC");
  ASSERT_TRUE(a_b && b_a && a_c && c_a);
  a_b->activate(std::chrono::steady_clock::now());
  a_c->activate(std::chrono::steady_clock::now());
  ASSERT_TRUE(run({&a, &b, &c}, [&] {
    return a_b->active() && b_a->active() && a_c->active() && c_a->active();
  }));
  EXPECT_EQ(std::tuple(a_b->max_nlp_size(), b_a->max_nlp_size()),
            std::tuple(size_t{kLargest}, size_t{kLargest}));
  EXPECT_EQ(std::tuple(a_c->max_nlp_size(), c_a->max_nlp_size()),
            std::tuple(size_t{1461}, size_t{1461}));

  EXPECT_FALSE(a_b->send_nlp(Priority::kHigh, nlp_of_size(kLargest + 1, 0)));
  EXPECT_FALSE(a_c->send_nlp(Priority::kHigh, nlp_of_size(1462, 0)));
  ASSERT_TRUE(a_b->send_nlp(Priority::kHigh, nlp_of_size(kLargest, 0xB1)));
  ASSERT_TRUE(b_a->send_nlp(Priority::kHigh, nlp_of_size(kLargest, 0xB2)));
  ASSERT_TRUE(a_c->send_nlp(Priority::kHigh, nlp_of_size(1461, 0xC1)));
  ASSERT_TRUE(run({&a, &b, &c}, [&] {
    return b.receiver.nlps.size() == 1 && a.receiver.nlps.size() == 1 &&
           c.receiver.nlps.size() == 1;
  }));
  EXPECT_EQ(b.receiver.nlps[0], nlp_of_size(kLargest, 0xB1));
  EXPECT_EQ(a.receiver.nlps[0], nlp_of_size(kLargest, 0xB2));
  EXPECT_EQ(c.receiver.nlps[0], nlp_of_size(1461, 0xC1));
  EXPECT_EQ(a.endpoint->counters().truncated + b.endpoint->counters().truncated, 0u);

  // A run of full NLPs and a shorter last one leave in one send with
  // segmentation offload and arrive as the same datagrams, in order.
  std::vector<Bytes> burst;
  for (uint8_t i = 0; i < 20; ++i) burst.push_back(nlp_of_size(i < 19 ? 1461 : 700, i));
  for (const Bytes &nlp : burst) ASSERT_TRUE(a_c->send_nlp(Priority::kMedium, nlp));
  ASSERT_TRUE(run({&a, &b, &c}, [&] { return c.receiver.nlps.size() == 1 + burst.size(); }));
  EXPECT_TRUE(std::equal(burst.begin(), burst.end(), c.receiver.nlps.begin() + 1));
  EXPECT_EQ(a.endpoint->counters().offloaded, burst.size());
}

// `nlp` as the RTP layer hands it down: its first `head` bytes written after
// the link's room, the rest a piece of a buffer that only the link keeps.
bool send_in_pieces(LinkStation &station, const Bytes &nlp, size_t head) {
  Bytes front = station.start_nlp();
  front.insert(front.end(), nlp.begin(), nlp.begin() + static_cast<std::ptrdiff_t>(head));
  SharedSpan tail(std::make_shared<const Bytes>(nlp), head, nlp.size() - head);
  return station.send_nlp_pieces(Priority::kMedium, std::move(front), tail);
}

// NLPs whose data is a separate piece leave as the datagrams built whole
// would: a run with segmentation offload, a whole-datagram NLP, one without
// data, and pieces the impairer holds back after their sender let go.
TEST(EeUdpEndpoint, NlpsSentInPiecesLeaveAsTheSameDatagrams) {
  const uint16_t base = port_base_for_test(4);
  Node a, b;
  if (!a.open("127.0.0.2", base, {}, 65504) || !b.open("127.0.0.3", base)) {
    GTEST_SKIP() << "127.0.0.2-3 cannot be bound here";
  }
  std::vector<Bytes> observed;  // what A's observer saw leave
  a.endpoint->set_observer([&](bool sent, const Bytes &, unsigned port, ByteSpan datagram) {
    if (sent && port == port_index_of(Priority::kMedium)) {
      observed.emplace_back(datagram.begin() + kLlcSize, datagram.end());
    }
  });
  LinkStation *to_b = a.link("127.0.0.3", 1, "NETA.CPA"),
              *to_a = b.link("127.0.0.2", 2, "NETA.CPB");
  ASSERT_TRUE(to_b && to_a);
  to_b->activate(std::chrono::steady_clock::now());
  ASSERT_TRUE(run({&a, &b}, [&] { return to_b->active() && to_a->active(); }));

  std::vector<Bytes> burst;
  for (uint8_t i = 0; i < 20; ++i) burst.push_back(nlp_of_size(i < 19 ? 1461 : 700, i));
  burst.push_back(nlp_of_size(40, 0x33));
  for (const Bytes &nlp : burst) ASSERT_TRUE(send_in_pieces(*to_b, nlp, 32));
  EXPECT_TRUE(send_in_pieces(*to_b, burst.back(), burst.back().size()));  // no data piece
  burst.push_back(burst.back());
  EXPECT_FALSE(send_in_pieces(*to_b, nlp_of_size(1462, 0), 32));  // over the BTU
  ASSERT_TRUE(run({&a, &b}, [&] { return b.receiver.nlps.size() == burst.size(); }));
  EXPECT_EQ(b.receiver.nlps, burst);
  EXPECT_EQ(observed, burst);
  EXPECT_EQ(a.endpoint->counters().offloaded, 22u);  // the run of 20 and the last two

  // The impairer holds the pieces for a while and sends each twice.
  Impairment doubled;
  doubled.duplication = 1;
  doubled.delay = 2ms;
  a.endpoint->set_impairment(doubled);
  b.receiver.nlps.clear();
  const Bytes large = nlp_of_size(1400, 0x77);
  ASSERT_TRUE(send_in_pieces(*to_b, large, 32));
  ASSERT_TRUE(run({&a, &b}, [&] { return b.receiver.nlps.size() == 2; }));
  EXPECT_EQ(b.receiver.nlps, std::vector<Bytes>(2, large));
}

// A receiver that answers the first NLP at once with a burst of its own and
// sends it before returning, as the daemon does when a message is handed up.
struct Answerer : Receiver {
  UdpEndpoint *endpoint = nullptr;
  LinkStation *station = nullptr;
  void on_nlp(ByteSpan nlp) override {
    Receiver::on_nlp(nlp);
    if (nlps.size() != 1) return;
    // Of growing sizes: eight messages, not one offloaded run.
    for (uint8_t i = 0; i < 8; ++i) {
      station->send_nlp(Priority::kHigh,
                        nlp_of_size(200 + i * 10u, static_cast<uint8_t>(0x40 + i)));
    }
    endpoint->flush();
  }
};

// Sending in the middle of a received batch leaves the rest of the batch
// intact: every datagram of it is handed up.
TEST(EeUdpEndpoint, AFlushWhileHandlingAReceivedBatchLosesNothingOfIt) {
  const uint16_t base = port_base_for_test(3);
  Node a, b;
  Answerer answerer;
  if (!a.open("127.0.0.2", base) || !b.open("127.0.0.3", base)) {
    GTEST_SKIP() << "127.0.0.2-3 cannot be bound here";
  }
  answerer.clock = &b.clock;
  LinkStation *to_b = a.link("127.0.0.3", 1, "NETA.CPA");
  answerer.station = b.link("127.0.0.2", 2, "NETA.CPB", &answerer);
  answerer.endpoint = b.endpoint.get();
  ASSERT_TRUE(to_b && answerer.station);
  to_b->activate(std::chrono::steady_clock::now());
  ASSERT_TRUE(run({&a, &b}, [&] { return to_b->active() && answerer.station->active(); }));
  // Eight datagrams of different sizes: eight messages in one send, queued
  // together at B before it reads.
  std::vector<Bytes> sent;
  for (uint8_t i = 0; i < 8; ++i) sent.push_back(nlp_of_size(100 + i * 10u, i));
  for (const Bytes &nlp : sent) ASSERT_TRUE(to_b->send_nlp(Priority::kHigh, nlp));
  ASSERT_TRUE(run({&a, &b}, [&] { return a.receiver.nlps.size() == 8; }));
  EXPECT_EQ(answerer.nlps, sent);
}

// Also: A's own path duplicates every datagram both ways and delays it.
TEST(EeUdpEndpoint, Ipv6LinkBetweenTwoPortBasesThroughAnImpairedPath) {
  const uint16_t base = port_base_for_test(1);
  const uint16_t other = static_cast<uint16_t>(base + 5);
  Node a, b;
  Impairment doubled;
  doubled.duplication = 1;
  doubled.delay = 2ms;
  if (!a.open("::1", base, doubled) || !b.open("::1", other)) {
    GTEST_SKIP() << "::1 cannot be bound here";
  }
  int tclass = -1;
  socklen_t size = sizeof tclass;
  ASSERT_EQ(::getsockopt(a.endpoint->fds()[2], IPPROTO_IPV6, IPV6_TCLASS, &tclass, &size), 0);
  EXPECT_EQ(tclass, 0x80);

  LinkStation *to_b = a.link("::1", 1, "NETA.CPA", nullptr, other);
  LinkStation *to_a = b.link("::1", 2, "NETA.CPB", nullptr, base);
  ASSERT_TRUE(to_b && to_a);
  to_a->activate(std::chrono::steady_clock::now());
  ASSERT_TRUE(run({&a, &b}, [&] { return to_a->active() && to_b->active(); }));
  EXPECT_EQ(to_a->max_nlp_size(), 1441u);  // the IPv6 default
  ASSERT_TRUE(to_b->send_nlp(Priority::kLow, nlp_with(7)));
  ASSERT_TRUE(run({&a, &b}, [&] { return b.receiver.nlps.size() == 2; }));
  EXPECT_EQ(b.receiver.nlps[0], nlp_with(7));
  EXPECT_EQ(b.receiver.nlps[1], nlp_with(7));
  EXPECT_GT(a.endpoint->send_impairment().delayed, 0u);
  EXPECT_GT(a.endpoint->receive_impairment().duplicated, 0u);
  EXPECT_EQ(b.endpoint->send_impairment().duplicated, 0u);
  EXPECT_EQ(a.receiver.activations, 1);
}

}  // namespace
}  // namespace snanode::net::ee
