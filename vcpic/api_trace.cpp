// Placeholder API trace entry until the trace writer lands: records are dropped.
#include "internal.h"

extern "C" void seputrcp(uint32_t, uint16_t, void *, const void *, uintptr_t, uintptr_t, uintptr_t,
                         uintptr_t, uintptr_t) {}
