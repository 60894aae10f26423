// The loop around poll; see module_run.h.
//
// What the module does arrives as events, what it prints as output, on different pipes.
// The module prints before it writes the event that the output belongs to. So in each
// iteration events are read first and applied last, behind the output read in between.
#include "conformance/module/module_run.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <csignal>

#include "conformance/agent/channel.h"
#include "conformance/module/broker_access.h"
#include "conformance/module/post_mortem.h"
#include "conformance/module/stacks.h"

namespace kavri::conformance {

namespace {

// The time of the current case is refreshed this often.
constexpr std::chrono::milliseconds refreshTime{100};

// Of the broker's log only the last lines are kept; they are shown where a case fails.
constexpr size_t brokerLinesLimit = 100;

// A process that ends closes its descriptors a moment before it has ended.
constexpr std::chrono::milliseconds endingTime{1000};

Verdict verdictOnCutOff(RunEnd end) {
    switch (end) {
        case RunEnd::moduleEnded:
            return Verdict::crash;
        case RunEnd::channelClosed:
            return Verdict::fail;
        case RunEnd::hung:
        case RunEnd::timeOver:
            return Verdict::timeout;
        case RunEnd::brokerLost:
            return Verdict::harnessError;
        case RunEnd::signalled:
        case RunEnd::stopped:
            break;
    }
    return Verdict::notRun;
}

bool hasEnded(process::ChildProcess& process) {
    return process.wait(std::chrono::milliseconds(0)).has_value();
}

}  // namespace

ModuleRun::ModuleRun(const OtherEnd& otherEnd, const RunLimits& limits, RunDisplay& display,
                     WatchdogSettings watchdog, CaseEnded ended, RoundEnded roundEnded)
    : otherEnd_(otherEnd),
      broker_(otherEnd.broker),
      limits_(limits),
      display_(display),
      watchdog_(watchdog),
      ended_(std::move(ended)),
      roundEnded_(std::move(roundEnded)),
      eventsPipe_(base::Pipe::make()),
      releasePipe_(base::Pipe::make()),
      record_([this](const CaseReport& report, bool hasProbeEcho) {
          return confirm(report, hasProbeEcho);
      }),
      output_([this](const std::string& line) { display_.showForeignLine(line); }) {
    base::setNonBlocking(eventsPipe_.readEnd);
}

RunEnd ModuleRun::run(const ConformanceModule& module, ModuleRunRequest request) {
    assert(record_.cases().empty() && !record_.underWay());  // runs once
    record_.judgeBy(request.level);
    request.eventsDescriptor = eventsPipe_.writeEnd.get();
    rounds_ = request.rounds;
    if (request.warningsFail) {
        record_.failOnWarnings();
    }
    if (otherEnd_.evidence != nullptr) {
        request.releaseDescriptor = releasePipe_.readEnd.get();
        otherEnd_.evidence->beginCase();
    }
    if (!request.cases.empty()) {
        output_.beginWith(request.cases.front());  // while the library is loaded
    }
    releasedAt_ = Clock::now();
    process::ChildProcess process(module.runSpawn(request));
    eventsPipe_.writeEnd.close();  // so that the other end shows when the module closes its own
    RunEnd end = watch(process);
    cutOffNs_ = Clock::now().time_since_epoch().count();
    if (end == RunEnd::hung && watchdog_.wantsStacks) {
        stacks_ = stacksOf(process.pid());
    }
    // Does nothing where the module has ended by itself.
    process.signal(SIGKILL);
    exit_ = process.wait(std::chrono::hours(1)).value_or(process::ExitState{});
    // What came in after the watchdog's verdict would contradict it.
    if (const std::vector<ModuleEvent> last = follow(process); end == RunEnd::moduleEnded) {
        apply(last);
    }
    output_.finish();
    brokerError_.finish([this](std::string_view line) { keepBrokerLine(line); });
    if (end == RunEnd::moduleEnded && exit_.signal == 0 && exit_.code == channelClosedStatus) {
        end = RunEnd::channelClosed;
    }
    cutOff(end);
    if (otherEnd_.evidence != nullptr) {
        otherEnd_.evidence->endModule(process.pid());
    }
    return end;
}

RunEnd ModuleRun::watch(process::ChildProcess& module) {
    while (true) {
        pollOnce(module);
        // Before follow(), because waiting drains the output, which must be shown before
        // the next poll.
        const bool moduleEnded = hasEnded(module);
        const bool brokerEnded = broker_ != nullptr && hasEnded(*broker_);
        // Before follow(), too: a call that returned by now is then known to have.
        const Clock::time_point now = Clock::now();
        apply(follow(module));
        if (isStopped_) {
            return RunEnd::stopped;
        }
        if (moduleEnded) {
            return RunEnd::moduleEnded;
        }
        if (limits_.signals().received()) {
            return RunEnd::signalled;
        }
        if (brokerEnded) {
            return RunEnd::brokerLost;
        }
        if (now >= limits_.deadline()) {
            return RunEnd::timeOver;
        }
        if (now >= wakeTime()) {
            return channelClosed_ ? RunEnd::channelClosed : RunEnd::hung;
        }
    }
}

void ModuleRun::pollOnce(const process::ChildProcess& module) const {
    std::array sources = {
        pollfd{eventsPipe_.readEnd.get(), POLLIN, 0},
        pollfd{limits_.signals().descriptor(), POLLIN, 0},
        pollfd{module.endedDescriptor(), POLLIN, 0},
        pollfd{module.outputDescriptor(), POLLIN, 0},
        pollfd{module.errorDescriptor(), POLLIN, 0},
        pollfd{broker_ != nullptr ? broker_->endedDescriptor() : -1, POLLIN, 0},
        pollfd{broker_ != nullptr ? broker_->outputDescriptor() : -1, POLLIN, 0},
        pollfd{broker_ != nullptr ? broker_->errorDescriptor() : -1, POLLIN, 0},
        pollfd{otherEnd_.evidence != nullptr ? otherEnd_.evidence->descriptor() : -1, POLLIN, 0}};
    auto left = std::chrono::ceil<std::chrono::milliseconds>(
        std::min(limits_.deadline(), wakeTime()) - Clock::now());
    if (display_.isLive()) {
        left = std::min(left, refreshTime);
    }
    const auto waitMs = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 3'600'000);
    const int ready = poll(sources.data(), sources.size(), static_cast<int>(waitMs));
    assert(ready >= 0 || errno == EINTR);
    static_cast<void>(ready);
}

