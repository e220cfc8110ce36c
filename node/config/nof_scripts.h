// The NOF side of the node's test interface: scripted answers to NOF verbs and
// the log of the verbs submitted (snt_script_nof, snt_push_nof_script,
// snt_nof_count, snt_nof_opcode in snanode_test.h).
#pragma once

namespace snanode::config {

// Drops every queued script, switches NOF scripting off and forgets the
// submitted verbs; part of snt_reset.
void reset_nof_scripts();

// Logs the verb and, while scripting is on, answers it: from the first queued
// script with the verb's opcode (or opcode 0), else with the default answer
// (success; a query finds no entry).  Returns false when scripting is off and
// the configuration must answer.
bool answer_scripted_nof(void *verb_block);

}  // namespace snanode::config
