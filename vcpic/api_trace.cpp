// seputrcp: the one entry of every API trace record.  It prepares the node's
// trace services on first use, tests the trace bit, and writes the record
// under the trace file's lock so records of other threads and processes never
// interleave with it.
#include <cerrno>

#include "call_frame.h"
#include "trace_writer.h"

extern "C" void seputrcp(uint32_t kind, uint16_t verb, void *cccb, const void *arg4, uintptr_t a1,
                         uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5) {
  // Tracing must not disturb what the application sees, errno included.
  const int saved_errno = errno;
  if (trc_api.initialised == 0) {
    sepuapi_init(ptrc);
    trc_api.initialised = 1;
  }
  if (api_trace_on()) {
    trc_lock_file(&trc_api);
    // No trace file: the record is dropped and no lock is held.
    if (trc_api.file_handle != -1) {
      seputrcp_d(kind, verb, cccb, arg4, a1, a2, a3, a4, a5, trc_api.file_handle);
      trc_unlock_file(&trc_api);
    }
  }
  errno = saved_errno;
}
