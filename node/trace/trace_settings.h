// Where the node's trace settings come from: the environment, and later the
// node's configuration file.
#pragma once

#include <filesystem>
#include <string>

namespace snanode::trace {

struct TraceSettings {
  bool api_trace = false;      // turn the API trace flag on
  std::filesystem::path file;  // the trace file
};

// The settings of this process.  SNANODE_TRACE (1, on, yes, true) turns the API trace on;
// SNANODE_TRACE_FILE names the file, by default api.trc in the node's log
// directory.
TraceSettings resolve_trace_settings();

// Turns the API trace of this process on or off while it runs (the node
// daemon asks for it on behalf of snanodectl); `file` non-empty: records go
// there from now on.  The file opens with the first record.
void set_api_trace(bool on, const std::string &file);
bool api_trace_on();

}  // namespace snanode::trace
