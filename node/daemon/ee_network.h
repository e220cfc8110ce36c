// The daemon's Enterprise Extender network: the UDP endpoint with a link
// station per configured [[link]], the RTP node whose connections run over
// those links, and the route from each partner LU to the control point that
// owns it.  NetworkNode puts the endpoint's sockets in its epoll set and feeds
// its timers; units for a partner LU leave on the RTP connection to its
// owning CP, and units that arrive come back tagged with the partner LU.
//
// A link going down or an RTP connection failing takes every session with the
// LUs behind it: the owner hears `on_path_lost` for each such LU (from inside
// the endpoint's or RTP node's call, so it should act later, from its loop).
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/node_config.h"
#include "daemon/control_table.h"
#include "net/capture/pcap_writer.h"
#include "net/ee/udp_endpoint.h"
#include "net/hpr/rtp_node.h"

namespace snanode::daemon {

class EeNetworkEvents {
 public:
  virtual ~EeNetworkEvents() = default;
  virtual void on_biu(const std::string &partner_lu, net::ByteSpan biu) = 0;
  virtual void on_path_lost(const std::string &partner_lu) = 0;
  virtual void log(const std::string &line) = 0;
};

class EeNetwork : private net::hpr::RtpNodeListener {
 public:
  // Binds the endpoint on [network] local_address and adds the configured
  // links, activating the "start" ones; nullptr with `error` set when the
  // endpoint cannot be opened or the impairment in effect cannot be read.
  // `capture` (may be null) gets every datagram.
  static std::unique_ptr<EeNetwork> open(const config::NodeConfig &config,
                                         const net::lu62::Clock &clock, EeNetworkEvents &events,
                                         net::CaptureWriter *capture, std::string *error);
  ~EeNetwork() override;
  EeNetwork(const EeNetwork &) = delete;
  EeNetwork &operator=(const EeNetwork &) = delete;

  const std::array<int, net::ee::kPortCount> &fds() const { return endpoint_->fds(); }
  void on_readable(int fd);
  void on_timer();
  // Sends what the layers above queued since the last call.
  void flush() { endpoint_->flush(); }
  std::optional<std::chrono::steady_clock::time_point> next_deadline() const;

  // A unit of a session on `mode`: on the connection of the mode's class.
  void send_biu(std::string_view partner_lu, std::string_view mode, net::ByteSpan biu);
  // The same, keeping `biu`'s buffer (moved from) until the partner has it.
  void send_biu(std::string_view partner_lu, std::string_view mode, net::Bytes &&biu);
  // Whether a new session with `partner_lu` may be tried now: its link is
  // active or activating, or it is a "demand" link, which this starts
  // activating.  A link the operator stopped reaches nobody.
  bool reachable(const std::string &partner_lu);

  // snanodectl `link start|stop NAME` (NAME: the link's partner CP name or
  // its partner as configured): whether it was done (or already so), and
  // what to tell the operator.  Stopping sends DISC, ends the link's RTP
  // connections and their sessions at once, and holds the link down until
  // it is started again.
  std::pair<bool, std::string> link_command(bool start, const std::string &name);
  // Applies the configuration's [network] impair again (after a reload), or
  // keeps SNANODE_IMPAIR when that is set; the line to log.
  std::string reload_impairment();

  // The links and the RTP connections on them, for snanodectl.
  void add_status(Table &table) const;
  // Where datagrams are captured from now on (null: nowhere).
  void set_capture(net::CaptureWriter *capture);

  // The capture addresses for a configuration (IPv4 only; zeros otherwise).
  static net::CaptureEndpoints capture_endpoints(const config::NodeConfig &config);

 private:
  struct Link;
  EeNetwork(const config::NodeConfig &config, const net::lu62::Clock &clock,
            EeNetworkEvents &events);
  void on_biu(std::string_view partner_cp, net::ByteSpan biu) override;
  void on_connection_ended(std::string_view partner_cp, net::Priority priority, uint32_t sense,
                           std::string_view why) override;
  void link_changed(Link &link, bool active, std::string_view why);
  void lose_paths(std::string_view partner_cp);
  // Logs the number of RTP connections when it grows (their ends are logged
  // one by one).
  void note_connections();
  const std::string *lu_of(std::string_view partner_cp) const;
  Link *find_link(const std::string &name) const;

  const config::NodeConfig &config_;
  const net::lu62::Clock &clock_;
  EeNetworkEvents &events_;
  std::unique_ptr<net::ee::UdpEndpoint> endpoint_;
  std::unique_ptr<net::hpr::RtpNode> rtp_;
  std::unique_ptr<net::hpr::RtpBiuTransport> transport_;
  std::vector<std::unique_ptr<Link>> links_;
  std::map<std::string, std::string, std::less<>> cp_of_lu_;  // partner LU -> owning CP
  size_t connections_logged_ = 0;
  net::CaptureWriter *capture_ = nullptr;
  uint16_t port_base_ = 0;  // as the endpoint was opened
};

}  // namespace snanode::daemon
