// Starting, ending and watching processes; see process.h.
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "transport.h"

namespace kavri::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds endingTime{3000};
constexpr std::chrono::milliseconds pause{5};

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

// The number behind `name` in a file of lines "name: number …".
std::uint64_t valueIn(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with(name + ":")) {
            return std::stoull(line.substr(name.size() + 1));
        }
    }
    return 0;
}

}  // namespace

Child::Child(const Start& start) : name_(start.command.front()), logFile_(start.logFile) {
    int ends[2] = {-1, -1};
    if (start.readsOutput && ::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t parent = ::getpid();
    id_ = ::fork();
    if (id_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (id_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(1);
        }
        run(start, ends[1]);
    }
    ::close(ends[1]);
    output_ = ends[0];
}

void Child::run(const Start& start, int outputEnd) const {
    const int log = ::open(start.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(log, STDERR_FILENO);
    ::dup2(outputEnd >= 0 ? outputEnd : log, STDOUT_FILENO);
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    for (const int kept : start.keptOpen) {
        ::fcntl(kept, F_SETFD, 0);
    }
    std::vector<char*> arguments;
    for (const std::string& argument : start.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    ::execvp(arguments.front(), arguments.data());
    ::dprintf(STDERR_FILENO, "cannot run %s: error %d\n", arguments.front(), errno);
    ::_exit(127);
}

Child::~Child() {
    stop();
    ::close(output_);
}

bool Child::isRunning() {
    if (id_ > 0 && ::waitpid(id_, nullptr, WNOHANG) == id_) {
        id_ = -1;
    }
    return id_ > 0;
}

std::string Child::outputLine() {
    std::string line;
    char byte = 0;
    pollfd waited{output_, POLLIN, 0};
    while (::poll(&waited, 1, patienceMs) > 0 && ::read(output_, &byte, 1) == 1) {
        if (byte == '\n') {
            return line;
        }
        line += byte;
    }
    throw std::runtime_error(name_ + " said nothing in time; its log:\n" + contentOf(logFile_));
}

void Child::stop() {
    if (!isRunning()) {
        return;
    }
    ::kill(id_, SIGTERM);
    const Clock::time_point end = Clock::now() + endingTime;
    while (isRunning()) {
        if (Clock::now() >= end) {
            ::kill(id_, SIGKILL);
            ::waitpid(id_, nullptr, 0);
            id_ = -1;
            return;
        }
        std::this_thread::sleep_for(pause);
    }
}

std::vector<std::string> ownCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::filesystem::read_symlink("/proc/self/exe"));
    return arguments;
}

void waitUntilReady(Child& child, const std::function<bool()>& isReady) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(patienceMs);
    while (!isReady()) {
        if (!child.isRunning() || Clock::now() >= end) {
            child.outputLine();  // throws with the log
        }
        std::this_thread::sleep_for(pause);
    }
}

bool acceptsConnections(const std::string& socketPath) {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const bool isConnected =
        ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(descriptor);
    return isConnected;
}

Usage usageOf(pid_t process) {
    Usage usage;
    const std::string folder = "/proc/" + std::to_string(process);
    for (const auto& task : std::filesystem::directory_iterator(folder + "/task")) {
        std::ifstream times(task.path() / "schedstat");
        std::uint64_t processorNs = 0;
        times >> processorNs;
        usage.processorNs += processorNs;
        usage.wakeUps += valueIn(task.path() / "status", "voluntary_ctxt_switches");
    }
    usage.proportionalBytes = valueIn(folder + "/smaps_rollup", "Pss") * 1024;
    usage.residentBytes = valueIn(folder + "/smaps_rollup", "Rss") * 1024;
    return usage;
}

Usage ownUsage() {
    timespec time{};
    rusage counted{};
    ::getrusage(RUSAGE_SELF, &counted);
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    Usage usage;
    usage.processorNs = static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
                        static_cast<std::uint64_t>(time.tv_nsec);
    usage.wakeUps = static_cast<std::uint64_t>(counted.ru_nvcsw);
    return usage;
}

void failMeasurement(const std::exception& failure) {
    std::fprintf(stderr, "kavri-bench-measure: %s\n", failure.what());
    std::_Exit(1);
}

void pinToOneProcessor() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    ::sched_getaffinity(0, sizeof allowed, &allowed);
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(static_cast<std::size_t>(last), &allowed)) {
        --last;
    }
    CPU_ZERO(&allowed);
    CPU_SET(static_cast<std::size_t>(last), &allowed);
    if (::sched_setaffinity(0, sizeof allowed, &allowed) != 0) {
        throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
    }
}

void raiseDescriptorLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace kavri::bench
