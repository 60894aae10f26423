// Starting and ending programs: fork, the few calls allowed between fork and
// exec, pipes for what the program prints, and a pidfd for its end.
//
// Everything that allocates is prepared before the fork. A failing exec is
// carried back over a pipe that a successful one closes. The program leads a
// process group of its own; whatever it leaves behind in that group is ended
// just before it is reaped, while its number cannot yet belong to another.
#include "cli/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

extern char** environ;

namespace kavri::cli {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::filesystem::path& program, int error) {
    throw std::system_error(error, std::generic_category(), "cannot start " + program.string());
}

// Owns one descriptor.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { close(); }

    int get() const { return number_; }
    void close() {
        if (number_ >= 0) {
            ::close(std::exchange(number_, -1));
        }
    }

  private:
    int number_ = -1;
};

struct Pipe {
    Descriptor reading;
    Descriptor writing;
};

Pipe makePipe(const std::filesystem::path& program) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail(program, errno);
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// Takes at most as much as a pipe can hold: all that was written before the
// call, and yet an end in front of a program that never stops writing.
void readWithoutWaiting(Descriptor& source, std::string& into) {
    constexpr size_t mostBytes = 1 << 20;
    std::array<char, 16384> chunk;
    for (size_t taken = 0; source.get() >= 0 && taken < mostBytes;) {
        const ssize_t count = read(source.get(), chunk.data(), chunk.size());
        if (count > 0) {
            into.append(chunk.data(), static_cast<size_t>(count));
            taken += static_cast<size_t>(count);
        } else if (count == 0) {
            source.close();
        } else if (errno != EINTR) {
            return;
        }
    }
}

std::vector<std::string> childEnvironment(const ChildSpawn& spawn) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!spawn.environment.contains(text.substr(0, text.find('=')))) {
            result.push_back(text);
        }
    }
    for (const auto& [name, value] : spawn.environment) {
        if (value) {
            result.push_back(name + "=" + *value);
        }
    }
    return result;
}

std::vector<char*> asPointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// All that the new process needs between fork and exec, where it may not
// allocate.
struct Preparation {
    const char* program;
    char** arguments;
    char** environment;
    const std::vector<int>* inherited;
    int output;  // -1: as the caller's
    int error;
    int failure;  // where the reason goes if exec fails
    pid_t parent;
};

// Runs in the new process; returns only when something failed, with errno set.
void becomeProgram(const Preparation& p) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != p.parent) {
        _exit(127);  // the caller died before it could be asked to be told
    }
    setpgid(0, 0);
    const rlimit noCoreFile = {0, 0};
    setrlimit(RLIMIT_CORE, &noCoreFile);

    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0 ||
        (p.output >= 0 && dup2(p.output, STDOUT_FILENO) < 0) ||
        (p.error >= 0 && dup2(p.error, STDERR_FILENO) < 0)) {
        return;
    }
    for (const int descriptor : *p.inherited) {
        if (fcntl(descriptor, F_SETFD, 0) < 0) {
            return;
        }
    }
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    execve(p.program, p.arguments, p.environment);
}

pid_t startProcess(const Preparation& preparation) {
    const pid_t pid = fork();
    if (pid == 0) {
        becomeProgram(preparation);
        const int reason = errno;
        const ssize_t told = write(preparation.failure, &reason, sizeof reason);
        _exit(told == sizeof reason ? 127 : 126);
    }
    return pid;
}

// By number: the header of glibc 2.36 that declares pidfd_open is not for C++.
int openProcess(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// What became of exec: 0, or the errno that it failed with.
int execResult(const Descriptor& reading) {
    int reason = 0;
    ssize_t count = 0;
    do {
        count = read(reading.get(), &reason, sizeof reason);
    } while (count < 0 && errno == EINTR);
    return count == sizeof reason ? reason : 0;
}

ExitState exitStateOf(const siginfo_t& info) {
    if (info.si_code == CLD_EXITED) {
        return {info.si_status, 0};
    }
    return {0, info.si_status};
}

}  // namespace

struct ChildProcess::State {
    pid_t pid = -1;
    Descriptor ended;
    Descriptor outputPipe;
    Descriptor errorPipe;
    std::string output;
    std::string error;
    std::optional<ExitState> exit;
    int interrupt = -1;

    void drain() {
        readWithoutWaiting(outputPipe, output);
        readWithoutWaiting(errorPipe, error);
    }

