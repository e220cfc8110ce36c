// Path events from the node.  When the path to the node ends, every
// conversation, side-information slot and local TP name record is dropped and
// the library returns to "not started"; the next creating call starts afresh.
// The node runs this routine serialised with the calls, so it takes no lock.
#include "internal.h"

namespace {

void drop_table(VTM_TABLE *table) {
  if (*table == nullptr) return;
  SCC_free_handles_from_table(*table);
  vtm_table_terminate(table);
  *table = nullptr;
}

}  // namespace

extern "C" int SCC_path_callback(void *, VPM_PATH_EVENT *event) {
  if (event->type == VPM_PATH_ENDED) {
    GCB *gcb = pGCB;
    fInitCPIC = 0;
    drop_table(&gcb->CCCBTable);
    drop_table(&gcb->SideInfoTable);
    drop_table(&gcb->LocTPNameTable);
    if (gcb->hWaitObject != nullptr) {
      vpm_release_wait_object(gcb->hWaitObject);
      gcb->hWaitObject = nullptr;
    }
    if (gcb->ulPathUserId != 0) {
      vpm_terminate_path_user(gcb->ulPathUserId);
      gcb->ulPathUserId = 0;
    }
  }
  // Other event types are the node's business.
  event->result = 0;
  return 0;
}