// When the module counts as hanging, unless an event comes before.
ModuleRun::Clock::time_point ModuleRun::hangTime() const {
    const auto at = [](std::int64_t ns) { return Clock::time_point(std::chrono::nanoseconds(ns)); };
    const Clock::time_point silent =
        std::max(releasedAt_, at(record_.lastEventNs())) + watchdog_.silenceLimit();
    const CallReport* call = record_.openCall();
    return call == nullptr ? silent : std::min(silent, at(call->beginNs) + watchdog_.callLimit);
}

// When there is something to decide, unless something happens before.
ModuleRun::Clock::time_point ModuleRun::wakeTime() const {
    return channelClosed_ ? std::min(hangTime(), *channelClosed_ + endingTime) : hangTime();
}

// Reads what the module has recorded and printed, and shows what it has printed.
std::vector<ModuleEvent> ModuleRun::follow(process::ChildProcess& module) {
    std::string events;
    base::readAvailable(eventsPipe_.readEnd, events);
    if (!eventsPipe_.readEnd.isOpen() && !channelClosed_) {
        channelClosed_ = Clock::now();
    }
    module.drain();
    output_.addOutput(module.takeOutput());
    output_.addError(module.takeError());
    if (broker_ != nullptr) {
        broker_->drain();
        broker_->takeOutput();
        brokerError_.add(broker_->takeError(),
                         [this](std::string_view line) { keepBrokerLine(line); });
    }
    if (otherEnd_.evidence != nullptr) {
        otherEnd_.evidence->read();
    }
    return events_.read(events);
}

