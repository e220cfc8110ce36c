// What each trace record of each verb holds: a list of line items that the
// record writer interprets.  An item says what to print (a conversation ID, a
// named value, a dump, a length, ...) and where its value comes from: the
// fourth argument of seputrcp, one of a1 to a5, or the conversation's CCCB.
#pragma once

#include <cstdint>
#include <span>

enum class TraceSource : uint8_t { kArg4, kA1, kA2, kA3, kA4, kA5, kCccb };

enum class TraceOp : uint8_t {
  kConversationId,   // " Conversation ID = ..." through the source
  kCharacteristics,  // "Conversation characteristics"
  kNamedValue,       // a value named through a table
  kAsyncResult,      // CMWAIT's conversation return code
  kLogData,          // the CCCB's log data pointer and length
  kSymDest,          // a symbolic destination name as text
  kNameDump,         // a label line and a dump of a name
  kLength,           // a 32-bit length as an unsigned number
  kBuffer,           // a data buffer line and its dump
  kWindowHandle,     // the fourth argument's own value
  kSideInfoEntry,    // the lines of an application's side information entry
};

// Values printed through a name table.
enum class TraceValue : uint8_t {
  kConversationType,
  kDeallocateType,
  kErrorDirection,
  kSyncLevel,
  kFill,
  kPrepareToReceiveType,
  kReceiveType,
  kSendType,
  kReturnControl,
  kSecurityType,
  kProcessingMode,
  kRequestToSend,
  kConversationState,
  kDataReceived,
  kStatusReceived,
  kTpNameType,
  kEndType,
};

// Names printed as dumps.
enum class TraceName : uint8_t {
  kPartnerLu,
  kMode,
  kPartnerTp,
  kUserId,
  kLocalTp,
  kContext,
  kLocalLu,
};

enum class TraceLength : uint8_t {
  kModeName,
  kPartnerLuName,
  kTpName,
  kUserId,
  kLocalLuName,
  kContextId,
  kRequested,
  kReceived,
  kSend,
  kEntry,
  kMaximumBuffer,
  kLogData,
};

struct TraceItem {
  TraceOp op;
  uint8_t what;  // TraceValue, TraceName or TraceLength, by op
  TraceSource source;
  TraceSource length_source;  // dumps and buffers taken from arguments
  bool low16 = false;         // buffers whose length is taken modulo 65536
};

struct TraceVerbLines {
  std::span<const TraceItem> request;
  std::span<const TraceItem> response;
};

// The lines of verb 0 to 62.
TraceVerbLines trace_verb_lines(uint16_t verb);
