// Trace settings from the environment, with the place where the
// configuration file's settings join them.
#include "trace/trace_settings.h"

#include <cstdlib>
#include <cstring>

#include "config/node_config.h"
#include "core/log_files.h"
#include "core/trace_flags.h"

namespace snanode::trace {

namespace {

const char *environment(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

// The configuration file's trace settings (trace and trace_file of
// NodeConfig; its log_dir reaches log_directory() through the node core).
// The configuration file's settings; the environment is applied after them
// and wins.  A file the node cannot use contributes nothing here: the node
// reports it when the process connects.
TraceSettings configured_settings() {
  TraceSettings settings;
  try {
    const config::NodeConfig &config = config::current_config();
    settings.api_trace = config.trace;
    settings.file = config.trace_file;
  } catch (const config::ConfigError &) {
  }
  return settings;
}

}  // namespace

TraceSettings resolve_trace_settings() {
  TraceSettings settings = configured_settings();
  // The same rule the node applies to its trace flags when it loads.
  const char *trace = environment("SNANODE_TRACE");
  if (trace != nullptr) settings.api_trace = switch_value(trace).value_or(false);
  if (const char *file = environment("SNANODE_TRACE_FILE")) {
    settings.file = file;
  } else if (settings.file.empty()) {
    settings.file = std::filesystem::path(log_directory()) / "api.trc";
  }
  return settings;
}

}  // namespace snanode::trace
