// What happens when the first path user of a process registers: the node
// configuration is put into effect, or the registration is refused when the
// configuration file cannot be used.
#include "config/apply_configuration.h"
#include "core/path.h"

namespace snanode::config {
namespace {

bool connect_to_node() {
  return apply_node_configuration();
}

[[maybe_unused]] const bool g_registered = (set_path_connector(connect_to_node), true);

}  // namespace
}  // namespace snanode::config
