// The library's records: the global control block (GCB), the conversation
// control block (CCCB), the side-information entry and slot, and the local TP
// name record.  Field names and order are the library's ABI towards its tools
// and tests; integer fields are named by width (ul 32-bit, us 16-bit, f 16-bit
// flag, p pointer, h handle, Num counter).
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpic.h"
#include "snanode/snanode.h"
#include "snanode/verbs.h"

// Allocation classes handed to nba_mm_alloc.
inline constexpr uint32_t kMemKept = 0x302;        // CCCBs and records the library keeps
inline constexpr uint32_t kMemShortLived = 0x202;  // verb blocks that live for one verb

// Side-information entry in internal form; also embedded in every CCCB.
struct SCD_ENTRY {
  unsigned char sym_dest_name[8];     // ASCII, never converted
  unsigned char partner_LU_name[17];  // EBCDIC when qualified, else the ASCII alias
  unsigned char reserved[3];
  uint32_t TP_name_type;            // 0 application TP, 1 SNA service TP
  unsigned char TP_name[64];        // EBCDIC
  unsigned char local_LU_alias[8];  // ASCII; zero when none
  unsigned char mode_name[8];       // EBCDIC
  uint32_t conversation_security_type;
  unsigned char security_user_ID[10];   // EBCDIC, X'40' padded
  unsigned char security_password[10];  // EBCDIC, X'40' padded
  uint16_t usPartnerLUQualified;
  uint16_t usPartnerLUPeriodPos;
  uint16_t usPartnerLULen;
  uint16_t usModeNameLen;
  uint16_t usUserIDLen;
};

// One entry of the side-information store.
struct SCD_SLOT {
  uint16_t usInUse;  // 1 defined, 0 marked deleted
  SCD_ENTRY Entry;
};

// One local TP name registered with the node.
struct LOCAL_TP_RECORD {
  uint16_t usNameLen;
  unsigned char TPName[64];  // EBCDIC, X'40' padded
};

// Global control block: one per process.
struct GCB {
  unsigned char CurrentContext[8];
  unsigned char CurrentContextLU[8];
  unsigned char EnvLUAlias[8];
  unsigned char TpName[64];
  uint32_t NumVerbsWaiting;
  uint32_t NumVerbsOutstanding;
  void *hWaitObject;
  uint16_t NumLocTPNames;
  VTM_TABLE LocTPNameTable;
  VTM_TABLE CCCBTable;
  VTM_TABLE SideInfoTable;
  uint32_t ulPathUserId;
  uint16_t usTpNameLen;
  uint16_t fDefaultTpNameDefined;
  uint16_t fTpNameFromEnv;
};

// The verb area of a CCCB: one verb record at a time.
union CCCB_VCB {
  unsigned char bytes[NAP_VCB_SIZE];
  NAP_HDR hdr;
  NAP_ALLOCATE alloc;
  NAP_START_TP_VCB start_tp;
  struct {
    NAP_RECEIVE_ALLOCATE rcv_alloc;
  } rcvallcp;
  NAP_CONFIRM_VCB confirm;
  NAP_PREPARE_TO_RECEIVE_VCB prep_to_rcv;
  NAP_SEND_DATA_VCB snd_data;
  NAP_SEND_ERROR_VCB snd_err;
  NAP_DEALLOCATE_VCB dealloc;
  NAP_RECEIVE_VCB rcv;
  NAP_GET_STATE_VCB get_state;
};
static_assert(sizeof(CCCB_VCB) == NAP_VCB_SIZE);

// Conversation control block: one per conversation.  The verb area comes
// first, so the VCB address the node hands back to a completion routine is
// the CCCB's address.
struct CCCB {
  CCCB_VCB vcb;
  uint32_t CCCBhandle;
  uint16_t fConversationEnded;
  SCD_ENTRY SideInfo;
  unsigned char LocalLUName[8];
  uint32_t ulAppcConvId;
  uint32_t ulConversationType;
  uint32_t ulDeallocateType;
  uint32_t ulErrorDirection;
  uint32_t ulFill;
  uint32_t ulPrepareToReceiveType;
  uint32_t ulReceiveType;
  uint32_t ulReturnControl;
  uint32_t ulSendType;
  uint32_t ulSyncLevel;
  uint16_t usLogDataLength;
  unsigned char *pLogData;
  uint16_t usDeallcLogDataLength;
  unsigned char *DeallcLogData;
  uint16_t fConfirmDeallocReceived;
  uint16_t fConfirmRequested;
  uint16_t usVerbsOutstanding;
  uint16_t usProcessingMode;
  uint16_t fInitializeState;
  uint16_t fCancelPending;
  unsigned char TpId[8];
  uint16_t fCompletionWaiting;
  uint32_t ulLocTPNameHandle;
  uint16_t usTraceVerb;
  unsigned char *pTraceConvId;
  uint32_t ulReturnCode;
  void *pOutParm[5];
  unsigned char ConvIdCopy[8];
  uint16_t fNewContext;
};
static_assert(offsetof(CCCB, vcb) == 0);

// Problem and audit codes of the library.
inline constexpr uint32_t kAuditTpStarted = 0x20030000;
inline constexpr uint32_t kAuditAccepted = 0x20030001;
inline constexpr uint32_t kAuditAllocated = 0x20030002;
inline constexpr uint32_t kAuditDeallocated = 0x20030003;
inline constexpr uint32_t kProblemBadState = 0x20030004;
inline constexpr uint32_t kProblemUnknownConversation = 0x20030005;
inline constexpr uint32_t kAuditSymDestNotFound = 0x20030006;
inline constexpr uint32_t kProblemBadLength = 0x20030007;
inline constexpr uint32_t kProblemSideInfoLength = 0x20030008;
inline constexpr uint32_t kProblemGetStateFailed = 0x20030009;
inline constexpr uint32_t kProblemStartup = 0x2003000A;
inline constexpr uint32_t kProblemNoResource = 0x2003000B;
inline constexpr uint32_t kProblemInbound = 0x2003000C;
inline constexpr uint32_t kProblemNofOpen = 0x2003000D;
inline constexpr uint32_t kProblemDefineLocalTp = 0x2003000E;
inline constexpr uint32_t kProblemDeleteLocalTp = 0x2003000F;
inline constexpr uint32_t kProblemCancelPending = 0x20030011;
inline constexpr uint32_t kProblemLogData = 0x20030012;
inline constexpr uint32_t kProblemNofQuery = 0x20030014;
inline constexpr uint32_t kProblemUnmappedResult = 0x20030016;
