// Where the node's trace settings come from: the environment, and later the
// node's configuration file.
#pragma once

#include <filesystem>

namespace snanode::trace {

struct TraceSettings {
  bool api_trace = false;      // turn the API trace flag on
  std::filesystem::path file;  // the trace file
};

// The directory of the node's logs: SNANODE_LOG_DIR, else
// $XDG_STATE_HOME/snanode, else $HOME/.local/state/snanode, else
// /tmp/snanode-<uid>.
std::filesystem::path log_directory();

// The settings of this process.  SNANODE_TRACE turns the API trace on (1,
// yes, true or on); SNANODE_TRACE_FILE names the file, by default
// <log directory>/api.trc.
TraceSettings resolve_trace_settings();

}  // namespace snanode::trace
