// The exit statuses of the tool, which scripts rely on, and the one way in
// which a command gives up: with a status and a line that says what is wrong,
// where, and what to do about it.
#ifndef KAVRI_CLI_EXIT_STATUS_H
#define KAVRI_CLI_EXIT_STATUS_H

#include <stdexcept>
#include <string>

namespace kavri::cli {

enum class ExitStatus {
    passed = 0,
    failed = 1,       // checks failed
    ended = 2,        // the run was cut off: time over, or a crash
    couldNotRun = 3,  // no verdict, because something needed was not there
    usage = 64,       // the command line does not say what to do
};

class CommandFailure : public std::runtime_error {
  public:
    CommandFailure(ExitStatus status, const std::string& line)
        : std::runtime_error(line), status_(status) {}
    ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

}  // namespace kavri::cli

#endif
