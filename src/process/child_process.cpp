// Watching and ending programs, with pipes for what they print and a pidfd for their
// end; see child_process.h.
//
// The program leads a process group of its own. What it leaves behind in that group is
// killed just before the program is reaped, while no other group can have its number.
#include "process/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>

namespace kavri::process {

namespace {

// By number: the header of glibc 2.36 that declares pidfd_open is not for C++.
int openProcess(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

ExitState exitStateOf(const siginfo_t& info) {
    return info.si_code == CLD_EXITED ? ExitState{info.si_status, 0} : ExitState{0, info.si_status};
}

base::Descriptor openLog(const ChildSpawn& spawn) {
    if (spawn.logFile.empty()) {
        return {};
    }
    base::Descriptor log(
        open(spawn.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (log.get() < 0) {
        throwStartError(spawn.program);
    }
    return log;
}

}  // namespace

ChildProcess::ChildProcess(const ChildSpawn& spawn) {
    const base::Descriptor log = openLog(spawn);
    base::Pipe output = spawn.captureOutput ? base::Pipe::make() : base::Pipe{};
    base::Pipe error = spawn.captureError ? base::Pipe::make() : base::Pipe{};
    for (const base::Pipe* pipe : {&output, &error}) {
        if (pipe->readEnd.get() >= 0) {
            base::setNonBlocking(pipe->readEnd);
        }
    }
    state_.pid = startProgram(spawn, spawn.captureOutput ? output.writeEnd.get() : log.get(),
                              spawn.captureError ? error.writeEnd.get() : log.get());
    state_.interrupt = spawn.interruptDescriptor;
    state_.outputPipe = std::move(output.readEnd);
    state_.errorPipe = std::move(error.readEnd);
    state_.ended = base::Descriptor(openProcess(state_.pid));
    if (state_.ended.get() < 0) {
        const int reason = errno;
        end();
        errno = reason;
        throwStartError(spawn.program);
    }
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    ChildProcess taken(std::move(other));
    std::swap(state_, taken.state_);
    return *this;
}

void ChildProcess::drain() {
    base::readAvailable(state_.outputPipe, state_.output);
    base::readAvailable(state_.errorPipe, state_.error);
    for (std::string* captured : {&state_.output, &state_.error}) {
        captured->resize(std::min(captured->size(), captureLimitBytes));
    }
}

// Waits for output, the program's end or the deadline.
void ChildProcess::pollUntil(Clock::time_point deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    std::array sources = {
        pollfd{endedDescriptor(), POLLIN, 0}, pollfd{outputDescriptor(), POLLIN, 0},
        pollfd{errorDescriptor(), POLLIN, 0}, pollfd{state_.interrupt, POLLIN, 0}};
    const auto waitMs = std::clamp<std::chrono::milliseconds::rep>(left, 0, 3'600'000);
    const int ready = poll(sources.data(), sources.size(), static_cast<int>(waitMs));
    assert(ready >= 0 || errno == EINTR);
    static_cast<void>(ready);
}

bool ChildProcess::mayWaitUntil(Clock::time_point deadline) const {
    pollfd source = {state_.interrupt, POLLIN, 0};
    return Clock::now() < deadline && poll(&source, 1, 0) == 0;
}

// Reaps the program if it has ended, and reads the last of its output.
void ChildProcess::reap(int waitOption) {
    siginfo_t info{};
    const auto id = static_cast<id_t>(state_.pid);
    if (!isRunning() || waitid(P_PID, id, &info, WEXITED | WNOWAIT | waitOption) != 0 ||
        info.si_pid == 0) {
        return;
    }
    kill(-state_.pid, SIGKILL);
    const int reaped = waitid(P_PID, id, &info, WEXITED);
    assert(reaped == 0 && info.si_pid == state_.pid);
    static_cast<void>(reaped);
    state_.exit = exitStateOf(info);
    drain();
}

bool ChildProcess::waitForText(const std::string& captured, const std::string& text,
                               std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        reap(WNOHANG);
        drain();
        if (captured.find(text) != std::string::npos) {
            return true;
        }
        if (!isRunning() || !mayWaitUntil(deadline)) {
            return false;
        }
        pollUntil(deadline);
    }
}

std::optional<std::string> ChildProcess::waitForLine(std::chrono::milliseconds limit) {
    if (!waitForOutput("\n", limit)) {
        return std::nullopt;
    }
    const size_t length = state_.output.find('\n');
    std::string line = state_.output.substr(0, length);
    state_.output.erase(0, length + 1);
    return line;
}

std::optional<ExitState> ChildProcess::wait(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        drain();
        reap(WNOHANG);
        if (!isRunning() || !mayWaitUntil(deadline)) {
            return state_.exit;
        }
        pollUntil(deadline);
    }
}

void ChildProcess::signal(int number) {
    if (isRunning()) {
        kill(state_.pid, number);
    }
}

void ChildProcess::stop(std::chrono::milliseconds limit) {
    signal(SIGTERM);
    wait(limit);
    end();
}

void ChildProcess::end() {
    signal(SIGKILL);
    reap(0);
}

}  // namespace kavri::process
