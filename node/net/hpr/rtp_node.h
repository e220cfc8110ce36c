// The node's RTP endpoint: its connections to adjacent nodes, one per
// (partner node, class of service) for what this node sends, opened on the
// first BIU and opened again after a failure or an idle close; NLPs arriving
// on a link are routed to their connection by TCID, and a setup NLP from a
// partner opens a new one.  Every connection carries whole BIUs of any number
// of LU-LU sessions (FID5 TH in front, so the session layer above tells them
// apart) at the transmission priority of its class.
//
// Nothing blocks: the daemon's loop hands it NLPs through the receiver each
// link is given, calls on_timer() at next_deadline(), and gets BIUs and
// connection ends back through the listener.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/ee/nlp_link.h"
#include "net/hpr/rtp_connection.h"
#include "net/lu62/transport.h"

namespace snanode::net::hpr {

class RtpNodeListener {
 public:
  virtual ~RtpNodeListener() = default;
  virtual void on_biu(std::string_view partner_cp, ByteSpan biu) = 0;
  // A connection to `partner_cp` ended: sense 0 when the partner closed it,
  // else why it failed (the sessions on it are gone).
  virtual void on_connection_ended(std::string_view partner_cp, Priority priority, uint32_t sense,
                                   std::string_view why) = 0;
};

struct RtpNodeConfig {
  std::string cp_name;  // NETID.CPNAME of this node
  RtpConfig rtp;
  // Makes this node instance's TCIDs differ from an earlier one's (the
  // daemon passes something random).
  uint32_t tcid_instance = 1;
  // A connection no BIU has crossed (either way) for this long is closed
  // normally; zero: never.
  RtpDuration idle_close{0};
};

// The class of service a connection carries: the name its setup gives and the
// transmission priority of its NLPs.
struct ServiceClass {
  std::string_view name;
  Priority priority = Priority::kHigh;
};
// The class a bare priority stands for (its usual name).
ServiceClass usual_class(Priority priority);

class RtpNode {
 public:
  RtpNode(RtpNodeConfig config, const lu62::Clock &clock, RtpNodeListener &listener);
  ~RtpNode();
  RtpNode(const RtpNode &) = delete;
  RtpNode &operator=(const RtpNode &) = delete;

  // The link to the adjacent node `partner_cp`, reached with `anr_labels`.
  // The returned receiver is what the link hands its NLPs and state changes.
  ee::NlpReceiver &add_link(std::string partner_cp, ee::NlpLink &link, Bytes anr_labels);
  // Forgets the link (before its object goes away): its connections fail with
  // a path failure, and the listener hears of each.  Not from inside one of
  // this node's callbacks.
  void remove_link(std::string_view partner_cp);

  // Sends one BIU on the connection to `partner_cp` for `cos`, opening it if
  // there is none.  False when no link reaches the partner.
  bool send_biu(std::string_view partner_cp, ServiceClass cos, ByteSpan biu);
  // The same, keeping `biu`'s buffer (moved from when sent) rather than a copy.
  bool send_biu(std::string_view partner_cp, ServiceClass cos, Bytes &&biu);
  bool send_biu(std::string_view partner_cp, Priority priority, ByteSpan biu) {
    return send_biu(partner_cp, usual_class(priority), biu);
  }

  // Ends the connection this node sends on to `partner_cp` for `cos_name`
  // once what is queued on it is acknowledged (the partner sees the last
  // message indicator); the listener hears of it with sense 0.  BIUs sent
  // for that class meanwhile wait for it to end, then go on a new connection
  // in order (or are dropped with it if it fails instead).
  void close(std::string_view partner_cp, std::string_view cos_name);
  void close(std::string_view partner_cp, Priority priority) {
    close(partner_cp, usual_class(priority).name);
  }

  void on_timer();
  std::optional<RtpTime> next_deadline() const;

