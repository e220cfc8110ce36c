// seputrcp_d: one API trace record.  The lines of every verb are data
// (trace_verb_lines.cpp); this file prints them.  Every line is formatted with
// nb_sprintf into one stack buffer, so writing a record allocates nothing.
#include "trace_writer.h"

#include <cstring>

#include "internal.h"
#include "svmcspnt.h"
#include "trace_names.h"
#include "trace_verb_lines.h"

namespace {

constexpr const char *kComponent = "CPIC ";

// Lines are at most 80 characters; names and values are far shorter than
// the room left.
constexpr size_t kLineSize = 256;
constexpr size_t kNameSize = 64;

struct ValueInfo {
  const char *format;
  const TraceNameTable *table;
};

// Indexed by TraceValue.
const ValueInfo kValues[] = {
    {" Conversation type = %s", &kConversationTypeNames},
    {" Deallocate type = %s", &kDeallocateTypeNames},
    {" Error direction = %s", &kErrorDirectionNames},
    {" Sync level = %s", &kSyncLevelNames},
    {" Fill type = %s", &kFillNames},
    {" Prepare to receive type = %s", &kPrepareToReceiveTypeNames},
    {" Receive type = %s", &kReceiveTypeNames},
    {" Send type = %s", &kSendTypeNames},
    {" Return control = %s", &kReturnControlNames},
    {" Conversation security type = %s", &kSecurityTypeNames},
    {" Processing mode = %s", &kProcessingModeNames},
    {" Request to send received = %s", &kRequestToSendNames},
    {" Conversation state = %s", &kConversationStateNames},
    {" Data received type = %s", &kDataReceivedNames},
    {" Status received = %s", &kStatusReceivedNames},
    {" TP name type = %s", &kTpNameTypeNames},
    {" End type = %s", &kEndTypeNames},
};

struct NameInfo {
  const char *label;
  // The longest name the application can pass: a length beyond it (a caller
  // error the call itself rejects) never makes the trace read past the name.
  uint32_t maximum;
};

// Indexed by TraceName.
const NameInfo kNames[] = {
    {" Partner LU name =", 17},  {" Mode name =", 8},      {" Partner TP name =", 64},
    {" Security user ID =", 10}, {" Local TP name =", 64}, {" Context ID =", 32},
    {" Local LU name =", 8},
};

// Indexed by TraceLength.
const char *const kLengthFormats[] = {
    " Mode name length = %lu",     " Partner LU name length = %lu",
    " TP name length = %lu",       " Security user ID length = %lu",
    " Local LU name length = %lu", " Context ID length = %lu",
    " Requested length = %lu",     " Received length = %lu",
    " Send length = %lu",          " Entry length = %lu",
    " Maximum buffer size = %lu",  " Log data length = %lu",
};

// The application's side information entry, as the trace reads it.
constexpr size_t kEntrySymDest = 0;
constexpr size_t kEntryPartnerLu = 8;
constexpr size_t kEntryTpNameType = 28;
constexpr size_t kEntryTpName = 32;
constexpr size_t kEntryMode = 96;
constexpr size_t kEntrySecurityType = 104;
constexpr size_t kEntryUserId = 108;

uint32_t read32(const void *address) {
  uint32_t value;
  std::memcpy(&value, address, sizeof value);
  return value;
}

class RecordWriter {
 public:
  RecordWriter(const CCCB *cccb, const void *arg4, const uintptr_t (&args)[5], int32_t handle)
      : cccb_(cccb != nullptr ? cccb : &BlankCccb), arg4_(arg4), handle_(handle) {
    std::memcpy(args_, args, sizeof args_);
  }

  void line(const char *text) const { com_trc_line(handle_, kComponent, text); }
  void dump(const void *data, uint32_t length) const {
    com_trc_dump(handle_, kComponent, data, length);
  }
  void item(const TraceItem &item);

 private:
  const void *pointer(TraceSource source) const {
    if (source == TraceSource::kArg4) return arg4_;
    if (source == TraceSource::kCccb) return nullptr;
    return reinterpret_cast<const void *>(args_[static_cast<int>(source) - 1]);
  }
  uint32_t cccb_value(TraceValue what) const;
  const unsigned char *cccb_name(TraceName what, uint32_t *length) const;
  void conversation_id(const void *id);
  void named_value(TraceValue what, uint32_t value);
  void sym_dest(const void *name);
  void name_dump(TraceName what, const void *data, uint32_t length);
  void buffer(const void *data, int64_t length);
  void side_info_entry(const unsigned char *entry);
  void log_data();

