// The process's local TP names: the records in the GCB's LocTPNameTable and
// the node verbs that define and delete them.  Shared by Specify/Release
// Local TP Name and by the accept path, which registers the process TP name
// itself when nothing else has.
#pragma once

#include <cstdint>

#include "internal.h"

// Starts the library when it is not started; true when it is started.
bool SCC_library_started();

// Calls `visit(handle, record)` for each record in table order until it
// returns true; returns that record's handle, or 0 when none did.
template <typename Visit>
uint32_t SCC_scan_local_tps(Visit visit) {
  if (pGCB == nullptr || pGCB->LocTPNameTable == nullptr) return NB_NULL_HANDLE;
  void *pointer = nullptr;
  for (uint32_t handle = vtm_get_next_used(pGCB->LocTPNameTable, 0, &pointer);
       handle != NB_NULL_HANDLE;
       handle = vtm_get_next_used(pGCB->LocTPNameTable, handle, &pointer)) {
    if (pointer != nullptr && visit(handle, *static_cast<const LOCAL_TP_RECORD *>(pointer))) {
      return handle;
    }
  }
  return NB_NULL_HANDLE;
}

// The handle of the record holding `name` (EBCDIC, compared over `length`
// bytes and requiring the same length), or 0.
uint32_t SCC_find_local_tp(const unsigned char *name, uint16_t length);

// Problem probes of the places that register a name; the codes are fixed.
struct LocalTpProbes {
  uint32_t no_memory;     // 0x2003000B
  uint32_t table_full;    // 0x2003000B
  uint32_t node_refused;  // 0x2003000E
};

// Records `name` (64 bytes EBCDIC, X'40' padded, `length` significant) and
// defines it at the node.  On success NumLocTPNames counts it; on failure the
// problem is logged with the given probes, nothing is kept and the result is
// CM_PRODUCT_SPECIFIC_ERROR.
CM_RETURN_CODE SCC_define_local_tp(const unsigned char *name, uint16_t length,
                                   const LocalTpProbes &probes);

// Deletes the name of record `handle` at the node; on success the record is
// dropped and NumLocTPNames lowered.  On refusal problem 0x2003000F with
// `probe`, the record stays, and the result is false.
bool SCC_delete_local_tp(uint32_t handle, uint32_t probe);