void ModuleRun::apply(const std::vector<ModuleEvent>& events) {
    for (const ModuleEvent& event : events) {
        if (isStopped_) {
            return;
        }
        if (CaseReport* ended = record_.add(event)) {
            beginNextCase();  // which then runs while this one is reported
            ended->output = output_.of(ended->name);
            ended_(*ended);
        }
        if (event.kind == ModuleEvent::Kind::round) {
            isStopped_ = !roundEnded_(event.number, event.data);
            // The last one ends with the process, which may yet crash.
            if (event.number < rounds_) {
                record_.beginRound();
            }
        }
    }
    if (record_.underWay() != nullptr) {
        const auto taken =
            Clock::now().time_since_epoch() - std::chrono::nanoseconds(record_.underWay()->beginNs);
        display_.showCaseUnderWay(*record_.underWay(),
                                  std::chrono::duration<double>(taken).count());
    }
}

// What speaks against a case whose own record is complete.
std::vector<std::string> ModuleRun::confirm(const CaseReport& report, bool hasProbeEcho) const {
    if (otherEnd_.evidence == nullptr) {
        return otherEnd_.mustConfirm ? std::vector{std::string(notConfirmedText)}
                                     : std::vector<std::string>{};
    }
    const auto deadline = std::min(limits_.deadline(), Clock::now() + watchdog_.callLimit);
    return otherEnd_.evidence->compare(trafficOf(report, hasProbeEcho), deadline,
                                       limits_.signals().descriptor());
}

void ModuleRun::beginNextCase() {
    if (otherEnd_.evidence == nullptr) {
        return;
    }
    otherEnd_.evidence->beginCase();
    releasedAt_ = Clock::now();
    // The pipe has room for all cases, and is open at both ends here.
    static_cast<void>(!write(releasePipe_.writeEnd.get(), "", 1));
}

// The verdict on the case that was running when the module ended.
void ModuleRun::cutOff(RunEnd end) {
    cutACase_ = record_.underWay() != nullptr;
    if (!cutACase_) {
        return;
    }
    // A process that is about to end may hang on its way.
    const bool crashed =
        end == RunEnd::moduleEnded || (end == RunEnd::hung && record_.processEnd().has_value());
    const bool hung = !crashed && (end == RunEnd::hung || end == RunEnd::timeOver);
    std::optional<HangReport> hang;
    if (hung) {
        hang = hangReport(record_, cutOffNs_);
        hang->stacks = stacks_;
    }
    const std::string crash = crashed ? crashText(record_, exit_) : "";
    const std::string place = placeUnderWay(record_);
    CaseReport& cut = record_.cutOff(crashed ? Verdict::crash : verdictOnCutOff(end), cutOffNs_);
    cut.output = output_.of(cut.name);
    cut.hang = hang;
    if (crashed) {
        cut.crash = crash;
        cut.crashStack = crashStack(record_);
    } else if (end == RunEnd::channelClosed) {
        cut.missing.push_back(closedChannelText + place);
    } else if (end == RunEnd::brokerLost) {
        cut.missing.push_back("the broker ended during the case" + place);
    } else if (end == RunEnd::signalled) {
        cut.missing.push_back("the run was stopped during the case" + place);
    }
    ended_(cut);
}

void ModuleRun::keepBrokerLine(std::string_view line) {
    if (line.find(brokerReadyText) != std::string_view::npos) {
        return;
    }
    brokerLines_.emplace_back(line);
    if (brokerLines_.size() > brokerLinesLimit) {
        brokerLines_.pop_front();
    }
}

}  // namespace kavri::conformance
