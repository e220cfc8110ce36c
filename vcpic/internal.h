// Routines shared between the library's modules.  None of these is exported
// from libcpic except the completion routines, SCC_null_callback and
// SCC_path_callback, which the node calls back.
#pragma once

#include <cstdint>

#include "cpic.h"
#include "records.h"
#include "snanode/snanode.h"

// ---- exported data ---------------------------------------------------------
extern "C" {
extern GCB sGcb;
extern GCB *pGCB;
extern char *pEnv;
extern CCCB BlankCccb;  // all zero; read by the trace writer when a call has no conversation
}

// ---- character conversion ---------------------------------------------------
inline constexpr uint8_t SCC_CNV_OUT = 0;  // ASCII to EBCDIC
inline constexpr uint8_t SCC_CNV_IN = 1;   // EBCDIC to ASCII
inline constexpr uint16_t SCC_CHARSET_AE = 0;
inline constexpr uint16_t SCC_CHARSET_A = 1;
inline constexpr uint16_t SCC_CHARSET_AE640 = 2;
inline constexpr uint16_t SCC_CHARSET_AE640_EX = 3;
void SCC_convert_string(uint8_t direction, uint16_t charset, int16_t length, unsigned char *target,
                        const unsigned char *source);

// ---- control blocks -----------------------------------------------------------
int SCC_cccb_init(unsigned char *conversation_id, CCCB **cccb);
int SCC_find_cccb(const unsigned char *conversation_id, CCCB **cccb, GCB **gcb);
void SCC_free_cccb(CCCB *cccb);
void SCC_free_handles_from_table(VTM_TABLE table);
// The conversations in the table whose TP ID is `tp_id` (O(1)).
uint32_t SCC_cccbs_using_tpid(const unsigned char *tp_id);
// Gives a record in the table another TP ID; the only way its TP ID changes,
// so that the counts above stay true.
void SCC_set_tp_id(CCCB *cccb, const unsigned char *tp_id);
// Frees the record's log data, takes it out of the table and frees it.
void SCC_release_cccb(CCCB *cccb);

// ---- start-up -------------------------------------------------------------------
void SCC_init();
void SCC_get_lu_alias(unsigned char *alias);
void SCC_set_tp_name(unsigned char *tp_name);
uint16_t SCC_far_len(const char *text, uint16_t maximum);

// ---- return codes ---------------------------------------------------------------
void SCC_map_return_codes(CM_RETURN_CODE *return_code, uint16_t primary, uint32_t secondary,
                          uint16_t opcode);
// True for the primary return codes that end a conversation.
bool SCC_is_ending_primary(uint16_t primary);

// ---- verb submission and completion ---------------------------------------------
// Zeroes the verb area and fills the common header (opcode, opext from the
// conversation type, TP id, node conversation id).  Returns the header.
NAP_HDR *SCC_vcb_init(CCCB *cccb, uint16_t opcode);
// Records what a later completion needs: trace verb, a copy of the
// conversation ID, the out-parameter addresses, the current return code (0).
void SCC_set_completion_info(CCCB *cccb, uint16_t trace_verb, const unsigned char *conversation_id,
                             void *out0 = nullptr, void *out1 = nullptr, void *out2 = nullptr,
                             void *out3 = nullptr, void *out4 = nullptr);
// Clears an uncollected completion (asserting the counter first).
void SCC_drop_uncollected_completion(CCCB *cccb, const char *unit);
// Submits the verb in the verb area: counts it, drops an uncollected completion,
// hands it to the node with `routine` when non-blocking, and on an immediate
// completion runs `routine` itself with correlator 0 and frees an ended
// conversation.  Returns the call's return code (35 while in progress).
CM_RETURN_CODE SCC_submit_conversation_verb(CCCB *cccb, APPC_CALLBACK routine);
// Common first step of every completion routine: maps a nonzero primary into
// ulReturnCode and marks the conversation ended for the ending codes.
void SCC_complete_result(CCCB *cccb);
// Common last steps of an asynchronous completion (correlator nonzero):
// counters, completion flag, wake-up, exit trace, and the free when ended.
void SCC_complete_async(CCCB *cccb, bool may_free = true);
// Frees the CCCB when it has ended with no verb outstanding and nothing to collect.
void SCC_free_if_finished(CCCB *cccb);

// ---- contexts ---------------------------------------------------------------------
// Ends a context at the node.  With primary/secondary given the verb is
// waited for and its result returned; without, it is submitted and forgotten.
void SCC_context_ended(const unsigned char *tp_id, uint8_t end_type, uint16_t *primary = nullptr,
                       uint32_t *secondary = nullptr);
int SCC_context_valid(const unsigned char *tp_id, CCCB **cccb);

// ---- side information ---------------------------------------------------------------
inline constexpr uint16_t SCD_LOOKUP = 1;
inline constexpr uint16_t SCD_DELETE = 2;
inline constexpr uint16_t SCD_SET = 3;
CM_RETURN_CODE SCD_main(uint16_t function, SCD_ENTRY *entry);

// ---- routines the node calls back -------------------------------------------------
extern "C" {
int SCC_path_callback(void *context, VPM_PATH_EVENT *event);
void SCC_null_callback(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmallc_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmaccp_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmacci_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmcanc_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmcfm_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmcfmd_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmdeal_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmecs_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmflus_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmptr_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmrcv_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmrts_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmsend_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmserr_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);
void cmtrts_cb(void *vcb, uint32_t v1, uint32_t v2, uintptr_t correlator);

// API trace: writes one record (kind 1 request, 2 response).
void seputrcp(uint32_t kind, uint16_t verb, void *cccb, const void *arg4, uintptr_t a1,
              uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5);
}
