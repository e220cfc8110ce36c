#include "daemon/ee_network.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "config/class_of_service.h"
#include "daemon/log_text.h"

namespace snanode::daemon {
namespace {

using net::Priority;

// The service modes are not configured, but their sessions travel too.
constexpr const char *kServiceModes[] = {"SNASVCMG", "CPSVCMG"};
// A "start" link that failed is activated again this long after; a partner
// that comes back first activates it itself, sooner.
constexpr auto kReactivateAfter = std::chrono::seconds(5);

// An XID (or XID_DONE, DISC) unanswered is sent again after a quarter of the
// link's liveness time, within 1 to 15 seconds: a lost XID on a lossy path
// then costs a few seconds, not the fifteen of the LDLC default, and the
// activation gives up about when a silent partner would be declared down.
net::ee::Duration retry_interval(uint32_t liveness_seconds) {
  const auto quarter = std::chrono::milliseconds(liveness_seconds * 250);
  return std::clamp<net::ee::Duration>(quarter, std::chrono::seconds(1), std::chrono::seconds(15));
}

std::string hex_sense(uint32_t sense) {
  char text[12];
  std::snprintf(text, sizeof text, "%08X", sense);
  return text;
}

uint32_t random_instance() {
  uint32_t value = 0;
  if (::getrandom(&value, sizeof value, 0) != sizeof value) {
    value = static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  }
  return value == 0 ? 1 : value;
}

}  // namespace

// One [[link]]: its station, and the RTP node's receiver behind it, which this
// stands in front of to see the link go up and down.
struct EeNetwork::Link : net::ee::NlpReceiver {
  Link(EeNetwork &n, const config::LinkConfig &c) : network(n), config(c) {}
  void on_nlp(net::ByteSpan nlp) override { rtp->on_nlp(nlp); }
  void on_link_active() override {
    rtp->on_link_active();
    network.link_changed(*this, true, {});
  }
  void on_link_inactive(std::string_view why) override {
    rtp->on_link_inactive(why);
    network.link_changed(*this, false, why);
  }

