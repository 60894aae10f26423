// What `kavri status` does: asks a broker how it is doing, once or again and again, and shows
// the answer.
#ifndef KAVRI_MANAGEMENT_STATUS_H
#define KAVRI_MANAGEMENT_STATUS_H

#include <optional>
#include <string>

#include "process/exit_status.h"

namespace kavri::management {

enum class StatusForm { text, json, prometheus };

struct StatusOptions {
    std::string socket;  // empty: found as every program finds it
    StatusForm form = StatusForm::text;
    bool all = false;
    std::optional<double> watchSeconds;  // between two looks; nothing: one look
    double timeoutSeconds = 5;           // for each answer
};

// Throws CommandFailure where there is no answer; once watching, only where the broker
// refuses one.
process::ExitStatus runStatus(const StatusOptions& options);

}  // namespace kavri::management

#endif
