// parse_config / load_config: the TOML configuration file of the node.
//
// The file is read section by section in a fixed order (node, local LUs,
// partners, modes, users, ...) whatever order it is written in, so that the
// sections that refer to others (side information, TPs) can be checked against
// what is already known.  The first problem ends the parse: the node refuses
// to start rather than run with a configuration it had to guess at.
#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <set>
#include <sstream>

#include "config/class_of_service.h"
#include "config/config_defaults.h"
#include "config/config_names.h"
#include "config/config_text_check.h"
#include "config/node_config.h"
#include "config/table_reader.h"

namespace snanode::config {
namespace {

// No host runs more programs of one node than this.
constexpr uint32_t kMaxStartedPrograms = 4096;
constexpr uint32_t kMaxLivenessSeconds = 3600;

// The address family of a numeric IP address; 0 for anything else.
int address_family(const std::string &text) {
  unsigned char bytes[16];
  if (inet_pton(AF_INET, text.c_str(), bytes) == 1) return AF_INET;
  if (inet_pton(AF_INET6, text.c_str(), bytes) == 1) return AF_INET6;
  return 0;
}

// A DNS host name: labels of letters, digits and hyphens joined by dots.
bool is_host_name(const std::string &text) {
  if (text.empty() || text.size() > 253 || text.front() == '.' || text.back() == '.') return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.';
  });
}

void check(TableReader &reader, std::string_view key, const Problem &problem) {
  if (problem) reader.fail(key, *problem);
}

// A name that must be unique in its section (compared exactly).
void check_unique(TableReader &reader, std::string_view key, std::set<std::string> &seen,
                  const std::string &name) {
  if (!seen.insert(name).second) reader.fail(key, "\"" + name + "\" is defined twice");
}

class Parser {
 public:
  Parser(const toml::table &root, const std::string &file) : root_(root), file_(file) {}

  NodeConfig parse() {
    read_node();
    read_local_lus();
    read_network();
    read_links();
    read_partner_lus();
    read_modes();
    read_users_and_pam();
    read_log_and_trace();
    read_tps();
    read_side_info();
    report_unknown_sections();
    add_local_lus_as_partners(config_);
    return std::move(config_);
  }

 private:
  // A [section] table, or an empty one when the file has none.
  const toml::table &section(std::string_view key) {
    static const toml::table empty;
    const toml::node *node = root_.get(key);
    if (node == nullptr) return empty;
    if (!node->is_table()) fail_at(file_, node->source(), std::string(key) + " must be a table");
    return *node->as_table();
  }

  void report_unknown_sections() {
    static const std::set<std::string, std::less<>> known = {
        "node", "local_lu", "partner_lu", "mode",      "user",    "pam",
        "log",  "trace",    "tp",         "side_info", "network", "link"};
    for (auto &&[key, node] : root_) {
      if (!known.contains(key.str())) {
        fail_at(file_, key.source(), "unknown section or key " + std::string(key.str()));
      }
    }
  }

  void read_node() {
    TableReader r(section("node"), "[node]", file_);
    config_.node_name = r.string("name", config_.node_name);
    check(r, "name", check_network_name("node name", config_.node_name));
    config_.network_id = r.string("network_id", config_.network_id);
    check(r, "network_id", check_network_name("network ID", config_.network_id));
    config_.attach_timeout_ms =
        r.integer("attach_timeout_ms", config_.attach_timeout_ms, 0, UINT32_MAX);
    config_.socket_path = r.string("socket_path", "");
    config_.daemon_user = r.string("daemon_user", "");
    config_.max_started_tps =
        r.integer("max_started_tps", config_.max_started_tps, 1, kMaxStartedPrograms);
    const std::string daemon = r.string("daemon", "auto");
    const auto use = daemon_use_from_name(daemon);
    if (!use) r.fail("daemon", "must be \"auto\", \"required\" or \"off\", not \"" + daemon + "\"");
    config_.daemon = *use;
    r.finish();
  }

