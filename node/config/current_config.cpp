// current_config(): the configuration of this process, loaded once.
//
// Configurations replaced by reload_config() are kept, not freed: code that
// took a reference before a reload (a test switching SNANODE_CONFIG, say) must
// not be left holding a dangling one.  Reloads are rare, so this costs little.
#include <cstdlib>
#include <memory>
#include <mutex>

#include "config/config_defaults.h"
#include "config/node_config.h"

namespace snanode::config {
namespace {

std::mutex config_mutex;
std::unique_ptr<NodeConfig> loaded;
std::vector<std::unique_ptr<NodeConfig>> retired;

NodeConfig read_configuration() {
  const char *named = std::getenv("SNANODE_CONFIG");
  NodeConfig config;
  if (named != nullptr && *named != '\0') {
    config = load_config(named);
  } else if (std::error_code ignored; std::filesystem::exists("snanode.toml", ignored)) {
    config = load_config("snanode.toml");
  } else {
    config = default_config();
  }
  apply_environment(config);
  return config;
}

}  // namespace

const NodeConfig &current_config() {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!loaded) loaded = std::make_unique<NodeConfig>(read_configuration());
  return *loaded;
}

void reload_config() {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (loaded) retired.push_back(std::move(loaded));
}

}  // namespace snanode::config
