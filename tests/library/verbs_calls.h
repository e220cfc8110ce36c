// Every conversation call of the verb family behind one signature, so tests
// can run the same case over all of them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "verbs_support.h"

namespace verbs_test {

struct Call {
  std::string name;
  uint32_t unknown_id_probe;  // probe of problem 0x20030005
  std::function<CM_RETURN_CODE(ConvId &)> run;
};

// Out-parameters that outlive a non-blocking call.
struct OutParms {
  unsigned char buffer[64] = {};
  CM_INT32 length = 16;
  CM_INT32 data_received = -1;
  CM_INT32 received_length = -1;
  CM_INT32 status_received = -1;
  CM_INT32 rts = -1;
  CM_INT32 state = -1;
};

inline OutParms &out_parms() {
  static OutParms parms;
  return parms;
}

// The calls that submit one verb on an allocated conversation.
inline std::vector<Call> verb_calls() {
  auto rc_of = [](auto call) {
    return [call](ConvId &id) {
      CM_RETURN_CODE rc = -1;
      call(id.data(), &rc);
      return rc;
    };
  };
  OutParms &o = out_parms();
  return {
      {"CMSEND", 16, rc_of([&o](unsigned char *id, CM_RETURN_CODE *rc) {
         cmsend(id, o.buffer, &o.length, &o.rts, rc);
       })},
      {"CMFLUS", 12, rc_of(cmflus)},
      {"CMPTR", 13, rc_of(cmptr)},
      {"CMCFM", 3, rc_of([&o](unsigned char *id, CM_RETURN_CODE *rc) { cmcfm(id, &o.rts, rc); })},
      {"CMCFMD", 4, rc_of(cmcfmd)},
      {"CMSERR", 17,
       rc_of([&o](unsigned char *id, CM_RETURN_CODE *rc) { cmserr(id, &o.rts, rc); })},
      {"CMRTS", 15, rc_of(cmrts)},
      {"CMRCV", 14, rc_of([&o](unsigned char *id, CM_RETURN_CODE *rc) {
         cmrcv(id, o.buffer, &o.length, &o.data_received, &o.received_length, &o.status_received,
               &o.rts, rc);
       })},
  };
}

inline Call trts_call() {
  return {"CMTRTS", 31, [](ConvId &id) {
            CM_RETURN_CODE rc = -1;
            cmtrts(id.data(), &out_parms().rts, &rc);
            return rc;
          }};
}

inline Call deallocate_call() {
  return {"CMDEAL", 5, [](ConvId &id) {
            CM_RETURN_CODE rc = -1;
            cmdeal(id.data(), &rc);
            return rc;
          }};
}

inline Call state_call() {
  return {"CMECS", 0, [](ConvId &id) {
            CM_RETURN_CODE rc = -1;
            cmecs(id.data(), &out_parms().state, &rc);
            return rc;
          }};
}

inline Call accept_incoming_call() {
  return {"CMACCI", 0, [](ConvId &id) {
            CM_RETURN_CODE rc = -1;
            cmacci(id.data(), &rc);
            return rc;
          }};
}

inline Call allocate_call() {
  return {"CMALLC", 1, [](ConvId &id) {
            CM_RETURN_CODE rc = -1;
            cmallc(id.data(), &rc);
            return rc;
          }};
}

}  // namespace verbs_test