  void read_network() {
    TableReader r(section("network"), "[network]", file_);
    NetworkConfig &net = config_.network;
    net.enabled = r.boolean("enabled", false);
    net.cp_name = r.string("cp_name", "");
    if (!net.cp_name.empty()) {
      check(r, "cp_name", check_qualified_lu_name("control point name", net.cp_name));
    } else if (net.enabled) {
      r.fail("cp_name", "is required when the network is enabled (NETID.CPNAME)");
    }
    const std::string network_id = r.string("network_id", config_.network_id);
    check(r, "network_id", check_network_name("network ID", network_id));
    if (!net.cp_name.empty() && net.cp_name.substr(0, net.cp_name.find('.')) != network_id) {
      r.fail("cp_name", "\"" + net.cp_name + "\" is not in the network " + network_id);
    }
    net.capture_file = r.string("capture", "");
    net.local_address = r.string("local_address", "");
    if (!net.local_address.empty() && address_family(net.local_address) == 0) {
      r.fail("local_address", "\"" + net.local_address +
                                  "\" is not a numeric IPv4 or IPv6 address (the node binds "
                                  "its UDP ports to it)");
    }
    net.port_base = r.integer("port_base", net.port_base, 1, 65535 - 4);
    net.impair = r.string("impair", "");  // its items are checked where the network is
    // Up to a whole UDP datagram over IPv4 less the 3-byte LLC header.
    if (r.has("max_btu")) net.max_btu = r.integer("max_btu", 0, 768, 65504);
    net.idle_connection_seconds =
        r.integer("idle_connection_seconds", net.idle_connection_seconds, 0, 86400);
    if (r.has("node_id")) {
      const std::string id = r.string("node_id", "");
      size_t used = 0;
      unsigned long value = 0;
      try {
        value = std::stoul(id, &used, 16);
      } catch (const std::exception &) {
        used = 0;
      }
      if (id.size() != 8 || used != 8) {
        r.fail("node_id", "\"" + id + "\" is not 8 hexadecimal digits (IDBLK and IDNUM)");
      }
      net.node_id = static_cast<uint32_t>(value);
    }
    r.finish();
  }

  void read_links() {
    NetworkConfig &net = config_.network;
    std::set<std::string> partners, cps;
    for (const toml::table *table : table_array(root_, "link", file_)) {
      TableReader r(*table, "[[link]]", file_);
      if (!net.enabled) r.fail("partner", "names a partner node, but [network] is not enabled");
      if (net.local_address.empty()) {
        r.fail("partner", "needs [network] local_address, the address the node's ports are on");
      }
      LinkConfig link;
      link.partner = r.required_string("partner");
      const int family = address_family(link.partner);
      if (family == 0 && !is_host_name(link.partner)) {
        r.fail("partner", "\"" + link.partner + "\" is neither an IP address nor a host name");
      }
      if (family != 0 && family != address_family(net.local_address)) {
        r.fail("partner", "\"" + link.partner + "\" is not of the IP version of local_address " +
                              net.local_address);
      }
      if (link.partner == net.local_address) {
        r.fail("partner", "\"" + link.partner + "\" is this node's own address");
      }
      check_unique(r, "partner", partners, link.partner);
      link.cp_name = r.required_string("cp_name");
      check(r, "cp_name", check_qualified_lu_name("partner control point name", link.cp_name));
      if (link.cp_name == net.cp_name) {
        r.fail("cp_name", "\"" + link.cp_name + "\" is this node's own control point");
      }
      check_unique(r, "cp_name", cps, link.cp_name);
      const std::string activate = r.string("activate", "start");
      if (activate != "start" && activate != "demand") {
        r.fail("activate", "must be \"start\" or \"demand\", not \"" + activate + "\"");
      }
      link.activate_at_start = activate == "start";
      link.liveness_seconds =
          r.integer("liveness_seconds", link.liveness_seconds, 1, kMaxLivenessSeconds);
      r.finish();
      net.links.push_back(link);
    }
  }

