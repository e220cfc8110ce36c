#include "config/apply_configuration.h"

#include <cstdio>
#include <cstdlib>

#include "config/node_config.h"
#include "core/log_files.h"
#include "core/trace_flags.h"
#include "snanode/snanode.h"

namespace snanode::config {
namespace {

// Problem-log code of a configuration file the node cannot use.
constexpr uint32_t kConfigProblem = 0x10040002;

bool set_in_environment(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

}  // namespace

bool apply_node_configuration() {
  const NodeConfig *config = nullptr;
  try {
    config = &current_config();
  } catch (const ConfigError &error) {
    static bool reported = false;
    if (!reported) {
      reported = true;
      std::fprintf(stderr, "snanode: %s\n", error.what());
    }
    nba_pd_print_problem(kConfigProblem, 0, "s", error.what());
    return false;
  }

  set_configured_log_directory(config->log_dir);

  // Explicit flag bytes in the environment override the file's; the API trace
  // switch (already merged with SNANODE_TRACE by current_config) is applied on
  // top of either.
  if (!set_in_environment("SNANODE_TRACE_FLAGS") && !config->trace_flags.empty()) {
    apply_trace_flags(config->trace_flags.data(), config->trace_flags.size());
  }
  if (config->trace) ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  return true;
}

}  // namespace snanode::config
