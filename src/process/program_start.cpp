// Between fork and exec; see program_start.h.
//
// The new process may only make calls that are safe in a signal handler, so all that
// allocates is prepared before the fork. A failed exec is reported over a pipe, which a
// successful one closes.
#include "process/program_start.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/pipe.h"

namespace kavri::process {

namespace {

constexpr int notStartedStatus = 127;

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

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

struct Preparation {
    const char* program;
    char** arguments;
    char** environment;
    const std::vector<int>& inherited;
    int input;    // -1: empty
    int output;   // -1: as the caller's
    int error;    // likewise
    int failure;  // gets errno where exec fails
    pid_t parent;
};

// Runs in the new process; returns only when something failed, with errno set.
void becomeProgram(const Preparation& p) {
    // The kernel does not signal a parent that had already died by then.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        return;
    }
    if (getppid() != p.parent) {
        _exit(notStartedStatus);
    }
    const rlimit noCoreFile = {0, 0};
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (setpgid(0, 0) != 0 || setrlimit(RLIMIT_CORE, &noCoreFile) != 0 || null < 0 ||
        dup2(p.input >= 0 ? p.input : null, STDIN_FILENO) < 0 ||
        (p.output >= 0 && dup2(p.output, STDOUT_FILENO) < 0) ||
        (p.error >= 0 && dup2(p.error, STDERR_FILENO) < 0)) {
        return;
    }
    for (const int descriptor : p.inherited) {
        if (fcntl(descriptor, F_SETFD, 0) < 0) {
            return;
        }
    }
    sigset_t none;
    sigemptyset(&none);
    if (signal(SIGPIPE, SIG_DFL) == SIG_ERR || pthread_sigmask(SIG_SETMASK, &none, nullptr) != 0) {
        return;
    }
    execvpe(p.program, p.arguments, p.environment);
}

[[noreturn]] void runProgram(const Preparation& preparation) {
    becomeProgram(preparation);
    const int reason = errno;
    static_cast<void>(!write(preparation.failure, &reason, sizeof reason));
    _exit(notStartedStatus);
}

// What became of exec: 0, or the errno with which it failed.
int execResult(const base::Descriptor& reading) {
    int reason = 0;
    ssize_t count = 0;
    do {
        count = read(reading.get(), &reason, sizeof reason);
    } while (count < 0 && errno == EINTR);
    return count == sizeof reason ? reason : 0;
}

}  // namespace

void throwStartError(const std::filesystem::path& program) {
    throw std::system_error(errno, std::generic_category(), "cannot start " + program.string());
}

pid_t startProgram(const ChildSpawn& spawn, int output, int error) {
    std::vector<std::string> arguments = {spawn.program.string()};
    arguments.insert(arguments.end(), spawn.arguments.begin(), spawn.arguments.end());
    std::vector<std::string> environment = childEnvironment(spawn);
    std::vector<char*> argumentPointers = pointersTo(arguments);
    std::vector<char*> environmentPointers = pointersTo(environment);
    base::Pipe failure = base::Pipe::make();
    const Preparation preparation{.program = spawn.program.c_str(),
                                  .arguments = argumentPointers.data(),
                                  .environment = environmentPointers.data(),
                                  .inherited = spawn.inheritedDescriptors,
                                  .input = spawn.inputDescriptor,
                                  .output = output,
                                  .error = error,
                                  .failure = failure.writeEnd.get(),
                                  .parent = getpid()};
    const pid_t pid = fork();
    if (pid == 0) {
        runProgram(preparation);
    }
    if (pid < 0) {
        throwStartError(spawn.program);
    }
    failure.writeEnd.close();
    if (const int reason = execResult(failure.readEnd); reason != 0) {
        waitpid(pid, nullptr, 0);
        errno = reason;
        throwStartError(spawn.program);
    }
    return pid;
}

}  // namespace kavri::process
