// The exit statuses of the tool, which scripts rely on, and the exception with which a
// command ends: a status, and a line with what is wrong, where, and what to do about it.
#ifndef KAVRI_PROCESS_EXIT_STATUS_H
#define KAVRI_PROCESS_EXIT_STATUS_H

#include <stdexcept>
#include <string>

namespace kavri::process {

enum class ExitStatus {
    passed = 0,
    failed = 1,       // checks failed
    ended = 2,        // the run was cut off: by a time limit, or a crash
    couldNotRun = 3,  // no verdict, because something was missing; nothing was delivered
    unknown = 4,      // what was sent may have been acted on
    usage = 64,       // the command line is wrong
    outputLost = 74,  // all was done, but could not be printed
};

class CommandFailure : public std::runtime_error {
  public:
    CommandFailure(ExitStatus status, const std::string& line)
        : std::runtime_error(line), status_(status) {}
    ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

}  // namespace kavri::process

#endif