  const CCCB *cccb_;
  const void *arg4_;
  uintptr_t args_[5];
  int32_t handle_;
  char text_[kLineSize];
};

uint32_t RecordWriter::cccb_value(TraceValue what) const {
  switch (what) {
    case TraceValue::kConversationType:
      return cccb_->ulConversationType;
    case TraceValue::kDeallocateType:
      return cccb_->ulDeallocateType;
    case TraceValue::kErrorDirection:
      return cccb_->ulErrorDirection;
    case TraceValue::kSyncLevel:
      return cccb_->ulSyncLevel;
    case TraceValue::kFill:
      return cccb_->ulFill;
    case TraceValue::kPrepareToReceiveType:
      return cccb_->ulPrepareToReceiveType;
    case TraceValue::kReceiveType:
      return cccb_->ulReceiveType;
    case TraceValue::kSendType:
      return cccb_->ulSendType;
    case TraceValue::kReturnControl:
      return cccb_->ulReturnControl;
    case TraceValue::kSecurityType:
      return cccb_->SideInfo.conversation_security_type;
    case TraceValue::kProcessingMode:
      return cccb_->usProcessingMode;
    default:
      // The remaining values are never characteristics of the CCCB.
      return 0;
  }
}

const unsigned char *RecordWriter::cccb_name(TraceName what, uint32_t *length) const {
  switch (what) {
    case TraceName::kPartnerLu:
      *length = 17;
      return cccb_->SideInfo.partner_LU_name;
    case TraceName::kMode:
      *length = 8;
      return cccb_->SideInfo.mode_name;
    case TraceName::kPartnerTp:
      *length = 64;
      return cccb_->SideInfo.TP_name;
    case TraceName::kUserId:
      *length = 8;
      return cccb_->SideInfo.security_user_ID;
    case TraceName::kLocalLu:
      *length = 8;
      return cccb_->LocalLUName;
    default:
      // Local TP names and contexts only ever come from the application.
      *length = 0;
      return nullptr;
  }
}

void RecordWriter::conversation_id(const void *id) {
  const auto *bytes = static_cast<const unsigned char *>(id);
  nb_sprintf(text_, " Conversation ID = %02X%02X%02X%02X", bytes[0], bytes[1], bytes[2], bytes[3]);
  line(text_);
}

void RecordWriter::named_value(TraceValue what, uint32_t value) {
  const ValueInfo &info = kValues[static_cast<int>(what)];
  char name[kNameSize];
  nb_sprintf(text_, info.format, trace_value_name(*info.table, value, name, sizeof name));
  line(text_);
}

void RecordWriter::sym_dest(const void *name) {
  // At most 8 characters, whether or not the name is terminated.
  char text[9] = {};
  std::memcpy(text, name, strnlen(static_cast<const char *>(name), 8));
  nb_sprintf(text_, " Sym dest name = %s", text);
  line(text_);
}

void RecordWriter::name_dump(TraceName what, const void *data, uint32_t length) {
  line(kNames[static_cast<int>(what)].label);
  dump(data, length);
}

void RecordWriter::buffer(const void *data, int64_t length) {
  if (length <= 0 || data == nullptr) {
    line(" Buffer empty");
    return;
  }
  nb_sprintf(text_, "---- Buffer at address %p ----", data);
  line(text_);
  dump(data, static_cast<uint32_t>(length));
}

void RecordWriter::log_data() {
  nb_sprintf(text_, " Log data pointer = %p", static_cast<void *>(cccb_->pLogData));
  line(text_);
  nb_sprintf(text_, " Log data length = %lu", static_cast<uint32_t>(cccb_->usLogDataLength));
  line(text_);
}

void RecordWriter::side_info_entry(const unsigned char *entry) {
  sym_dest(entry + kEntrySymDest);
  name_dump(TraceName::kPartnerLu, entry + kEntryPartnerLu, 17);
  named_value(TraceValue::kTpNameType, read32(entry + kEntryTpNameType));
  name_dump(TraceName::kPartnerTp, entry + kEntryTpName, 64);
  name_dump(TraceName::kMode, entry + kEntryMode, 8);
  named_value(TraceValue::kSecurityType, read32(entry + kEntrySecurityType));
  name_dump(TraceName::kUserId, entry + kEntryUserId, 8);
}

void RecordWriter::item(const TraceItem &item) {
  const void *source = pointer(item.source);
  // A line whose argument is missing is left out rather than read through
  // a null pointer.
  if (item.source != TraceSource::kCccb && item.op != TraceOp::kWindowHandle && source == nullptr) {
    return;
  }
  switch (item.op) {
    case TraceOp::kConversationId:
      conversation_id(source);
      return;
    case TraceOp::kCharacteristics:
      line("Conversation characteristics");
      return;
    case TraceOp::kNamedValue: {
      const auto what = static_cast<TraceValue>(item.what);
      named_value(what, source != nullptr ? read32(source) : cccb_value(what));
      return;
    }
    case TraceOp::kAsyncResult: {
      char name[kNameSize];
      nb_sprintf(text_, " Async result = %s",
                 trace_value_name(kAsyncResultNames, read32(source), name, sizeof name));
      line(text_);
      return;
    }
    case TraceOp::kLogData:
      log_data();
      return;
    case TraceOp::kSymDest:
      sym_dest(source != nullptr ? source : cccb_->SideInfo.sym_dest_name);
      return;
    case TraceOp::kNameDump: {
      const auto what = static_cast<TraceName>(item.what);
      uint32_t length = 0;
      if (source == nullptr) {
        source = cccb_name(what, &length);
      } else {
        const void *length_pointer = pointer(item.length_source);
        length = length_pointer != nullptr ? read32(length_pointer) : 0;
        if (static_cast<int32_t>(length) < 0) length = 0;
        if (length > kNames[static_cast<int>(what)].maximum) {
          length = kNames[static_cast<int>(what)].maximum;
        }
      }
      name_dump(what, source, length);
      return;
    }
    case TraceOp::kLength:
      nb_sprintf(text_, kLengthFormats[item.what], read32(source));
      line(text_);
      return;
    case TraceOp::kBuffer: {
      const void *length_pointer = pointer(item.length_source);
      const uint32_t raw = length_pointer != nullptr ? read32(length_pointer) : 0;
      buffer(source, item.low16 ? int64_t{raw & 0xFFFFu} : int64_t{static_cast<int32_t>(raw)});
      return;
    }
    case TraceOp::kWindowHandle:
      nb_sprintf(text_, " Window Handle = %u",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(arg4_)));
      line(text_);
      return;
    case TraceOp::kSideInfoEntry:
      side_info_entry(static_cast<const unsigned char *>(source));
      return;
  }
}

