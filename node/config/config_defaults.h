// The built-in parts of a node configuration, shared by default_config() and
// the parser (which falls back on them for sections a file leaves out).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/node_config.h"

namespace snanode::config {

// The node's trace flags are this many bytes.
inline constexpr size_t kTraceFlagBytes = 32;

// The local LU a node has when none is configured: alias LOCAL, name
// NETID.LOCAL, the default.
LocalLu default_local_lu(const std::string &network_id);

// #INTER and #BATCH.
std::vector<Mode> default_modes();

// Makes every local LU reachable as a partner under its alias and its
// qualified name, so that TPs on one node can allocate to each other, unless a
// partner entry already names that alias or LU.
void add_local_lus_as_partners(NodeConfig &config);

// "none" 0, "same" 1, "program" 2, "program_strong" 5.
std::optional<uint32_t> security_type_from_name(std::string_view name);

// Applies SNANODE_LOG_DIR, SNANODE_TRACE and SNANODE_TRACE_FILE; throws
// ConfigError for a SNANODE_TRACE that is not a yes/no word.
void apply_environment(NodeConfig &config);

}  // namespace snanode::config