  void read_local_lus() {
    std::set<std::string> aliases, names;
    const toml::table *first_default = nullptr;
    const auto tables = table_array(root_, "local_lu", file_);
    for (const toml::table *table : tables) {
      TableReader r(*table, "[[local_lu]]", file_);
      LocalLu lu;
      lu.alias = r.required_string("alias");
      check(r, "alias", check_alias("LU alias", lu.alias));
      check_unique(r, "alias", aliases, lu.alias);
      lu.lu_name = r.string("lu_name", config_.network_id + "." + lu.alias);
      check(r, "lu_name", check_qualified_lu_name("LU name", lu.lu_name));
      check_unique(r, "lu_name", names, lu.lu_name);
      lu.is_default = r.boolean("default", tables.size() == 1);
      if (lu.is_default && first_default != nullptr) {
        r.fail("default", "a second default local LU (only one may be the default)");
      }
      if (lu.is_default) first_default = table;
      r.finish();
      config_.local_lus.push_back(lu);
    }
    if (tables.empty()) {
      config_.local_lus.push_back(default_local_lu(config_.network_id));
    } else if (first_default == nullptr) {
      fail_at(file_, tables.front()->source(),
              "[[local_lu]]: no local LU is the default (set default = true on one)");
    }
  }

  void read_partner_lus() {
    std::set<std::string> aliases, names;
    for (const toml::table *table : table_array(root_, "partner_lu", file_)) {
      TableReader r(*table, "[[partner_lu]]", file_);
      PartnerLu lu;
      lu.alias = r.required_string("alias");
      check(r, "alias", check_alias("partner LU alias", lu.alias));
      check_unique(r, "alias", aliases, lu.alias);
      lu.lu_name = r.required_string("lu_name");
      check(r, "lu_name", check_qualified_lu_name("partner LU name", lu.lu_name));
      check_unique(r, "lu_name", names, lu.lu_name);
      for (const LocalLu &local : config_.local_lus) {
        if (local.alias == lu.alias && local.lu_name != lu.lu_name) {
          r.fail("alias",
                 "\"" + lu.alias + "\" is already the alias of the local LU " + local.lu_name);
        }
      }
      lu.host = r.string("host", "");
      lu.owning_cp = r.string("owning_cp", "");
      if (!lu.owning_cp.empty()) {
        check(r, "owning_cp", check_qualified_lu_name("owning control point", lu.owning_cp));
        if (!config_.network.enabled) {
          r.fail("owning_cp", "names a node on the network, but [network] is not enabled");
        }
        if (!lu.host.empty())
          r.fail("owning_cp", "and host are exclusive: the LU lives in one place");
      }
      lu.trust_already_verified = r.boolean("trust_already_verified", false);
      r.finish();
      config_.partner_lus.push_back(lu);
    }
  }

  void read_modes() {
    std::set<std::string> names;
    const auto tables = table_array(root_, "mode", file_);
    for (const toml::table *table : tables) {
      TableReader r(*table, "[[mode]]", file_);
      Mode mode;
      mode.name = r.required_string("name");
      check(r, "name", check_mode_name(mode.name));
      check_unique(r, "name", names, mode.name);
      mode.session_limit = r.integer("session_limit", mode.session_limit, 1, 32767);
      mode.send_buffer_size = r.integer("send_buffer_size", mode.send_buffer_size, 256, 65535);
      mode.max_ru_size = r.integer("max_ru_size", mode.max_ru_size, 256, 65536);
      mode.pacing_window = r.integer("pacing_window", mode.pacing_window, 0, 63);
      mode.cos = r.string("cos", "");
      if (!mode.cos.empty() && !find_class_of_service(mode.cos)) {
        r.fail("cos", "\"" + mode.cos + "\" is not a class of service this node knows (" +
                          std::string(class_of_service_names()) + ")");
      }
      r.finish();
      config_.modes.push_back(mode);
    }
    if (tables.empty()) config_.modes = default_modes();
  }