// The header's result text: the return code's name for 0 to 137, else the
// unknown text with the low 16 bits.
void result_text(const void *return_code, char (&out)[kNameSize]) {
  const uint32_t value = return_code != nullptr ? read32(return_code) : 0;
  if (return_code != nullptr && value < kTraceReturnCodeCount) {
    trace_value_name(kReturnCodeNames, value, out, sizeof out);
  } else {
    nb_sprintf(out, "%s (rc=%d)", kUnknownReturnCode, static_cast<int>(value & 0xFFFFu));
  }
}

}  // namespace

void seputrcp_d(uint32_t kind, uint16_t verb, void *cccb, const void *arg4, uintptr_t a1,
                uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, int32_t handle) {
  const uintptr_t args[5] = {a1, a2, a3, a4, a5};
  RecordWriter writer(static_cast<const CCCB *>(cccb), arg4, args, handle);
  com_trc_sep(handle, kComponent);

  const uint16_t record_kind = static_cast<uint16_t>(kind);
  const char *verb_name = trace_verb_name(verb);
  char header[kLineSize];
  if (record_kind == 1) {
    nb_sprintf(header, "%s request", verb_name);
  } else {
    char result[kNameSize];
    result_text(arg4, result);
    nb_sprintf(header,
               record_kind == 2 ? "%s response, result = %s" : "%s async response, result = %s",
               verb_name, result);
  }
  writer.line(header);
  if (verb >= kTraceVerbCount) return;

  const TraceVerbLines lines = trace_verb_lines(verb);
  for (const TraceItem &item : record_kind == 1 ? lines.request : lines.response) {
    writer.item(item);
  }
}
