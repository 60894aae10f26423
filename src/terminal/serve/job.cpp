// Running a command through the shell; see job.h. What it writes to standard error goes where
// this program's own goes.
#include "terminal/serve/job.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "base/pipe.h"
#include "process/exit_text.h"

namespace kavri::terminal {

Job::Job(Request request, const JobPlan& plan)
    : request_(std::move(request)),
      timeout_(plan.timeout),
      deadline_(Clock::now() + plan.timeout),
      process_(start(plan)) {}

process::ChildProcess Job::start(const JobPlan& plan) {
    base::Pipe input = base::Pipe::make();
    base::setNonBlocking(input.writeEnd);
    input_ = std::move(input.writeEnd);
    return process::ChildProcess({.program = "/bin/sh",
                                  .arguments = {"-c", plan.command},
                                  .environment = {{"KAVRI_BROKER", plan.broker},
                                                  {"KAVRI_CATEGORY", request_.category},
                                                  {"KAVRI_COMMAND", request_.identifier},
                                                  {"KAVRI_UUID", request_.uuid}},
                                  .inputDescriptor = input.readEnd.get(),
                                  .captureError = false});
}

void Job::addSources(std::vector<pollfd>& sources) const {
    sources.push_back({process_.endedDescriptor(), POLLIN, 0});
    sources.push_back({process_.outputDescriptor(), POLLIN, 0});
    sources.push_back({input_.get(), POLLOUT, 0});
}

std::optional<JobResult> Job::advance() {
    writeInput();
    if (const auto exit = process_.wait(std::chrono::milliseconds(0))) {
        return resultOf(*exit);
    }
    if (process_.output().size() >= process::ChildProcess::captureLimitBytes) {
        return JobResult{{}, "the command writes more than any broker allows as a payload"};
    }
    if (Clock::now() >= deadline_) {
        return JobResult{{},
                         fmt::format("the command did not end within {} s",
                                     std::chrono::duration<double>(timeout_).count())};
    }
    return std::nullopt;
}

// A command that ends, or closes its input, without reading all of it needs no more.
void Job::writeInput() {
    while (input_.isOpen()) {
        const std::string_view rest = std::string_view(request_.payload).substr(written_);
        const ssize_t count = rest.empty() ? 0 : write(input_.get(), rest.data(), rest.size());
        if (count < 0 && errno == EAGAIN) {
            return;
        }
        if (rest.empty() || (count < 0 && errno != EINTR)) {
            input_.close();
        }
        written_ += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

JobResult Job::resultOf(const process::ExitState& exit) {
    if (!exit.succeeded()) {
        return {{}, "the command " + process::exitText(exit)};
    }
    if (process_.output().find('\0') != std::string::npos) {
        return {{}, "the command wrote a NUL, which no payload can hold"};
    }
    return {process_.takeOutput(), ""};
}

}  // namespace kavri::terminal