  size_t connection_count() const { return connections_.size(); }
  std::vector<const RtpConnection *> connections() const;
  // The connection this node sends on to `partner_cp` for `cos_name`, if any.
  const RtpConnection *connection(std::string_view partner_cp, std::string_view cos_name) const;
  const RtpConnection *connection(std::string_view partner_cp, Priority priority) const {
    return connection(partner_cp, usual_class(priority).name);
  }
  // The connections this node sends on to `partner_cp`, with their class
  // names, highest priority first.
  std::vector<std::pair<std::string_view, const RtpConnection *>> sending_to(
      std::string_view partner_cp) const;

 private:
  struct Port;
  struct Entry {
    Port *port = nullptr;
    std::unique_ptr<RtpConnection> connection;
    std::optional<Tcid> setup_key;  // the partner's TCID, for a connection it set up
    RtpTime last_biu{};             // the last BIU sent or delivered on it
    std::string cos_name;           // the class it carries
    bool closing = false;           // closed by this node, ending once acknowledged
    bool closed_as_sender = false;  // it was what this node sent on for its class
  };
  using SenderKey = std::pair<Port *, std::string>;
  // BIUs for a class whose sender this node closed, held until every such
  // connection has ended: their data is then acknowledged, so nothing sent
  // later on a new connection can overtake it.
  struct Waiting {
    int closing = 0;  // connections of the class closed but not yet ended
    bool failed = false;
    std::vector<Bytes> bius;
  };

  void on_nlp(Port &port, ByteSpan bytes);
  void on_link_inactive(Port &port, std::string_view why);
  Port *find_port(std::string_view partner_cp) const;
  Entry *open(Port &port, ServiceClass cos);
  // Sends on the class's sender, opening one if there is none.
  void send_now(Port &port, ServiceClass cos, Bytes &&biu);
  // An ended connection this node closed as a sender: the BIUs waiting for
  // its class go out once none is left closing.
  void release_waiting(const Entry &ended);
  void start_close(Entry &entry);
  bool idle_closable(const Entry &entry) const;
  Tcid next_tcid();
  RtpConnection::MessageHandler deliver_to(Entry &entry);
  // Removes ended connections and tells the listener; only at the outermost
  // call, never under a connection's own frame.
  void reap();

  RtpNodeConfig config_;
  const lu62::Clock &clock_;
  RtpNodeListener &listener_;
  std::vector<std::unique_ptr<Port>> ports_;
  std::vector<std::unique_ptr<Entry>> connections_;
  std::map<Tcid, Entry *> by_local_tcid_;
  std::map<std::pair<Port *, Tcid>, Entry *> by_setup_key_;
  // What this node sends on, by partner and class name.
  std::map<SenderKey, Entry *> senders_;
  std::map<SenderKey, Waiting> waiting_;
  // Setup keys of connections that ended: a late copy of their setup NLP
  // must not open a connection again (the partner never reuses a TCID).
  std::set<std::pair<Port *, Tcid>> ended_setups_;
  std::deque<std::pair<Port *, Tcid>> ended_setup_order_;
  uint32_t tcid_counter_ = 0;
  int depth_ = 0;
};

// The session layer's BiuTransport over an RtpNode: each partner LU is routed
// to the node that owns it, on the connection of its mode's class of service
// (#CONNECT at medium priority for a mode given none).
class RtpBiuTransport : public lu62::BiuTransport {
 public:
  explicit RtpBiuTransport(RtpNode &node) : node_(node) {}
  void route(std::string partner_lu, std::string partner_cp);
  void set_class(std::string mode, std::string cos_name, Priority priority);
  void send_biu(std::string_view partner_lu, std::string_view mode, ByteSpan biu) override;
  void send_biu_buffer(std::string_view partner_lu, std::string_view mode, Bytes &&biu) override;

 private:
  RtpNode &node_;
  std::map<std::string, std::string, std::less<>> routes_;  // partner LU -> CP
  std::map<std::string, std::pair<std::string, Priority>, std::less<>> classes_;  // by mode
};

}  // namespace snanode::net::hpr
