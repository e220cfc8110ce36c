// The daemon on the network: the LU-LU sessions of its default local LU with
// partner LUs on another node, and the conversations on them.
//
// Units travel over Enterprise Extender (EeNetwork: UDP links, RTP
// connections) when [network] local_address is set, or on a link the daemon
// is handed at start: a connected SOCK_SEQPACKET (or SOCK_DGRAM) socket on
// which every datagram is one BIU (TH + RH + RU), the test transport.
//
// An allocation whose partner LU is configured with an owning control point
// comes here from the broker: a session is allocated (CNOS and BIND run on
// demand), the allocating TP gets its end of a new socket pair exactly as for
// a local partner, and a RemoteConversation joins the other end to the
// session.  A bracket the partner begins with an Attach goes through the
// broker's attach logic to a local TP the same way.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/unique_fd.h"
#include "config/node_config.h"
#include "daemon/broker.h"
#include "daemon/ee_network.h"
#include "daemon/remote_conversation.h"
#include "daemon/scoped_capture.h"
#include "net/capture/pcap_writer.h"
#include "net/lu62/session_manager.h"

namespace snanode::daemon {

class NetworkNode : public net::lu62::BiuTransport,
                    public net::lu62::Clock,
                    public net::lu62::IncomingConversations,
                    private net::lu62::UnitObserver,
                    private EeNetworkEvents {
 public:
  // Takes `link_fd`; without one (invalid), the node runs on Enterprise
  // Extender.  `capture_file` (may be empty) gets every unit or datagram.
  // The node's descriptors are watched by `loop_epoll`, the daemon loop's
  // epoll, with tokens for which owns() is true.
  NetworkNode(const config::NodeConfig &config, client::UniqueFd link, Broker &broker,
              BrokerOutput &output, const std::string &capture_file, int loop_epoll);
  ~NetworkNode() override;
  NetworkNode(const NetworkNode &) = delete;
  NetworkNode &operator=(const NetworkNode &) = delete;

  // The loop's tokens of the node's descriptors (the link, the Enterprise
  // Extender sockets, the conversations' TP ends), and what happened on one;
  // on_timer() after the events of each pass sends what they queued.
  static bool owns(uint64_t token) { return (token & kTokenTag) != 0; }
  void on_event(uint64_t token, uint32_t events);
  void on_timer();
  std::optional<std::chrono::steady_clock::time_point> next_deadline() const;

  // The broker's RemoteAllocation.
  bool allocate(ClientId client, const client::AllocateRequest &request,
                const std::optional<std::string> &verified_user);

  // What snanodectl shows of the network: the LU-LU sessions with each
  // partner LU on each mode, then the links and RTP connections under them.
  Table status_sections() const;

  // snanodectl's `capture on|off [--tp NAME|--pid PID]` and `link start|stop`
  // (`words` as typed, the options after them):
  // whether it was done, and what to tell the operator.
  std::pair<bool, std::string> control(const std::vector<std::string> &words);

  // The Enterprise Extender network; null on the test link, or when it could
  // not be opened (`network_error()` says why).
  EeNetwork *ee_network() { return ee_.get(); }
  const std::string &network_error() const { return network_error_; }

 private:
  // BiuTransport
  void send_biu(std::string_view partner_lu, std::string_view mode, net::ByteSpan biu) override;
  void send_biu_buffer(std::string_view partner_lu, std::string_view mode,
                       net::Bytes &&biu) override;
  // Clock: while an event is handled, the time it began.  One reading serves
  // all its work: a batch of datagrams, or a TP's records, read the clock
  // packet by packet otherwise (a tenth of a receiving daemon's own time).
  time_point now() const override {
    return event_time_ ? *event_time_ : std::chrono::steady_clock::now();
  }
  // IncomingConversations
  void on_partner_bracket(net::lu62::Session &session) override;
  // UnitObserver: set only while a scoped capture is on.
  void on_unit(net::lu62::Session &session, bool sent, net::ByteSpan biu) override;
  std::pair<bool, std::string> scoped_capture(bool on, const std::vector<std::string> &words);
  // The conversation now on `session` owns its units.
  void own(const net::lu62::Session &session, RemoteConversation &conversation, UnitOwner owner);
  // A unit from the partner, to the session manager; then the units that
  // waited for their owner go to the captures.
  void take_unit(const std::string &partner_lu, net::ByteSpan biu);
  // EeNetworkEvents
  void on_biu(const std::string &partner_lu, net::ByteSpan biu) override;
  void on_path_lost(const std::string &partner_lu) override;
  void log(const std::string &line) override { output_.log(line); }
  bool reachable(const std::string &partner_lu);
  // Logs the sessions with each partner LU when their number changes.
  void note_sessions();

  const config::PartnerLu *remote_partner(const std::string &name) const;
  void read_link();
  // Sends the units the link could not take when they were made, in order.
  void flush_link();
  void watch_link();
  void link_lost(const std::string &why);
  void watch(RemoteConversation &conversation, uint32_t events);
  uint32_t attach(RemoteConversation &conversation, const net::Attach &attach,
                  const net::lu62::Session &session, client::UniqueFd &daemon_end);
  // A new socket pair for an accepted Attach: the TP's end to the broker.
  uint32_t hand_to_tp(const client::AllocateRequest &request, client::UniqueFd &daemon_end,
                      bool system_verified);
  void sweep();

  // Set in every token of the node's; the loop's own tokens are small client
  // ids or checked first.
  static constexpr uint64_t kTokenTag = uint64_t{1} << 62;
  void watch_fd(int op, int fd, uint32_t events, uint64_t token);

  const config::NodeConfig &config_;
  client::UniqueFd link_;
  int epoll_;  // the daemon loop's
  Broker &broker_;
  BrokerOutput &output_;
  std::unique_ptr<net::CaptureWriter> capture_;
  std::string capture_path_;  // where capture_ writes (or would)
  bool capturing_ = false;    // capture_ is written to (off: paused, file kept)
  ScopedCaptures scoped_captures_;
  // Whose units each session carries: its latest conversation (also after
  // the session let it go, for the bracket's last units), until that
  // conversation is swept.
  struct SessionOwner {
    const RemoteConversation *conversation;
    UnitOwner owner;
  };
  std::unordered_map<const net::lu62::Session *, SessionOwner> unit_owners_;
  std::unordered_map<const RemoteConversation *, const net::lu62::Session *> owned_sessions_;
  // A unit received on a session without a conversation begins the partner's
  // bracket (whose Attach names the TP) or ends ours: it waits, with what the
  // session sends meanwhile, until the session has taken it and its owner is
  // known.
  const net::lu62::Session *unowned_ = nullptr;
  std::vector<std::pair<bool, net::Bytes>> unowned_units_;  // sent?, unit
  std::unique_ptr<net::lu62::SessionManager> manager_;
  std::string link_partner_;  // the partner LU the link reaches
  bool link_up_ = true;
  // Units waiting for room on the link.  The link is reliable and the
  // sessions never resend, so a unit must wait rather than be lost.
  std::deque<net::Bytes> link_queue_;
  bool link_out_watched_ = false;
  std::map<RemoteConversation *, std::unique_ptr<RemoteConversation>> conversations_;
  std::map<RemoteConversation *, int> watched_;  // registered descriptor by conversation
  std::vector<RemoteConversation *> finished_;   // to be dropped by sweep()
  // Allocated conversations whose Attach waits a moment for the TP's first
  // data to travel with, oldest first.
  std::deque<std::pair<std::chrono::steady_clock::time_point, RemoteConversation *>> attach_due_;
  bool path_lost_reported_ = false;   // the sessions heard of the link's loss
  std::optional<time_point> event_time_;  // see now()
  std::unique_ptr<EeNetwork> ee_;     // the Enterprise Extender network, without a link fd
  std::string network_error_;         // why ee_ could not be opened
  std::set<std::string> paths_lost_;  // partner LUs whose sessions must end (from sweep)
  std::map<std::string, size_t> sessions_logged_;  // partner LU -> sessions last logged
  time_point sessions_noted_{};
};

}  // namespace snanode::daemon
