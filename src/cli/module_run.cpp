// The loop around poll; see module_run.h.
//
// In each round the log is read first and shown last. What the module printed
// before it wrote a line of the log is then shown before that line.
#include "cli/module_run.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "cli/broker_access.h"

namespace kavri::cli {

namespace {

// A line longer than this is passed on in pieces.
constexpr size_t longestLineBytes = 65536;

// The broker that the run has to itself is worth reading only where something
// went wrong, and then from the end.
constexpr size_t mostBrokerLines = 100;

bool hasEnded(ChildProcess& process) {
    return process.wait(std::chrono::milliseconds(0)).has_value();
}

}  // namespace

ModuleRun::ModuleRun(ChildProcess* broker, const RunLimits& limits, RunDisplay& display)
    : broker_(broker), limits_(limits), display_(display) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
    }
    logReading_ = ends[0];
    logWriting_ = ends[1];
    fcntl(logReading_, F_SETFL, O_NONBLOCK);
}

ModuleRun::~ModuleRun() {
    close(logReading_);
    close(logWriting_);
}

RunEnd ModuleRun::run(const ChildSpawn& spawn) {
    ChildProcess module(spawn);
    const RunEnd end = watch(module);
    // Gone already where it ended by itself; otherwise it ends here.
    module.signal(SIGKILL);
    exit_ = module.wait(std::chrono::hours(1)).value_or(ExitState{});
    follow(module);
    output_.finish([this](std::string_view line) { showModuleLine(line); });
    error_.finish([this](std::string_view line) { showModuleLine(line); });
    brokerError_.finish([this](std::string_view line) { keepBrokerLine(line); });
    apply(log_.finish());
    return end;
}

RunEnd ModuleRun::watch(ChildProcess& module) {
    while (true) {
        pollOnce(module);
        // Asked first, because asking takes in output, which must not lie there
        // while the next poll waits for more.
        const bool moduleEnded = hasEnded(module);
        const bool brokerEnded = broker_ != nullptr && hasEnded(*broker_);
        follow(module);
        if (moduleEnded) {
            return RunEnd::moduleEnded;
        }
        if (limits_.signals().received()) {
            return RunEnd::signalled;
        }
        if (brokerEnded) {
            return RunEnd::brokerLost;
        }
        if (Clock::now() >= limits_.deadline()) {
            return RunEnd::timeOver;
        }
    }
}

void ModuleRun::pollOnce(const ChildProcess& module) const {
    std::array sources = {pollfd{logReading_, POLLIN, 0},
                          pollfd{limits_.signals().descriptor(), POLLIN, 0},
                          pollfd{module.endedDescriptor(), POLLIN, 0},
                          pollfd{module.outputDescriptor(), POLLIN, 0},
                          pollfd{module.errorDescriptor(), POLLIN, 0},
                          pollfd{broker_ != nullptr ? broker_->endedDescriptor() : -1, POLLIN, 0},
                          pollfd{broker_ != nullptr ? broker_->outputDescriptor() : -1, POLLIN, 0},
                          pollfd{broker_ != nullptr ? broker_->errorDescriptor() : -1, POLLIN, 0}};
    poll(sources.data(), sources.size(),
         static_cast<int>(
             std::clamp<std::chrono::milliseconds::rep>(limits_.left().count(), 0, 3'600'000)));
}

void ModuleRun::follow(ChildProcess& module) {
    const std::string log = readLog();
    module.drain();
    output_.add(module.takeOutput(), [this](std::string_view line) { showModuleLine(line); });
    error_.add(module.takeError(), [this](std::string_view line) { showModuleLine(line); });
    if (broker_ != nullptr) {
        broker_->drain();
        broker_->takeOutput();
        brokerError_.add(broker_->takeError(),
                         [this](std::string_view line) { keepBrokerLine(line); });
    }
    apply(log_.read(log));
}

std::string ModuleRun::readLog() const {
    constexpr size_t mostBytes = 1 << 20;
    std::string log;
    std::array<char, 16384> chunk;
    while (log.size() < mostBytes) {
        const ssize_t count = read(logReading_, chunk.data(), chunk.size());
        if (count > 0) {
            log.append(chunk.data(), static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    return log;
}

void ModuleRun::apply(const std::vector<LogEvent>& events) {
    for (const LogEvent& event : events) {
        if (event.kind == LogEvent::Kind::remark) {
            display_.showRemark(event.text);
        }
        if (const CaseRecord* ended = record_.add(event, Clock::now())) {
            display_.showCaseEnded(*ended);
        }
    }
    if (!events.empty() && record_.underWay() != nullptr) {
        display_.showCaseUnderWay(*record_.underWay());
    }
}

void ModuleRun::showModuleLine(std::string_view line) {
    display_.showOthersLine(line);
}

void ModuleRun::keepBrokerLine(std::string_view line) {
    if (line.find(brokerReadyText) != std::string_view::npos) {
        return;
    }
    brokerLines_.emplace_back(line);
    if (brokerLines_.size() > mostBrokerLines) {
        brokerLines_.pop_front();
    }
}

void ModuleRun::LineBuffer::add(std::string_view bytes,
                                const std::function<void(std::string_view)>& use) {
    partial_ += bytes;
    std::string_view rest = partial_;
    for (size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
        use(rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    partial_.erase(0, partial_.size() - rest.size());
    if (partial_.size() > longestLineBytes) {
        finish(use);
    }
}

void ModuleRun::LineBuffer::finish(const std::function<void(std::string_view)>& use) {
    if (!partial_.empty()) {
        use(partial_);
        partial_.clear();
    }
}

}  // namespace kavri::cli
