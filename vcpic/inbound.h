// The accept path shared by Accept_Conversation (CMACCP) and
// Initialize_For_Incoming / Accept_Incoming (CMINIC, CMACCI).
#pragma once

#include <cstdint>

#include "records.h"

// What a completing accept was issued by.
enum class AcceptKind : uint16_t { kAcceptIncoming = 0, kAcceptConversation = 1 };

// Makes the conversation record of an incoming conversation (starting the
// library first if need be) and writes its ID.  Returns the return code.
CM_RETURN_CODE SCC_inbound_get_cccb(CCCB **cccb, unsigned char *conversation_id);

// Checks the record, defines the process TP name at the node if nothing has,
// and submits RECEIVE_ALLOCATE offering every local TP name.  With
// `free_on_error` (CMACCP) every failure frees the record.  Non-blocking
// follows the record's processing mode.  Returns the return code.
CM_RETURN_CODE SCC_inbound_issue_verb(CCCB *cccb, uint16_t trace_verb, APPC_CALLBACK routine,
                                      bool free_on_error, const unsigned char *conversation_id,
                                      const CM_RETURN_CODE *return_code);

// Completes RECEIVE_ALLOCATE: copies the incoming conversation's identifiers
// and characteristics into the record.
void SCC_inbound_process_verb(CCCB *cccb, uintptr_t correlator, AcceptKind kind);
