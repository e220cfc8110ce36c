// The API trace's name tables: verb names and the texts that turn CPI-C
// values into names.  Every table is indexed by the value, from 0.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint16_t kTraceVerbCount = 63;
inline constexpr uint32_t kTraceReturnCodeCount = 138;

extern const char *const cpicvb[kTraceVerbCount];
extern const char *const cpicct[2];
extern const char *const cpicdt[4];
extern const char *const cpiced[2];
extern const char *const cpicsl[4];
extern const char *const cpicft[2];
extern const char *const cpicptr[3];
extern const char *const cpicrt[2];
extern const char *const cpicst[5];
extern const char *const cpicrcon[2];
extern const char *const cpiccst[6];
extern const char *const cpictp[2];
extern const char *const cpicpm[2];
extern const char *const cpicrtsr[2];
extern const char *const cpicdr[4];
extern const char *const cpicsr[14];
extern const char *const cpiccs[19];
extern const char *const cpicet[2];
extern const char *const cpicrc[kTraceReturnCodeCount];

inline constexpr const char *kUnknownVerb = "***UNKNOWN VERB***";
inline constexpr const char *kUnknownReturnCode = "***UNKNOWN RC***";

// One name table as the trace uses it: values 0 to used - 1 print as the
// prefix and the table's text, any other value as the unknown text alone.
struct TraceNameTable {
  const char *const *entries;
  uint32_t used;
  const char *prefix;  // "CM_" or "XC_"
  const char *unknown;
};

extern const TraceNameTable kConversationTypeNames;
extern const TraceNameTable kDeallocateTypeNames;
extern const TraceNameTable kErrorDirectionNames;
extern const TraceNameTable kSyncLevelNames;
extern const TraceNameTable kFillNames;
extern const TraceNameTable kPrepareToReceiveTypeNames;
extern const TraceNameTable kReceiveTypeNames;
extern const TraceNameTable kSendTypeNames;
extern const TraceNameTable kReturnControlNames;
extern const TraceNameTable kSecurityTypeNames;
extern const TraceNameTable kTpNameTypeNames;
extern const TraceNameTable kProcessingModeNames;
extern const TraceNameTable kRequestToSendNames;
extern const TraceNameTable kDataReceivedNames;
extern const TraceNameTable kStatusReceivedNames;
extern const TraceNameTable kConversationStateNames;
extern const TraceNameTable kEndTypeNames;
// Return codes in response headers (0 to 137) and in CMWAIT's async result
// line (0 to 37).
extern const TraceNameTable kReturnCodeNames;
extern const TraceNameTable kAsyncResultNames;

// Writes the name of `value` (taken as unsigned) into `out` (at least 64
// bytes) and returns `out`.
const char *trace_value_name(const TraceNameTable &table, uint32_t value, char *out, size_t size);

// The verb's name, or the unknown-verb text above 62.
const char *trace_verb_name(uint16_t verb);
