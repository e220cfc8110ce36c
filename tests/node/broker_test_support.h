// What the broker's tests share: a BrokerOutput that records what the broker
// sends, starts and logs, and a fixture with a broker on it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <set>
#include <string>
#include <vector>

#include "daemon/broker.h"

namespace broker_test {

using namespace snanode;
using namespace snanode::daemon;

struct Sent {
  ClientId client;
  client::Message message;
  client::UniqueFd descriptor;  // a duplicate of what was passed
};

class RecordingOutput : public BrokerOutput {
 public:
  bool send(ClientId client, const client::Message &message, int descriptor) override {
    if (unreachable.count(client) != 0) return false;
    sent.push_back({client, message, client::UniqueFd(descriptor >= 0 ? ::dup(descriptor) : -1)});
    return true;
  }
  bool launch(const config::InvokableTp &tp, const std::string &lu_alias) override {
    launches.push_back(tp.tp_name + "@" + lu_alias);
    return true;
  }
  void log(const std::string &line) override { logs.push_back(line); }

  // The messages of one type sent to `client`, oldest first.
  template <class M>
  std::vector<Sent *> to(ClientId client) {
    std::vector<Sent *> found;
    for (auto &s : sent) {
      if (s.client == client && std::holds_alternative<M>(s.message)) found.push_back(&s);
    }
    return found;
  }
  std::string all_logs() const {
    std::string text;
    for (const auto &line : logs) text += line + "\n";
    return text;
  }

  std::deque<Sent> sent;  // stable addresses: tests keep pointers to entries
  std::vector<std::string> launches;
  std::vector<std::string> logs;
  std::set<ClientId> unreachable;
};

// `message` handed to the broker as from `client`, without a descriptor.
inline bool handle(Broker &broker, ClientId client, client::Message message) {
  return broker.handle(client, client::ReceivedMessage{std::move(message), client::UniqueFd()});
}

// `client` connects as a process of this program running as `uid` and greets.
inline ClientId join(Broker &broker, ClientId client, uid_t uid) {
  broker.connected(client, {::getpid(), uid});
  EXPECT_TRUE(handle(broker, client,
                     client::Hello{client::kProtocolVersion, static_cast<uint32_t>(::getpid()),
                                   static_cast<uint32_t>(uid)}));
  return client;
}

// A broker with a recording output, and the calls its tests repeat.
class BrokerFixture : public ::testing::Test {
 protected:
  explicit BrokerFixture(config::NodeConfig config, PasswordCheck check = nullptr,
                         TpOwner owner = nullptr)
      : config_(std::move(config)), broker_(config_, out_, std::move(check), std::move(owner)) {}

  ClientId join(uid_t uid = ::getuid()) { return broker_test::join(broker_, next_++, uid); }
  bool handle(ClientId id, client::Message message) {
    return broker_test::handle(broker_, id, std::move(message));
  }
  // An allocation from the default LU, with a request ID of its own.
  client::AllocateRequest request(const std::string &tp_name) {
    client::AllocateRequest r;
    r.request_id = ++request_id_;
    r.tp_name = tp_name;
    r.mode = "#INTER";
    r.partner_lu = "LOCAL";
    r.allocator_lu = "APPN.LOCAL";
    return r;
  }
  // The result of the last allocation `client` made.
  client::AllocateResult last_result(ClientId client) {
    auto results = out_.to<client::AllocateResult>(client);
    EXPECT_FALSE(results.empty());
    return results.empty() ? client::AllocateResult{0, 0xFFFF, 0xFFFFFFFF}
                           : std::get<client::AllocateResult>(results.back()->message);
  }
  std::vector<client::AttachDelivery> attaches(ClientId client) {
    std::vector<client::AttachDelivery> found;
    for (auto *sent : out_.to<client::AttachDelivery>(client)) {
      found.push_back(std::get<client::AttachDelivery>(sent->message));
    }
    return found;
  }

  config::NodeConfig config_;
  RecordingOutput out_;
  Broker broker_;
  ClientId next_ = 1;
  uint32_t request_id_ = 0;
};

}  // namespace broker_test