  void read_users_and_pam() {
    TableReader pam(section("pam"), "[pam]", file_);
    config_.use_pam = pam.boolean("enabled", false);
    config_.pam_service = pam.string("service", config_.pam_service);
    if (config_.pam_service.empty()) pam.fail("service", "is empty");
    pam.finish();

    std::set<std::string> ids;
    for (const toml::table *table : table_array(root_, "user", file_)) {
      TableReader r(*table, "[[user]]", file_);
      User user;
      user.user_id = r.required_string("user_id");
      check(r, "user_id", check_security_field("user ID", user.user_id, false));
      check_unique(r, "user_id", ids, user.user_id);
      user.password = r.string("password", "");
      check(r, "password",
            check_security_field("password", user.password, /*may_be_empty=*/config_.use_pam));
      r.finish();
      config_.users.push_back(user);
    }
  }

  void read_log_and_trace() {
    TableReader log(section("log"), "[log]", file_);
    config_.log_dir = log.string("dir", "");
    log.finish();

    TableReader trace(section("trace"), "[trace]", file_);
    config_.trace = trace.boolean("enabled", false);
    config_.trace_file = trace.string("file", "");
    config_.trace_flags = trace.bytes("flags", kTraceFlagBytes);
    trace.finish();
  }

  bool is_local_alias(const std::string &alias) const {
    for (const LocalLu &lu : config_.local_lus) {
      if (lu.alias == alias) return true;
    }
    return false;
  }

  void check_local_reference(TableReader &r, const std::string &alias) {
    if (!alias.empty() && !is_local_alias(alias)) {
      r.fail("local_lu_alias", "\"" + alias + "\" is not a configured local LU");
    }
  }

  void read_tps() {
    std::set<std::string> names;
    for (const toml::table *table : table_array(root_, "tp", file_)) {
      TableReader r(*table, "[[tp]]", file_);
      InvokableTp tp;
      tp.tp_name = r.required_string("tp_name");
      check(r, "tp_name", check_tp_name(tp.tp_name));
      check_unique(r, "tp_name", names, tp.tp_name);
      tp.program = r.required_string("program");
      if (tp.program.empty()) r.fail("program", "is empty");
      tp.arguments = r.strings("arguments");
      tp.local_lu_alias = r.string("local_lu_alias", "");
      check_local_reference(r, tp.local_lu_alias);
      if (r.has("conversation_types")) {
        read_choices(r, "conversation_types", {"basic", "mapped"},
                     {&tp.accept_basic, &tp.accept_mapped});
      }
      if (r.has("sync_levels")) {
        read_choices(r, "sync_levels", {"none", "confirm"},
                     {&tp.accept_sync_none, &tp.accept_sync_confirm});
      }
      tp.security_required = r.boolean("security_required", false);
      tp.queue_timeout_ms = r.integer("queue_timeout_ms", tp.queue_timeout_ms, 0, UINT32_MAX);
      tp.max_instances = r.integer("max_instances", tp.max_instances, 1, kMaxStartedPrograms);
      tp.user = r.string("user", "");
      r.finish();
      config_.tps.push_back(tp);
    }
  }

  // A non-empty list of names out of `choices`; each flag says whether its
  // choice was listed.
  static void read_choices(TableReader &r, std::string_view key,
                           std::initializer_list<std::string_view> choices,
                           std::initializer_list<bool *> flags) {
    const std::vector<std::string> listed = r.strings(key);
    if (listed.empty()) r.fail(key, "lists nothing");
    for (bool *flag : flags) *flag = false;
    for (const std::string &name : listed) {
      size_t index = 0;
      for (std::string_view choice : choices) {
        if (name == choice) break;
        ++index;
      }
      if (index == choices.size())
        r.fail(key, "\"" + name + "\" is not one of the accepted values");
      *flags.begin()[index] = true;
    }
  }

