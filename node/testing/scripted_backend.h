// The scripted node: answers APPC verbs from scripts the tests queue instead
// of carrying them out, logs every verb as submitted, and holds verbs the
// scripts mark "complete later" until the test completes them.
//
// Every method runs under the process lock (the dispatcher and the test
// interface take it), which is all the synchronisation it needs.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "core/verb_backend.h"
#include "snanode/snanode_test.h"
#include "snanode/verbs.h"
#include "testing/verb_defaults.h"

namespace snanode::testing {

class ScriptedBackend final : public VerbBackend {
 public:
  bool start(void *vcb, VerbTicket *ticket) override;
  // Pending verbs complete with AP_COMM_SUBSYSTEM_ABENDED.
  void end_path() override;

  void push_script(const SNT_VERB_SCRIPT &script) { scripts_.push_back(script); }

  uint32_t submitted_count() const { return static_cast<uint32_t>(submitted_.size()); }
  bool submitted_vcb(uint32_t n, void *copy, uint32_t size) const;
  uint16_t submitted_opcode(uint32_t n) const;
  bool submitted_with_routine(uint32_t n) const;

  uint32_t pending_count() const { return static_cast<uint32_t>(pending_.size()); }
  // Completes the n-th oldest pending verb (0 = oldest) and waits until its
  // caller has its result or its routine has run.
  bool complete_pending(uint32_t n);

  // Drops scripts and the submitted log; pending verbs end as at path end.
  void reset();

 private:
  struct Submitted {
    uint8_t copy[NAP_VCB_SIZE];
    uint32_t size;
    uint16_t opcode;
    bool with_routine;
  };
  struct Pending {
    VerbTicket *ticket;
    SNT_VERB_SCRIPT script;
  };

  // The first queued script for `opcode` (removed from the queue), or the
  // default answer: success.
  SNT_VERB_SCRIPT take_script(uint16_t opcode);
  void apply(void *vcb, const SNT_VERB_SCRIPT &script);

  std::deque<SNT_VERB_SCRIPT> scripts_;
  std::vector<Submitted> submitted_;
  std::deque<Pending> pending_;
  VerbDefaults defaults_;
};

}  // namespace snanode::testing
