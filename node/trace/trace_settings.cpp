// Trace settings from the environment, with the place where the
// configuration file's settings join them.
#include "trace/trace_settings.h"

#include <cstdlib>
#include <cstring>

#include "core/log_files.h"

namespace snanode::trace {

namespace {

const char *environment(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

// The configuration file's trace settings (trace and trace_file of
// NodeConfig; its log_dir reaches log_directory() through the node core).
// This is the hook for the configuration module: once it is part of every
// process, it fills the settings here.  The environment is applied after it
// and wins.
TraceSettings configured_settings() {
  return {};
}

}  // namespace

TraceSettings resolve_trace_settings() {
  TraceSettings settings = configured_settings();
  // The same rule the node applies to its trace flags when it loads.
  const char *trace = environment("SNANODE_TRACE");
  if (trace != nullptr && std::strcmp(trace, "1") == 0) settings.api_trace = true;
  if (const char *file = environment("SNANODE_TRACE_FILE")) {
    settings.file = file;
  } else if (settings.file.empty()) {
    settings.file = std::filesystem::path(log_directory()) / "api.trc";
  }
  return settings;
}

}  // namespace snanode::trace