  void read_side_info() {
    std::set<std::string> names;
    for (const toml::table *table : table_array(root_, "side_info", file_)) {
      TableReader r(*table, "[[side_info]]", file_);
      SideInfo entry;
      entry.sym_dest_name = r.required_string("sym_dest_name");
      check(r, "sym_dest_name", check_alias("symbolic destination name", entry.sym_dest_name));
      check_unique(r, "sym_dest_name", names, entry.sym_dest_name);
      read_side_info_partner(r, entry);
      entry.mode = r.required_string("mode");
      check(r, "mode", check_mode_name(entry.mode));
      if (!has_mode(entry.mode)) r.fail("mode", "\"" + entry.mode + "\" is not a configured mode");
      read_side_info_tp(r, entry);
      read_side_info_security(r, entry);
      entry.local_lu_alias = r.string("local_lu_alias", "");
      check_local_reference(r, entry.local_lu_alias);
      r.finish();
      config_.side_info.push_back(entry);
    }
  }

  bool has_mode(const std::string &name) const {
    for (const Mode &mode : config_.modes) {
      if (mode.name == name) return true;
    }
    return false;
  }

  void read_side_info_partner(TableReader &r, SideInfo &entry) {
    entry.partner_lu = r.required_string("partner_lu");
    check(r, "partner_lu", check_partner_reference(entry.partner_lu));
    if (entry.partner_lu.find('.') != std::string::npos) return;
    bool known = is_local_alias(entry.partner_lu);
    for (const PartnerLu &lu : config_.partner_lus) known = known || lu.alias == entry.partner_lu;
    if (!known) {
      r.fail("partner_lu", "\"" + entry.partner_lu + "\" is not a configured partner LU alias");
    }
  }

  static void read_side_info_tp(TableReader &r, SideInfo &entry) {
    const std::string type = r.string("tp_name_type", "application");
    if (type == "application") {
      entry.tp_name_type = 0;
    } else if (type == "service") {
      entry.tp_name_type = 1;
    } else {
      r.fail("tp_name_type", "must be \"application\" or \"service\", not \"" + type + "\"");
    }
    entry.tp_name = r.required_string("tp_name");
    check(r, "tp_name",
          entry.tp_name_type == 1 ? check_service_tp_name(entry.tp_name)
                                  : check_tp_name(entry.tp_name));
  }

  // none: no user, no password; same: a user ID at most; program and
  // program_strong: both.
  static void read_side_info_security(TableReader &r, SideInfo &entry) {
    const std::string security = r.string("security", "same");
    const auto type = security_type_from_name(security);
    if (!type) {
      r.fail("security", "must be \"none\", \"same\", \"program\" or \"program_strong\", not \"" +
                             security + "\"");
    }
    entry.security_type = *type;
    entry.user_id = r.string("user_id", "");
    entry.password = r.string("password", "");
    const bool needs_both = entry.security_type == 2 || entry.security_type == 5;
    if (entry.security_type == 0 && !entry.user_id.empty()) {
      r.fail("user_id", "is not allowed with security \"none\"");
    }
    if (!needs_both && !entry.password.empty()) {
      r.fail("password", "is allowed only with security \"program\" or \"program_strong\"");
    }
    check(r, "user_id", check_security_field("user ID", entry.user_id, !needs_both));
    check(r, "password", check_security_field("password", entry.password, !needs_both));
  }

  const toml::table &root_;
  const std::string &file_;
  NodeConfig config_;
};

}  // namespace

NodeConfig parse_config(const std::string &text, const std::string &name) {
  check_config_text(text, name);  // the TOML parser sees only text it handles
  toml::table root;
  try {
    root = toml::parse(text, name);
  } catch (const toml::parse_error &error) {
    fail_at(name, error.source(), std::string(error.description()));
  }
  NodeConfig config = Parser(root, name).parse();
  config.source = name;
  return config;
}

NodeConfig load_config(const std::filesystem::path &file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw ConfigError(file.string() + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw ConfigError(file.string() + ": cannot be read");
  NodeConfig config = parse_config(text.str(), file.string());
  config.source = file;
  return config;
}

}  // namespace snanode::config
