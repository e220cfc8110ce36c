// What happens when the first path user of a process registers: the node
// configuration is put into effect and the engine is connected to the node
// daemon where there is one; the registration is refused when the
// configuration file cannot be used or a daemon it requires does not answer.
#include "config/apply_configuration.h"
#include "core/path.h"
#include "engine/engine_backend.h"

namespace snanode::config {
namespace {

bool connect_to_node() {
  return apply_node_configuration() && connect_engine_to_node();
}

[[maybe_unused]] const bool g_registered = (set_path_connector(connect_to_node), true);

}  // namespace
}  // namespace snanode::config
