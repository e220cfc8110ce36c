// The side-information store: the process's cache of symbolic destination
// names, filled from the node's configuration through NOF and overridden by
// the application's own set and delete calls.  SCD_main (internal.h) is the
// entry; the routines below are what it dispatches to and what the side
// information calls share.  All expect the caller to hold the process lock.
#pragma once

#include <cstdint>

#include "internal.h"

// Lookup: fills the whole entry from the store or the node (0), or leaves it
// as it was (24 unknown or deleted, 20 the node cannot be asked).
CM_RETURN_CODE SCD_lookup(SCD_ENTRY *entry);
// Set: stores a copy of the entry under its name (0, or 20 without storage).
CM_RETURN_CODE SCD_set(const SCD_ENTRY *entry);
// Delete: marks the name deleted in this process (0), 24 when it is unknown
// or already deleted, 20 when the node or storage fail.
CM_RETURN_CODE SCD_delete(const SCD_ENTRY *entry);

// 1 and the slot when a slot's name equals the 8 bytes (defined or deleted).
int SCD_match_sym_dest_name(const unsigned char *name, SCD_SLOT **slot);

// Converts a node record into the entry and adds a copy to the store.
void SCD_read_nof_response(const NOF_SIDE_INFO_DATA *record, SCD_ENTRY *entry);

// Scans a 17-byte ASCII partner LU name and stores it in the entry the way
// the node's verbs want it: a qualified name (the last period before the
// first blank decides) in EBCDIC around an X'4B', an alias unconverted; sets
// the qualified, period-position and length fields.
void SCD_store_partner_lu_name(const unsigned char *ascii_name, SCD_ENTRY *entry);

// The number of characters before the first ASCII blank, at most `size`.
uint16_t SCD_blank_trimmed_length(const unsigned char *name, uint16_t size);
