// The seam between the node's APPC entry points and whatever carries the verbs.
//
// appc_c_version / appc_c_async_version hand every verb to one backend: the
// scripted backend of the test interface while tests script verbs, otherwise
// the conversation engine.  A backend either completes a verb at once or
// answers "later" and completes it afterwards through complete_verb(); the
// dispatcher turns that into a wait for a blocking caller or into a run of the
// completion routine on the node's completion thread.
#pragma once

#include <cstdint>

namespace snanode {

// One submitted verb, owned by the dispatcher until it completes.
struct VerbTicket;

class VerbBackend {
 public:
  virtual ~VerbBackend() = default;

  // Called with the process lock held.  Returns true when the verb has
  // completed and `vcb` holds its results; false when the backend will call
  // complete_verb(ticket) exactly once later.
  virtual bool start(void *vcb, VerbTicket *ticket) = 0;

  // The path to the node is ending: complete every verb still pending (with an
  // error of the backend's choice) before returning.  Called with the process
  // lock held.
  virtual void end_path() {}

  // Waits, with the process lock released, until `ticket` has completed; the
  // dispatcher calls it for a verb whose caller blocks.  The default waits on
  // the node monitor until complete_verb() has run.
  virtual void wait(VerbTicket *ticket);
};

// Completes a verb its backend answered "later".  The caller holds the process
// lock and has written the verb's results into its VCB.
void complete_verb(VerbTicket *ticket);

// The VCB a ticket stands for.
void *ticket_vcb(const VerbTicket *ticket);

// Whether complete_verb() has run for the ticket.  Process lock held.
bool ticket_completed(const VerbTicket *ticket);

// The conversation engine's backend, or nullptr while the node has none (the
// verbs are then answered "node not reachable").
VerbBackend *engine_backend();

}  // namespace snanode
