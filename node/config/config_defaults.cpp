// Built-in defaults and environment overrides of the node configuration.
#include "config/config_defaults.h"

#include <cstdlib>

#include "core/trace_flags.h"

namespace snanode::config {

LocalLu default_local_lu(const std::string &network_id) {
  return LocalLu{"LOCAL", network_id + ".LOCAL", true};
}

std::vector<Mode> default_modes() {
  // #BATCH favours throughput: larger buffers, fewer sessions.
  return {Mode{"#INTER", 64, 4096, 1024, 7}, Mode{"#BATCH", 16, 32768, 4096, 7}};
}

void add_local_lus_as_partners(NodeConfig &config) {
  for (const LocalLu &local : config.local_lus) {
    bool present = false;
    for (const PartnerLu &partner : config.partner_lus) {
      present = present || partner.alias == local.alias || partner.lu_name == local.lu_name;
    }
    if (!present)
      config.partner_lus.push_back(PartnerLu{local.alias, local.lu_name, "", "", false});
  }
}

std::optional<uint32_t> security_type_from_name(std::string_view name) {
  if (name == "none") return 0;
  if (name == "same") return 1;
  if (name == "program") return 2;
  if (name == "program_strong") return 5;
  return std::nullopt;
}

NodeConfig default_config() {
  NodeConfig config;
  config.local_lus.push_back(default_local_lu(config.network_id));
  config.modes = default_modes();
  add_local_lus_as_partners(config);
  return config;
}

std::optional<DaemonUse> daemon_use_from_name(const std::string &name) {
  if (name == "auto") return DaemonUse::kAuto;
  if (name == "required") return DaemonUse::kRequired;
  if (name == "off") return DaemonUse::kOff;
  return std::nullopt;
}

void apply_environment(NodeConfig &config) {
  if (const char *daemon = std::getenv("SNANODE_DAEMON"); daemon && *daemon) {
    const auto use = daemon_use_from_name(daemon);
    if (!use) {
      throw ConfigError("SNANODE_DAEMON: \"" + std::string(daemon) +
                        "\" is not one of auto, required, off");
    }
    config.daemon = *use;
  }
  if (const char *dir = std::getenv("SNANODE_LOG_DIR"); dir && *dir) config.log_dir = dir;
  if (const char *file = std::getenv("SNANODE_TRACE_FILE"); file && *file) {
    config.trace_file = file;
  }
  if (const char *trace = std::getenv("SNANODE_TRACE"); trace && *trace) {
    const auto on = switch_value(trace);
    if (!on) {
      throw ConfigError("SNANODE_TRACE: \"" + std::string(trace) +
                        "\" is not one of 1, on, yes, true, 0, off, no, false");
    }
    config.trace = *on;
  }
}

}  // namespace snanode::config
