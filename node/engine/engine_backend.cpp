// Placeholder until the conversation engine lands: the node has no engine, so
// verbs that are not scripted are answered "node not reachable".
#include "core/verb_backend.h"

namespace snanode {
VerbBackend *engine_backend() { return nullptr; }
}  // namespace snanode
