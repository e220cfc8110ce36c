// Where the node's trace settings come from: the environment, and later the
// node's configuration file.
#pragma once

#include <filesystem>

namespace snanode::trace {

struct TraceSettings {
  bool api_trace = false;      // turn the API trace flag on
  std::filesystem::path file;  // the trace file
};

// The settings of this process.  SNANODE_TRACE (1, on, yes, true) turns the API trace on;
// SNANODE_TRACE_FILE names the file, by default api.trc in the node's log
// directory.
TraceSettings resolve_trace_settings();

}  // namespace snanode::trace