    // Waits for output, the program's end or the deadline.
    void pollUntil(Clock::time_point deadline) const {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        std::array sources = {pollfd{ended.get(), POLLIN, 0}, pollfd{outputPipe.get(), POLLIN, 0},
                              pollfd{errorPipe.get(), POLLIN, 0}, pollfd{interrupt, POLLIN, 0}};
        const auto waitMs = std::clamp<std::chrono::milliseconds::rep>(left, 0, 3'600'000);
        poll(sources.data(), sources.size(), static_cast<int>(waitMs));
    }

    bool mayWaitUntil(Clock::time_point deadline) const {
        pollfd source = {interrupt, POLLIN, 0};
        return Clock::now() < deadline && poll(&source, 1, 0) == 0;
    }

    // Reaps the program if it has ended, and takes in the last of its output.
    void reap(int waitOption) {
        siginfo_t info{};
        if (exit || waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | waitOption) ||
            info.si_pid == 0) {
            return;
        }
        kill(-pid, SIGKILL);
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED);
        exit = exitStateOf(info);
        drain();
    }

    bool waitForText(const std::string& captured, const std::string& text,
                     std::chrono::milliseconds limit) {
        const auto deadline = Clock::now() + limit;
        while (true) {
            reap(WNOHANG);
            drain();
            if (captured.find(text) != std::string::npos) {
                return true;
            }
            if (exit || !mayWaitUntil(deadline)) {
                return false;
            }
            pollUntil(deadline);
        }
    }
};

ChildProcess::ChildProcess(const ChildSpawn& spawn) : state_(nullptr) {
    std::vector<std::string> arguments = {spawn.program.string()};
    arguments.insert(arguments.end(), spawn.arguments.begin(), spawn.arguments.end());
    std::vector<std::string> environment = childEnvironment(spawn);
    std::vector<char*> argumentPointers = asPointers(arguments);
    std::vector<char*> environmentPointers = asPointers(environment);

    Pipe output = spawn.captureOutput ? makePipe(spawn.program) : Pipe{};
    Pipe error = spawn.captureError ? makePipe(spawn.program) : Pipe{};
    Pipe failure = makePipe(spawn.program);

    auto state = std::make_unique<State>();
    state->pid =
        startProcess({spawn.program.c_str(), argumentPointers.data(), environmentPointers.data(),
                      &spawn.inheritedDescriptors, output.writing.get(), error.writing.get(),
                      failure.writing.get(), getpid()});
    if (state->pid < 0) {
        fail(spawn.program, errno);
    }
    failure.writing.close();
    if (const int reason = execResult(failure.reading); reason != 0) {
        state->reap(0);
        fail(spawn.program, reason);
    }
    state->interrupt = spawn.interruptDescriptor;
    state->ended = Descriptor(openProcess(state->pid));
    state->outputPipe = std::move(output.reading);
    state->errorPipe = std::move(error.reading);
    for (const int descriptor : {state->outputPipe.get(), state->errorPipe.get()}) {
        if (descriptor >= 0) {
            fcntl(descriptor, F_SETFL, O_NONBLOCK);
        }
    }
    state_ = std::move(state);
    if (state_->ended.get() < 0) {
        const int reason = errno;
        end();
        fail(spawn.program, reason);
    }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept = default;

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    if (this != &other) {
        end();
        state_ = std::move(other.state_);
    }
    return *this;
}

ChildProcess::~ChildProcess() {
    end();
}

void ChildProcess::end() {
    if (state_ != nullptr && !state_->exit) {
        kill(state_->pid, SIGKILL);
        state_->reap(0);
    }
}

pid_t ChildProcess::pid() const {
    return state_->pid;
}

int ChildProcess::endedDescriptor() const {
    return state_->ended.get();
}
int ChildProcess::outputDescriptor() const {
    return state_->outputPipe.get();
}
int ChildProcess::errorDescriptor() const {
    return state_->errorPipe.get();
}

void ChildProcess::drain() {
    state_->drain();
}
const std::string& ChildProcess::output() const {
    return state_->output;
}
const std::string& ChildProcess::error() const {
    return state_->error;
}
std::string ChildProcess::takeOutput() {
    return std::exchange(state_->output, {});
}
std::string ChildProcess::takeError() {
    return std::exchange(state_->error, {});
}

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds limit) {
    return state_->waitForText(state_->output, text, limit);
}

bool ChildProcess::waitForError(const std::string& text, std::chrono::milliseconds limit) {
    return state_->waitForText(state_->error, text, limit);
}

std::optional<ExitState> ChildProcess::wait(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        state_->drain();
        state_->reap(WNOHANG);
        if (state_->exit || !state_->mayWaitUntil(deadline)) {
            return state_->exit;
        }
        state_->pollUntil(deadline);
    }
}

void ChildProcess::signal(int number) {
    if (!state_->exit) {
        kill(state_->pid, number);
    }
}

}  // namespace kavri::cli
