// Why a broker could not be asked: for scripts a kind, for people a line that says what is
// wrong, where, and what to do about it.
#ifndef KAVRI_MANAGEMENT_FAILURE_H
#define KAVRI_MANAGEMENT_FAILURE_H

#include <stdexcept>
#include <string>

#include "process/exit_status.h"

namespace kavri::management {

enum class FailureKind {
    unreachable,  // nobody listens there, or the connection was lost
    refused,      // the broker does not let this user ask, or not now, or is too old for it
    silent,       // no answer in time
    nonsense,     // what answers is no broker of ours
};

class Failure : public std::runtime_error {
  public:
    Failure(FailureKind kind, const std::string& line) : std::runtime_error(line), kind_(kind) {}
    FailureKind kind() const { return kind_; }

  private:
    FailureKind kind_;
};

// With an exit status for each kind of failure.
inline process::CommandFailure asCommandFailure(const Failure& failure) {
    using process::ExitStatus;
    switch (failure.kind()) {
        case FailureKind::refused:
            return {ExitStatus::failed, failure.what()};
        case FailureKind::silent:
            return {ExitStatus::ended, failure.what()};
        default:
            return {ExitStatus::couldNotRun, failure.what()};
    }
}

}  // namespace kavri::management

#endif
