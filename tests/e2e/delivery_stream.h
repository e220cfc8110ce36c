// The stream of the delivery-at-exit tests: what the receiver asks for, the
// records the sender sends (each one's bytes follow from its number, so the
// receiver checks every byte and notices a record lost, doubled or out of
// place), and the sender itself, shared by a side of the scenario runner and
// the TP program the node daemon starts.
#pragma once

#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cpic.h"

namespace delivery {

constexpr CM_INT32 kRecordSize = 800;

// How the sender ends once its records are sent.
enum class Ending : int {
  kDeallocate = 0,    // CMDEAL (flush), then the process exits at once
  kConfirm = 1,       // the last CMSEND sends and deallocates with confirmation
  kKilledMidway = 2,  // SIGKILL after half the records, no deallocation
  kKilledAfter = 3,   // CMDEAL, then SIGKILL instead of an exit
};

struct Request {
  uint64_t records = 0;
  Ending ending = Ending::kDeallocate;
};

inline std::string encode(const Request &request) {
  return std::to_string(request.records) + " " + std::to_string(static_cast<int>(request.ending));
}

inline bool decode(const std::string &text, Request &request) {
  unsigned long long records = 0;
  int ending = -1;
  if (std::sscanf(text.c_str(), "%llu %d", &records, &ending) != 2 || ending < 0 || ending > 3) {
    return false;
  }
  request = {records, static_cast<Ending>(ending)};
  return true;
}

// Record `index`: its number, then bytes that depend on it and on their place.
inline void fill_record(uint64_t index, unsigned char *out) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(index >> (8 * i));
  for (CM_INT32 i = 8; i < kRecordSize; ++i) {
    out[i] = static_cast<unsigned char>(index * 131 + static_cast<uint64_t>(i) * 7);
  }
}

// Sends the records of `request` on `conv` (in Send state) and ends as it
// asks; an empty string, or what went wrong.  `before_kill` runs before the
// process kills itself.
template <typename BeforeKill>
std::string send_stream(unsigned char *conv, const Request &request, BeforeKill before_kill) {
  std::vector<unsigned char> record(kRecordSize);
  CM_RETURN_CODE rc = CM_OK;
  CM_REQUEST_TO_SEND_RECEIVED rts = 0;
  for (uint64_t index = 0; index < request.records; ++index) {
    if (request.ending == Ending::kKilledMidway && index == request.records / 2) {
      before_kill();
      ::raise(SIGKILL);
    }
    const bool last = index + 1 == request.records;
    CM_INT32 type =
        last && request.ending == Ending::kConfirm ? CM_SEND_AND_DEALLOCATE : CM_BUFFER_DATA;
    cmsst(conv, &type, &rc);
    if (rc != CM_OK) return "cmsst returned " + std::to_string(rc);
    fill_record(index, record.data());
    CM_INT32 length = kRecordSize;
    cmsend(conv, record.data(), &length, &rts, &rc);
    if (rc != CM_OK) {
      return "cmsend of record " + std::to_string(index) + " returned " + std::to_string(rc);
    }
  }
  if (request.ending != Ending::kConfirm) {
    CM_INT32 type = CM_DEALLOCATE_FLUSH;
    cmsdt(conv, &type, &rc);
    if (rc == CM_OK) cmdeal(conv, &rc);
    if (rc != CM_OK) return "cmdeal returned " + std::to_string(rc);
  }
  if (request.ending == Ending::kKilledAfter) {
    before_kill();
    ::raise(SIGKILL);
  }
  return "";
}

}  // namespace delivery
