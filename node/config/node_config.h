// The node configuration: what one TOML file says about a node.
//
// The file is found through SNANODE_CONFIG (default: ./snanode.toml when it
// exists, else the built-in defaults).  Without a file the node still works on
// one host: one local LU (alias LOCAL, name APPN.LOCAL) that is also reachable
// as a partner under both names, and the mode #INTER.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace snanode::config {

struct LocalLu {
  std::string alias;    // up to 8 characters, what APPCLLU names
  std::string lu_name;  // NETID.LUNAME
  bool is_default = false;
};

struct PartnerLu {
  std::string alias;    // up to 8 characters
  std::string lu_name;  // NETID.LUNAME
  std::string host;     // empty: this host
  // The control point of the node that owns the LU (NETID.CPNAME): set, the
  // LU is reached over the network rather than through this host's daemon.
  std::string owning_cp;
  // Attaches from this LU that say their user is already verified are taken
  // at its word; otherwise they are refused.
  bool trust_already_verified = false;
};

struct Mode {
  std::string name;                  // up to 8 characters, upper case
  uint32_t session_limit = 64;       // conversations at once per partner
  uint32_t send_buffer_size = 4096;  // buffered data is sent past this size
  // What the BIND of a session on this mode offers a partner node.
  uint32_t max_ru_size = 1024;  // largest RU either way
  uint32_t pacing_window = 7;   // requests sent before a pacing response; 0: none
  // The class of service its sessions travel at on the network (see
  // class_of_service.h); empty: the default for the mode's name.
  std::string cos{};
};

// An Enterprise Extender link to a partner node ([[link]]).
struct LinkConfig {
  std::string partner;             // the partner's IP address or host name
  std::string cp_name;             // the partner's control point, NETID.CPNAME
  bool activate_at_start = true;   // "start"; false: "demand" (when first needed)
  uint32_t liveness_seconds = 10;  // a partner silent this long is declared down
};

// The node on the network ([network]): off unless enabled.
struct NetworkConfig {
  bool enabled = false;
  std::string cp_name;       // this node's control point, NETID.CPNAME
  std::string capture_file;  // every unit sent and received, as pcap; empty: none
  // Enterprise Extender: the numeric IPv4 or IPv6 address the node's UDP
  // ports are bound to (empty: no EE links), the first of its five ports, and
  // the node ID its XIDs carry (IDBLK, 12 bits, then IDNUM, 20 bits).
  std::string local_address;
  uint32_t port_base = 12000;
  uint32_t node_id = 0x05D00001;
  // Test-only impairment of the node's UDP path, as SNANODE_IMPAIR takes it
  // ("loss=0.05,dup=0.01,reorder=0.01,delay_ms=5"); empty: none.  Read again
  // on SIGHUP; SNANODE_IMPAIR, when set, wins.
  std::string impair;
  // The largest NLP the node receives on its links (the XID3's maximum BTU);
  // each link carries the smaller of both sides' values.  0: what a standard
  // Ethernet frame holds (1461 on IPv4, 1441 on IPv6).
  uint32_t max_btu = 0;
  // An RTP connection no session unit has crossed for this long is closed
  // (0: never); the next unit for the partner sets up a new one.
  uint32_t idle_connection_seconds = 300;
  std::vector<LinkConfig> links;
};

struct SideInfo {
  std::string sym_dest_name;  // up to 8 characters
  std::string partner_lu;     // alias or NETID.LUNAME
  std::string mode;
  std::string tp_name;
  uint32_t tp_name_type = 0;   // 0 application, 1 SNA service (tp_name is 8 hex digits)
  uint32_t security_type = 1;  // 0 none, 1 same, 2 program, 5 program strong
  std::string user_id;
  std::string password;
  std::string local_lu_alias;  // empty: none
};

struct InvokableTp {
  std::string tp_name;
  std::string program;
  std::vector<std::string> arguments;
  std::string local_lu_alias;  // empty: the default local LU
  bool accept_basic = true;    // conversation types accepted
  bool accept_mapped = true;
  bool accept_sync_none = true;  // sync levels accepted
  bool accept_sync_confirm = true;
  bool security_required = false;     // allocations must carry a verified user
  uint32_t queue_timeout_ms = 10000;  // an attach waits this long for the TP
  uint32_t max_instances = 8;         // instances running at once
  std::string user;                   // the account it runs as; empty: the daemon's own
};

struct User {
  std::string user_id;
  std::string password;  // empty with use_pam: verified by PAM
};

// Whether a process uses the node daemon: when one answers (auto), always
// (required: a process with no daemon to reach cannot start), or never (off:
// the engine embedded in the process serves it alone).
enum class DaemonUse : uint8_t { kAuto, kRequired, kOff };

// The word for a DaemonUse in the file and in SNANODE_DAEMON; nothing for
// another word.
std::optional<DaemonUse> daemon_use_from_name(const std::string &name);

struct NodeConfig {
  std::filesystem::path source;  // the file read, empty for defaults
  std::string node_name = "SNANODE";
  std::string network_id = "APPN";
  std::vector<LocalLu> local_lus;
  std::vector<PartnerLu> partner_lus;
  std::vector<Mode> modes;
  std::vector<SideInfo> side_info;
  std::vector<InvokableTp> tps;
  std::vector<User> users;
  bool use_pam = false;
  std::string pam_service = "snanode";
  uint32_t attach_timeout_ms = 10000;  // attaches for non-invokable TP names
  std::string socket_path;             // daemon socket; empty: default
  std::string daemon_user;             // the account the daemon may run as besides root
  uint32_t max_started_tps = 64;       // started TP programs running at once, node-wide
  DaemonUse daemon = DaemonUse::kAuto;
  std::string log_dir;               // empty: default
  bool trace = false;                // API trace on
  std::string trace_file;            // empty: default
  std::vector<uint8_t> trace_flags;  // explicit flag bytes, if given
  NetworkConfig network;
};

// A configuration file that cannot be used.  what() reads
// "FILE:LINE:COLUMN: problem" and names one problem.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The built-in defaults (see above).
NodeConfig default_config();

// Parses and validates a file; throws ConfigError.
NodeConfig load_config(const std::filesystem::path &file);

// Parses and validates TOML text; `name` is used in messages.
NodeConfig parse_config(const std::string &text, const std::string &name);

// The configuration of this process, loaded once from SNANODE_CONFIG (or the
// defaults).  Throws ConfigError when the named file cannot be used.
const NodeConfig &current_config();

// Drops the loaded configuration so the next current_config() reads again
// (tests change SNANODE_CONFIG between cases).
void reload_config();

}  // namespace snanode::config
