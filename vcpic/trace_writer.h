// The API trace's record writer.
#pragma once

#include <cstdint>

// Writes one record to the trace file `handle`: the separator, the header
// line and the detail lines of `verb` for record `kind` (1 request, 2
// response, other values an asynchronous response).  `cccb` may be null.
void seputrcp_d(uint32_t kind, uint16_t verb, void *cccb, const void *arg4, uintptr_t a1,
                uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, int32_t handle);