  EeNetwork &network;
  const config::LinkConfig config;
  std::string address;
  net::ee::LinkStation *station = nullptr;
  net::ee::NlpReceiver *rtp = nullptr;
};

EeNetwork::EeNetwork(const config::NodeConfig &config, const net::lu62::Clock &clock,
                     EeNetworkEvents &events)
    : config_(config), clock_(clock), events_(events) {}

EeNetwork::~EeNetwork() {
  // The RTP node's connections hold the stations as their links.
  transport_.reset();
  rtp_.reset();
  endpoint_.reset();
}

net::CaptureEndpoints EeNetwork::capture_endpoints(const config::NodeConfig &config) {
  net::CaptureEndpoints endpoints{};
  const auto copy = [](const std::optional<net::Bytes> &from, std::array<uint8_t, 4> &to) {
    if (from && from->size() == 4) std::memcpy(to.data(), from->data(), 4);
  };
  copy(net::ee::parse_ip_address(config.network.local_address), endpoints.local_address);
  endpoints.port_base = static_cast<uint16_t>(config.network.port_base);
  if (!config.network.links.empty()) {
    if (auto partner = net::ee::resolve_partner(config.network.links.front().partner,
                                                config.network.local_address)) {
      copy(net::ee::parse_ip_address(*partner), endpoints.remote_address);
    }
  }
  return endpoints;
}

std::unique_ptr<EeNetwork> EeNetwork::open(const config::NodeConfig &config,
                                           const net::lu62::Clock &clock, EeNetworkEvents &events,
                                           net::CaptureWriter *capture, std::string *error) {
  const config::NetworkConfig &settings = config.network;
  bool from_environment = false;
  std::optional<net::ee::Impairment> impairment =
      net::ee::effective_impairment(settings.impair, error, &from_environment);
  if (!impairment) return nullptr;
  std::unique_ptr<EeNetwork> network(new EeNetwork(config, clock, events));
  network->endpoint_ =
      net::ee::UdpEndpoint::open({settings.local_address, static_cast<uint16_t>(settings.port_base),
                                  *impairment, static_cast<uint16_t>(settings.max_btu)},
                                 error);
  if (!network->endpoint_) return nullptr;
  if (impairment->any()) {
    events.log(std::string("network: ") +
               (from_environment ? "SNANODE_IMPAIR" : "[network] impair") +
               " in effect: " + net::ee::impairment_text(*impairment));
  }
  network->port_base_ = static_cast<uint16_t>(settings.port_base);
  network->set_capture(capture);
  net::hpr::RtpNodeListener &listener = *network;
  network->rtp_ = std::make_unique<net::hpr::RtpNode>(
      net::hpr::RtpNodeConfig{settings.cp_name, net::hpr::RtpConfig{}, random_instance(),
                              std::chrono::seconds(settings.idle_connection_seconds)},
      clock, listener);
  network->transport_ = std::make_unique<net::hpr::RtpBiuTransport>(*network->rtp_);
  for (const config::PartnerLu &lu : config.partner_lus) {
    if (lu.owning_cp.empty()) continue;
    network->cp_of_lu_[lu.lu_name] = lu.owning_cp;
    if (!lu.alias.empty()) network->cp_of_lu_[lu.alias] = lu.owning_cp;
    network->transport_->route(lu.lu_name, lu.owning_cp);
  }
  const auto set_class = [&](const std::string &mode, config::ClassOfService cos) {
    network->transport_->set_class(mode, std::string(cos.name), Priority(cos.priority));
  };
  for (const config::Mode &mode : config.modes) set_class(mode.name, class_of_service(mode));
  for (const char *mode : kServiceModes) set_class(mode, config::default_class_of_service(mode));
  const auto now = clock.now();
  for (const config::LinkConfig &link_config : settings.links) {
    auto link = std::make_unique<Link>(*network, link_config);
    const std::optional<std::string> address =
        net::ee::resolve_partner(link_config.partner, settings.local_address);
    if (!address) {
      events.log("network: link to " + log_safe(link_config.cp_name) + ": partner " +
                 log_safe(link_config.partner) + " has no address; link not added");
      continue;
    }
    link->address = *address;
    net::ee::LinkStationConfig station;
    station.local.node_id = settings.node_id;
    station.local.cp_name = settings.cp_name;
    station.partner_cp_name = link_config.cp_name;
    station.liveness = std::chrono::seconds(link_config.liveness_seconds);
    station.retry_interval = retry_interval(link_config.liveness_seconds);
    if (link_config.activate_at_start) station.reactivate_after = kReactivateAfter;
    std::string link_error;
    link->station = network->endpoint_->add_link(*address, station, *link, &link_error);
    if (link->station == nullptr) {
      events.log("network: link to " + log_safe(link_config.cp_name) +
                 " not added: " + log_safe(link_error));
      continue;
    }
    link->rtp =
        &network->rtp_->add_link(link_config.cp_name, *link->station, net::ee::default_anr_label());
    events.log("network: link to " + log_safe(link_config.cp_name) + " at " + log_safe(*address) +
               (link_config.activate_at_start ? ", activating" : ", activated on demand"));
    Link &added = *link;
    network->links_.push_back(std::move(link));
    if (link_config.activate_at_start) added.station->activate(now);
  }
  network->endpoint_->flush();
  return network;
}

const std::string *EeNetwork::lu_of(std::string_view partner_cp) const {
  // Units from a node go to the first of its LUs: the session layer tells
  // them apart by session address, and a BIND names its own LUs.
  for (const config::PartnerLu &lu : config_.partner_lus) {
    if (lu.owning_cp == partner_cp) return &lu.lu_name;
  }
  return nullptr;
}

void EeNetwork::on_readable(int fd) {
  endpoint_->on_readable(fd, clock_.now());
  note_connections();
}

void EeNetwork::on_timer() {
  const auto now = clock_.now();
  if (auto due = endpoint_->next_deadline(); due && *due <= now) endpoint_->on_timer(now);
  if (auto due = rtp_->next_deadline(); due && *due <= now) rtp_->on_timer();
  // What the RTP timers sent leaves now rather than at the next wake-up.
  endpoint_->flush();
  note_connections();
}

std::optional<std::chrono::steady_clock::time_point> EeNetwork::next_deadline() const {
  auto next = endpoint_->next_deadline();
  if (auto rtp = rtp_->next_deadline(); rtp && (!next || *rtp < *next)) next = rtp;
  return next;
}

// The endpoint observes datagrams only while they are captured: an observer
// needs each datagram whole, which the endpoint otherwise sends in pieces.
void EeNetwork::set_capture(net::CaptureWriter *capture) {
  capture_ = capture;
  if (capture == nullptr) {
    endpoint_->set_observer(nullptr);
    return;
  }
  const uint16_t base = port_base_;
  endpoint_->set_observer([capture, base](bool sent, const net::Bytes &, unsigned port_index,
                                          net::ByteSpan data) {
    capture->write_datagram(sent ? net::CaptureDirection::kSent : net::CaptureDirection::kReceived,
                            static_cast<uint16_t>(base + port_index), data);
  });
}

void EeNetwork::send_biu(std::string_view partner_lu, std::string_view mode, net::ByteSpan biu) {
  transport_->send_biu(partner_lu, mode, biu);
}

void EeNetwork::send_biu(std::string_view partner_lu, std::string_view mode, net::Bytes &&biu) {
  transport_->send_biu_buffer(partner_lu, mode, std::move(biu));
}

bool EeNetwork::reachable(const std::string &partner_lu) {
  using State = net::ee::LinkStation::State;
  auto cp = cp_of_lu_.find(partner_lu);
  if (cp == cp_of_lu_.end()) return false;
  for (const auto &link : links_) {
    if (link->config.cp_name != cp->second) continue;
    if (link->station->held_down()) return false;
    // Activating (just started by the operator, or tried again after a
    // failure), or about to once DISC is answered: the session's first units
    // wait in RTP, and the allocation fails with the link if the activation
    // does, within its retries.
    if (link->station->state() != State::kReset) return true;
    if (link->config.activate_at_start) return false;
    // A demand link: the session's first units wait in RTP, which resends
    // them until the link is up.
    if (link->station->state() == net::ee::LinkStation::State::kReset) {
      link->station->activate(clock_.now());
      endpoint_->flush();
    }
    return true;
  }
  return false;
}

EeNetwork::Link *EeNetwork::find_link(const std::string &name) const {
  for (const auto &link : links_) {
    if (link->config.cp_name == name || link->config.partner == name) return link.get();
  }
  return nullptr;
}

std::pair<bool, std::string> EeNetwork::link_command(bool start, const std::string &name) {
  using State = net::ee::LinkStation::State;
  std::string known;
  for (const auto &link : links_) known += (known.empty() ? "" : ", ") + link->config.cp_name;
  if (known.empty()) return {false, "no links configured ([[link]])"};
  Link *link = name.empty() ? nullptr : find_link(name);
  if (link == nullptr) {
    return {false, (name.empty() ? "name the link" : "no link " + log_safe(name)) +
                       "; the links are: " + known};
  }
  net::ee::LinkStation &station = *link->station;
  const std::string &cp = link->config.cp_name;
  const State state = station.state();
  if (start) {
    if (!station.held_down() && state != State::kReset && state != State::kDiscSent) {
      return {true,
              "link " + cp + " is already " + (state == State::kActive ? "active" : "activating")};
    }
    station.activate(clock_.now());
    endpoint_->flush();
    if (state == State::kDiscSent) {
      return {true, "link " + cp + " starting once the partner has answered DISC"};
    }
    return {true, "link " + cp + " starting: activating with " + link->address};
  }
  if (station.held_down()) {
    return {true,
            "link " + cp + " is already " + (state == State::kDiscSent ? "stopping" : "stopped")};
  }
  station.deactivate(clock_.now());
  endpoint_->flush();
  if (state == State::kReset) return {true, "link " + cp + " stopped (it was inactive)"};
  return {true, "link " + cp +
                    " stopping: DISC sent; its sessions end, and it stays down until "
                    "`link start`"};
}

std::string EeNetwork::reload_impairment() {
  std::string error;
  bool from_environment = false;
  const std::optional<net::ee::Impairment> impairment =
      net::ee::effective_impairment(config_.network.impair, &error, &from_environment);
  if (from_environment) return "network: SNANODE_IMPAIR is set and stays in effect";
  if (!impairment) return "network: impairment unchanged: " + log_safe(error);
  endpoint_->set_impairment(*impairment);
  return "network: impairment now " + net::ee::impairment_text(*impairment);
}

void EeNetwork::on_biu(std::string_view partner_cp, net::ByteSpan biu) {
  if (const std::string *lu = lu_of(partner_cp)) events_.on_biu(*lu, biu);
}

void EeNetwork::on_connection_ended(std::string_view partner_cp, net::Priority priority,
                                    uint32_t sense, std::string_view why) {
  events_.log("network: RTP connection to " + log_safe(partner_cp) + " at priority " +
              std::to_string(static_cast<int>(priority)) + " ended" +
              (sense == 0 ? std::string(" (closed)")
                          : ": " + log_safe(why) + ", sense " + hex_sense(sense)));
  if (sense != 0) lose_paths(partner_cp);
}

void EeNetwork::link_changed(Link &link, bool active, std::string_view why) {
  if (active) {
    events_.log("network: link to " + log_safe(link.config.cp_name) + " at " +
                log_safe(link.address) + " is up");
    return;
  }
  events_.log("network: link to " + log_safe(link.config.cp_name) + " is down: " + log_safe(why));
  lose_paths(link.config.cp_name);
}

void EeNetwork::lose_paths(std::string_view partner_cp) {
  for (const config::PartnerLu &lu : config_.partner_lus) {
    if (lu.owning_cp == partner_cp) events_.on_path_lost(lu.lu_name);
  }
}

void EeNetwork::note_connections() {
  const size_t count = rtp_->connection_count();
  if (count > connections_logged_) {
    events_.log("network: RTP connections up: " + std::to_string(count));
  }
  connections_logged_ = count;
}

namespace {

const char *station_state(const net::ee::LinkStation &station) {
  using State = net::ee::LinkStation::State;
  switch (station.state()) {
    case State::kReset:
      return station.held_down() ? "stopped" : "inactive";
    case State::kXidSent:
    case State::kNegotiating:
    case State::kResponding:
    case State::kXidDonePending:
      return "activating";
    case State::kActive:
      return "active";
    case State::kDiscSent:
      return "deactivating";
  }
  return "unknown";
}

const char *connection_state(net::hpr::RtpState state) {
  switch (state) {
    case net::hpr::RtpState::kSettingUp:
      return "setting-up";
    case net::hpr::RtpState::kConnected:
      return "connected";
    case net::hpr::RtpState::kClosed:
      return "closed";
    case net::hpr::RtpState::kFailed:
      return "failed";
  }
  return "unknown";
}

}  // namespace

void EeNetwork::add_status(Table &table) const {
  Section links{"links", false, {}};
  Section connections{"rtp_connections", false, {}};
  for (const auto &link : links_) {
    const net::ee::LinkStation *station = link->station;
    Row row;
    row.add("cp_name", link->config.cp_name)
        .add("partner", link->config.partner)
        .add("address", link->address)
        .add("activate", std::string(link->config.activate_at_start ? "start" : "demand"))
        .add("state", std::string(station ? station_state(*station) : "unresolved"));
    // What the XID exchange agreed; 0 until the link is active.
    const bool active = station != nullptr && station->active();
    row.add("tg_number", uint64_t{active ? station->negotiated().tg_number : 0u})
        .add("max_btu", uint64_t{active ? station->negotiated().max_btu : 0u});
    links.rows.push_back(std::move(row));
    for (const auto &[cos, connection] : rtp_->sending_to(link->config.cp_name)) {
      const auto priority = static_cast<config::TransmissionPriority>(connection->priority());
      Row c;
      c.add("cp_name", link->config.cp_name)
          .add("priority", uint64_t{static_cast<uint8_t>(priority)})
          .add("priority_name", std::string(config::priority_name(priority)))
          .add("cos", std::string(cos))
          .add("state", std::string(connection_state(connection->state())))
          .add("rate_bytes_per_s", uint64_t{connection->rate()})
          .add("bytes_acknowledged", connection->bytes_acknowledged())
          .add("retransmitted", connection->retransmitted());
      connections.rows.push_back(std::move(c));
    }
  }
  table.push_back(std::move(links));
  table.push_back(std::move(connections));
  // Every datagram the endpoint sent or took in, of all links: what a figure
  // of work per datagram divides by.
  Row endpoint;
  endpoint.add("datagrams_sent", endpoint_->counters().sent)
      .add("datagrams_received", endpoint_->counters().received);
  table.push_back(Section{"ee_endpoint", true, {std::move(endpoint)}});
}

}  // namespace snanode::daemon
