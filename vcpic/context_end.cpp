// Ending a context (a TP instance) at the node.  Synchronous when the caller
// wants the node's answer, otherwise submitted and forgotten: the block then
// belongs to SCC_null_callback unless the node completed it at once.
#include <cstring>

#include "call_frame.h"

void SCC_context_ended(const unsigned char *tp_id, uint8_t end_type, uint16_t *primary,
                       uint32_t *secondary) {
  const bool wait_for_result = primary != nullptr || secondary != nullptr;
  auto *vcb = static_cast<NAP_TP_ENDED_VCB *>(
      nba_mm_alloc(NAP_VCB_SIZE, kMemShortLived, nba_blank_name, 0, 0));
  if (vcb == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 17, "");
    // Report it as the node would report its own shortage of memory.
    if (primary != nullptr) *primary = AP_NO_MEMORY;
    if (secondary != nullptr) *secondary = 12;
    return;
  }
  std::memset(vcb, 0, NAP_VCB_SIZE);
  vcb->opcode = NAP_TP_ENDED;
  std::memcpy(vcb->tp_id, tp_id, sizeof vcb->tp_id);
  vcb->type = end_type;

  if (wait_for_result) {
    appc_c_version(APPC_INTERFACE_VERSION, vcb);
    if (primary != nullptr) *primary = vcb->primary_rc;
    if (secondary != nullptr) *secondary = vcb->secondary_rc;
    nba_mm_free(vcb, 0);
    return;
  }
  if (appc_c_async_version(APPC_INTERFACE_VERSION, vcb, SCC_null_callback, 1) ==
      AP_ASYNC_COMPLETED) {
    nba_mm_free(vcb, 0);
  }
}
