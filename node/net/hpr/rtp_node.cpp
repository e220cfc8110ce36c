#include "net/hpr/rtp_node.h"

#include <algorithm>

#include "net/formats/shared_bytes.h"
#include "net/hpr/rtp_decisions.h"

namespace snanode::net::hpr {
namespace {
constexpr size_t kEndedSetupsKept = 4096;
}  // namespace

ServiceClass usual_class(Priority priority) {
  return {decision::cos_name(priority), priority};
}

struct RtpNode::Port : ee::NlpReceiver {
  Port(RtpNode &n, std::string cp, ee::NlpLink &l, Bytes labels)
      : node(n), partner_cp(std::move(cp)), link(l), anr_labels(std::move(labels)) {}
  void on_nlp(ByteSpan nlp) override { node.on_nlp(*this, nlp); }
  void on_link_active() override { active = true; }
  void on_link_inactive(std::string_view why) override {
    active = false;
    node.on_link_inactive(*this, why);
  }

  RtpNode &node;
  std::string partner_cp;
  ee::NlpLink &link;
  Bytes anr_labels;
  bool active = false;
};

RtpNode::RtpNode(RtpNodeConfig config, const lu62::Clock &clock, RtpNodeListener &listener)
    : config_(std::move(config)), clock_(clock), listener_(listener) {}

RtpNode::~RtpNode() = default;

ee::NlpReceiver &RtpNode::add_link(std::string partner_cp, ee::NlpLink &link, Bytes anr_labels) {
  ports_.push_back(
      std::make_unique<Port>(*this, std::move(partner_cp), link, std::move(anr_labels)));
  return *ports_.back();
}

RtpNode::Port *RtpNode::find_port(std::string_view partner_cp) const {
  for (const auto &port : ports_) {
    if (port->partner_cp == partner_cp) return port.get();
  }
  return nullptr;
}

void RtpNode::remove_link(std::string_view partner_cp) {
  Port *port = find_port(partner_cp);
  if (!port) return;
  on_link_inactive(*port, "link removed");
  std::erase_if(ended_setups_, [&](const auto &key) { return key.first == port; });
  std::erase_if(ended_setup_order_, [&](const auto &key) { return key.first == port; });
  std::erase_if(ports_, [&](const auto &p) { return p.get() == port; });
}

Tcid RtpNode::next_tcid() {
  // Instance in the first half, a counter in the second: unique for this
  // node's life, and unlike the TCIDs of the node's earlier lives.
  ++tcid_counter_;
  Tcid tcid;
  for (int i = 0; i < 4; ++i) {
    tcid[i] = static_cast<uint8_t>(config_.tcid_instance >> (24 - 8 * i));
    tcid[4 + i] = static_cast<uint8_t>(tcid_counter_ >> (24 - 8 * i));
  }
  return tcid;
}

// The entry owns the connection, so the handler never outlives it.
RtpConnection::MessageHandler RtpNode::deliver_to(Entry &entry) {
  return [this, &entry](ByteSpan message) {
    entry.last_biu = clock_.now();
    listener_.on_biu(entry.port->partner_cp, message);
  };
}

RtpNode::Entry *RtpNode::open(Port &port, ServiceClass cos) {
  auto entry = std::make_unique<Entry>();
  entry->port = &port;
  entry->cos_name = cos.name;
  entry->connection = std::make_unique<RtpConnection>(
      config_.rtp,
      RtpEndpoint{config_.cp_name, cos.priority, port.anr_labels, std::string(cos.name)}, port.link,
      next_tcid(), deliver_to(*entry), clock_.now());
  Entry *raw = entry.get();
  by_local_tcid_[raw->connection->local_tcid()] = raw;
  senders_[{&port, std::string(cos.name)}] = raw;
  connections_.push_back(std::move(entry));
  return raw;
}

bool RtpNode::send_biu(std::string_view partner_cp, ServiceClass cos, ByteSpan biu) {
  return send_biu(partner_cp, cos, pooled_copy(biu));
}

bool RtpNode::send_biu(std::string_view partner_cp, ServiceClass cos, Bytes &&biu) {
  Port *port = find_port(partner_cp);
  if (!port) return false;
  if (!waiting_.empty()) {
    auto waiting = waiting_.find({port, std::string(cos.name)});
    if (waiting != waiting_.end()) {
      waiting->second.bius.push_back(std::move(biu));
      return true;
    }
  }
  ++depth_;
  send_now(*port, cos, std::move(biu));
  --depth_;
  reap();
  return true;
}

// The connection's send queue keeps the BIU's buffer until it is acknowledged.
void RtpNode::send_now(Port &port, ServiceClass cos, Bytes &&biu) {
  auto sender = senders_.find({&port, std::string(cos.name)});
  Entry *entry = sender != senders_.end() && !sender->second->connection->ended() ? sender->second
                                                                                  : open(port, cos);
  entry->last_biu = clock_.now();
  entry->connection->send_message(std::move(biu), entry->last_biu);
}

void RtpNode::on_nlp(Port &port, ByteSpan bytes) {
  auto nlp = decode_nlp(bytes);
  if (!nlp || nlp->nhdr.mode != SwitchingMode::kAnr) return;
  const Thdr &t = nlp->thdr;
  Entry *entry = nullptr;
  ++depth_;
  if (t.setup) {
    // The initiator addresses its own TCID until it learns ours.
    auto known = by_setup_key_.find({&port, t.tcid});
    if (known != by_setup_key_.end()) {
      entry = known->second;
    } else if (ended_setups_.contains({&port, t.tcid})) {
      // A late copy of the setup of a connection that has ended.
    } else if (auto offer = read_setup(t)) {
      // A setup that names no class is taken for the usual one of its
      // priority.
      const std::string cos = offer->cos_name.empty()
                                  ? std::string(usual_class(nlp->nhdr.priority).name)
                                  : offer->cos_name;
      auto created = std::make_unique<Entry>();
      created->port = &port;
      created->cos_name = cos;
      created->setup_key = t.tcid;
      created->last_biu = clock_.now();
      created->connection = std::make_unique<RtpConnection>(
          config_.rtp, RtpEndpoint{config_.cp_name, nlp->nhdr.priority, port.anr_labels, cos},
          port.link, next_tcid(), *offer, deliver_to(*created), clock_.now());
      entry = created.get();
      by_local_tcid_[entry->connection->local_tcid()] = entry;
      by_setup_key_[{&port, t.tcid}] = entry;
      // The partner's connection also serves this node's sends in that
      // class, unless this node has one of its own.
      senders_.try_emplace({&port, cos}, entry);
      connections_.push_back(std::move(created));
    }
  } else {
    auto known = by_local_tcid_.find(t.tcid);
    if (known != by_local_tcid_.end() && known->second->port == &port) entry = known->second;
  }
  if (entry) entry->connection->on_nlp(nlp.value(), clock_.now());
  --depth_;
  reap();
}

void RtpNode::on_link_inactive(Port &port, std::string_view why) {
  for (auto &entry : connections_) {
    if (entry->port == &port) {
      entry->connection->fail(decision::kSensePathFailure, "link down: " + std::string(why));
    }
  }
  reap();
}

void RtpNode::close(std::string_view partner_cp, std::string_view cos_name) {
  Port *port = find_port(partner_cp);
  auto sender = port ? senders_.find({port, std::string(cos_name)}) : senders_.end();
  if (sender != senders_.end()) {
    ++depth_;
    start_close(*sender->second);
    --depth_;
  }
  reap();
}

// A closing connection takes no more BIUs: it leaves the senders, and
// until it has ended the BIUs for its class wait (release_waiting()).
void RtpNode::start_close(Entry &entry) {
  entry.closing = true;
  entry.closed_as_sender =
      std::erase_if(senders_, [&](const auto &kv) { return kv.second == &entry; }) > 0;
  if (entry.closed_as_sender) ++waiting_[{entry.port, entry.cos_name}].closing;
  entry.connection->close(clock_.now());
}

// A connection that failed may have lost what was in flight on it, and the
// sessions it carried are gone: what waited behind it goes too.
void RtpNode::release_waiting(const Entry &ended) {
  auto found = waiting_.find({ended.port, ended.cos_name});
  if (found == waiting_.end()) return;
  Waiting &waiting = found->second;
  waiting.failed = waiting.failed || ended.connection->state() == RtpState::kFailed;
  if (--waiting.closing > 0) return;
  std::vector<Bytes> bius = waiting.failed ? std::vector<Bytes>{} : std::move(waiting.bius);
  waiting_.erase(found);
  const ServiceClass cos{ended.cos_name, ended.connection->priority()};
  for (Bytes &biu : bius) send_now(*ended.port, cos, std::move(biu));
}

bool RtpNode::idle_closable(const Entry &entry) const {
  return config_.idle_close > RtpDuration::zero() && !entry.closing &&
         entry.connection->state() == RtpState::kConnected;
}

void RtpNode::on_timer() {
  ++depth_;
  const RtpTime now = clock_.now();
  for (size_t i = 0; i < connections_.size(); ++i) {
    Entry &entry = *connections_[i];
    if (idle_closable(entry) && entry.last_biu + config_.idle_close <= now) start_close(entry);
    RtpConnection &c = *entry.connection;
    if (auto due = c.next_deadline(); due && *due <= now) c.on_timer(now);
  }
  --depth_;
  reap();
}

std::optional<RtpTime> RtpNode::next_deadline() const {
  std::optional<RtpTime> earliest;
  const auto consider = [&](RtpTime due) { earliest = earliest ? std::min(*earliest, due) : due; };
  for (const auto &entry : connections_) {
    if (auto due = entry->connection->next_deadline()) consider(*due);
    if (idle_closable(*entry)) consider(entry->last_biu + config_.idle_close);
  }
  return earliest;
}

std::vector<const RtpConnection *> RtpNode::connections() const {
  std::vector<const RtpConnection *> all;
  for (const auto &entry : connections_) all.push_back(entry->connection.get());
  return all;
}

const RtpConnection *RtpNode::connection(std::string_view partner_cp,
                                         std::string_view cos_name) const {
  Port *port = find_port(partner_cp);
  auto sender = port ? senders_.find({port, std::string(cos_name)}) : senders_.end();
  return sender != senders_.end() ? sender->second->connection.get() : nullptr;
}

std::vector<std::pair<std::string_view, const RtpConnection *>> RtpNode::sending_to(
    std::string_view partner_cp) const {
  std::vector<std::pair<std::string_view, const RtpConnection *>> found;
  for (const auto &[key, entry] : senders_) {
    if (key.first->partner_cp == partner_cp)
      found.emplace_back(key.second, entry->connection.get());
  }
  std::stable_sort(found.begin(), found.end(), [](const auto &x, const auto &y) {
    return x.second->priority() > y.second->priority();
  });
  return found;
}

void RtpNode::reap() {
  if (depth_ != 0) return;
  std::vector<std::unique_ptr<Entry>> ended;
  for (auto it = connections_.begin(); it != connections_.end();) {
    if ((*it)->connection->ended()) {
      ended.push_back(std::move(*it));
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
  for (const auto &entry : ended) {
    by_local_tcid_.erase(entry->connection->local_tcid());
    if (entry->setup_key) {
      const std::pair key{entry->port, *entry->setup_key};
      by_setup_key_.erase(key);
      ended_setups_.insert(key);
      ended_setup_order_.push_back(key);
      if (ended_setup_order_.size() > kEndedSetupsKept) {
        ended_setups_.erase(ended_setup_order_.front());
        ended_setup_order_.pop_front();
      }
    }
    std::erase_if(senders_, [&](const auto &kv) { return kv.second == entry.get(); });
  }
  // Before the listener hears of the ends: what it sends then goes after.
  ++depth_;
  for (const auto &entry : ended) {
    if (entry->closed_as_sender) release_waiting(*entry);
  }
  --depth_;
  // The listener may send again (opening new connections) from here.
  for (const auto &entry : ended) {
    const RtpConnection &c = *entry->connection;
    listener_.on_connection_ended(entry->port->partner_cp, c.priority(), c.failure_sense(),
                                  c.failure_reason());
  }
}

void RtpBiuTransport::route(std::string partner_lu, std::string partner_cp) {
  routes_[std::move(partner_lu)] = std::move(partner_cp);
}

void RtpBiuTransport::set_class(std::string mode, std::string cos_name, Priority priority) {
  classes_[std::move(mode)] = {std::move(cos_name), priority};
}

void RtpBiuTransport::send_biu(std::string_view partner_lu, std::string_view mode, ByteSpan biu) {
  if (routes_.contains(partner_lu)) send_biu_buffer(partner_lu, mode, pooled_copy(biu));
}

void RtpBiuTransport::send_biu_buffer(std::string_view partner_lu, std::string_view mode,
                                      Bytes &&biu) {
  auto route = routes_.find(partner_lu);
  if (route == routes_.end()) return;
  auto cos = classes_.find(mode);
  (void)node_.send_biu(route->second,
                       cos != classes_.end() ? ServiceClass{cos->second.first, cos->second.second}
                                             : usual_class(Priority::kMedium),
                       std::move(biu));
}

}  // namespace snanode::net::hpr
