// One run of the command that answers a request: its input, its output, and its end.
#ifndef KAVRI_TERMINAL_SERVE_JOB_H
#define KAVRI_TERMINAL_SERVE_JOB_H

#include <poll.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "process/child_process.h"
#include "terminal/serve/request_inbox.h"

namespace kavri::terminal {

// How to run it.
struct JobPlan {
    std::string command;  // a line for the shell
    std::string broker;   // for what the command itself has to say to it
    std::chrono::milliseconds timeout;
};

// A payload for the answer, or why there is none.
struct JobResult {
    std::optional<std::string> payload;
    std::string reason;
};

// Its command is killed with all that it started where this is destroyed before its end.
class Job {
  public:
    // Throws std::system_error where it cannot be started.
    Job(Request request, const JobPlan& plan);

    const Request& request() const { return request_; }

    // What to wait for, and until when, before there is anything to do.
    void addSources(std::vector<pollfd>& sources) const;
    std::chrono::steady_clock::time_point deadline() const { return deadline_; }

    // Passes on what can be written and read; the result, once there is one. Then the job is
    // over.
    std::optional<JobResult> advance();

  private:
    using Clock = std::chrono::steady_clock;

    process::ChildProcess start(const JobPlan& plan);
    void writeInput();
    JobResult resultOf(const process::ExitState& exit);

    Request request_;
    base::Descriptor input_;
    std::size_t written_ = 0;
    std::chrono::milliseconds timeout_;
    Clock::time_point deadline_;
    process::ChildProcess process_;
};

}  // namespace kavri::terminal

#endif
