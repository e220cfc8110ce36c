// The library's process-wide data: the global control block, the pointer
// through which every routine reaches it, the start-up flag, the last
// environment value examined at start-up, and the empty CCCB that the trace
// writer reads when a call has no conversation.
#include "internal.h"

extern "C" {
GCB sGcb;
GCB *pGCB = &sGcb;
unsigned short fInitCPIC = 0;
char *pEnv = nullptr;
CCCB BlankCccb;
}
