// The outcomes of a message: which of the library's statuses mean which, the exit status of
// each, and what a user can do about it.
#ifndef KAVRI_TERMINAL_OUTCOME_H
#define KAVRI_TERMINAL_OUTCOME_H

#include <kavri/core.h>

#include <string>

#include "process/exit_status.h"

namespace kavri::terminal {

enum class Outcome {
    answered,
    unanswered,    // its responder ended it without an answer
    timedOut,      // no outcome so far: it may still be acted on
    notDelivered,  // certainly not
    unknown,       // lost with its responder or the connection: it may have been acted on
};

// Of a request that gets no response, or of a call; success means that there is no answer.
Outcome outcomeOf(kavri_core_status status);

process::ExitStatus exitStatusOf(Outcome outcome);

// "not delivered"; and the same as a value in JSON, "not_delivered".
const char* nameOf(Outcome outcome);
std::string keyOf(Outcome outcome);

// Throws CommandFailure where the status is a failure. `broker` is as the options name it:
// null where it is to be found.
void check(kavri_core_status status, const char* broker);

// What the status says, and what to do about it: "no responder: start the service …".
std::string explained(kavri_core_status status);

}  // namespace kavri::terminal

#endif
