// Failures the test interface can inject into the node services: each kind
// holds a count of operations still to fail.
#pragma once

#include <cstdint>

namespace snanode {

enum class InjectedFailure {
  kAllocation,
  kTableInsert,
  kTableInit,
  kWaitObject,
  kPathRegistration,
  kCount
};

// The next `n` operations of `kind` fail.
void inject_failures(InjectedFailure kind, uint32_t n);

// Consumes one injected failure of `kind`; true when the operation must fail.
bool take_injected_failure(InjectedFailure kind);

void clear_injected_failures();

}  // namespace snanode
