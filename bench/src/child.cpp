// Starting, ending and awaiting processes; see child.h.
#include "child.h"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "base/descriptor.h"
#include "base/unix_address.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds endingTime{3000};
constexpr milliseconds pause{5};

}  // namespace

Child::Child(const Start& start)
    : name_(start.command.front()),
      logFile_(start.logFile),
      process_({.program = name_,
                .arguments = {start.command.begin() + 1, start.command.end()},
                .captureOutput = start.readsOutput,
                .captureError = false,
                .logFile = start.logFile,
                .inheritedDescriptors = start.keptOpen}) {}

Child::~Child() {
    process_.stop(endingTime);
}

std::string Child::outputLine() {
    std::optional<std::string> line = process_.waitForLine(milliseconds(patienceMs));
    if (!line) {
        throwWithLog();
    }
    return *std::move(line);
}

void Child::waitUntilReady(const std::function<bool()>& isReady) {
    const auto end = std::chrono::steady_clock::now() + milliseconds(patienceMs);
    while (!isReady()) {
        if (process_.wait(pause) || std::chrono::steady_clock::now() >= end) {
            throwWithLog();
        }
    }
}

void Child::throwWithLog() const {
    std::ostringstream log;
    log << std::ifstream(logFile_).rdbuf();
    throw std::runtime_error(name_ + " printed nothing in time; its log:\n" + log.str());
}

std::vector<std::string> ownCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::filesystem::read_symlink("/proc/self/exe"));
    return arguments;
}

bool acceptsConnections(const std::string& socketPath) {
    const base::Descriptor descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const base::UnixAddress address(socketPath);
    return ::connect(descriptor.get(), address.get(), base::UnixAddress::size()) == 0;
}

}  // namespace kavri::bench
