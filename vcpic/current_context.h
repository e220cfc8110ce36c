// The GCB's current context as the conversation verbs test it.
#pragma once

#include <algorithm>
#include <iterator>

#include "internal.h"

// True when the process has a current context (a TP identifier not all zero).
inline bool SCC_has_current_context() {
  return std::any_of(std::begin(pGCB->CurrentContext), std::end(pGCB->CurrentContext),
                     [](unsigned char b) { return b != 0; });
}
