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

#include "base/text_scanner.h"
#include "conformance/agent/channel.h"
#include "conformance/module/broker_access.h"
#include "conformance/module/stack_names.h"
#include "conformance/module/stacks.h"
#include "process/exit_text.h"

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

constexpr const char* afterTheCase = " after the case";

std::string textOf(const CallReport& call) {
    return call.kind == CallReport::Kind::delivery
               ? "a call of the " + call.function + " callback"
               : call.function + " with " + call.arguments.dump();
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
      }) {
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
        outputCase_ = errorCase_ = request.cases.front();  // while the library is loaded
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
    finish();
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
    output_.add(module.takeOutput(),
                [this](std::string_view line) { takeModuleLine(outputCase_, line); });
    error_.add(module.takeError(),
               [this](std::string_view line) { takeModuleLine(errorCase_, line); });
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
            ended->output = outputOf(ended->name);
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
    const std::optional<HangReport> hang = hung ? std::optional(hangReport()) : std::nullopt;
    const std::string passed = lastPassed();
    const std::string after =
        passed.empty() ? "; no check had passed" : "; the last check that passed: " + passed;
    const std::string crash = crashText() + after;
    const std::string place = callsUnderWay() + after;
    CaseReport& cut = record_.cutOff(crashed ? Verdict::crash : verdictOnCutOff(end), cutOffNs_);
    cut.output = outputOf(cut.name);
    cut.hang = hang;
    if (crashed) {
        cut.crash = crash;
        cut.crashStack = crashStack();
    } else if (end == RunEnd::channelClosed) {
        cut.missing.push_back(closedChannelText + place);
    } else if (end == RunEnd::brokerLost) {
        cut.missing.push_back("the broker ended during the case" + place);
    } else if (end == RunEnd::signalled) {
        cut.missing.push_back("the run was stopped during the case" + place);
    }
    ended_(cut);
}

std::string ModuleRun::crashText() const {
    const std::optional<ProcessEnd>& end = record_.processEnd();
    if (!end) {
        return "the module " + process::exitText(exit_) +
               (record_.underWay() == nullptr ? afterTheCase : callsUnderWay());
    }
    if (end->kind == ProcessEnd::Kind::call) {
        return "the library called " + end->function + "(" + std::to_string(end->number) + ")" +
               placeOf(*end).substr(1);
    }
    process::ExitState signalled;
    signalled.signal = static_cast<int>(end->number);
    return "the module " + process::exitText(signalled) + placeOf(*end);
}

std::string ModuleRun::crashStack() const {
    const std::optional<ProcessEnd>& end = record_.processEnd();
    return end ? namedStack(end->frames, end->kind == ProcessEnd::Kind::call) : "";
}

// The call or delivery that was under way on the thread that ended the process, the innermost
// of them; and whose thread that is.
std::string ModuleRun::placeOf(const ProcessEnd& end) const {
    if (record_.underWay() == nullptr) {
        return afterTheCase;
    }
    const std::vector<CallReport>& calls = record_.underWay()->calls;
    const CallReport* last = nullptr;
    for (const CallReport& call : calls) {
        if (call.thread == end.thread && (last == nullptr || !call.endNs || last->endNs)) {
            last = &call;
        }
    }
    const std::string thread = " on thread " + std::to_string(end.thread);
    if (last == nullptr) {
        return thread + ", which is the library's own" + callsUnderWay();
    }
    return (last->endNs ? ", after " : ", in ") + textOf(*last) +
           (last->endNs ? " had returned," : "") + thread +
           (calls.front().thread == end.thread ? ", the caller's" : ", the library's own");
}

HangReport ModuleRun::hangReport() const {
    HangReport report;
    std::int64_t sinceNs = record_.lastEventNs();
    if (const CallReport* call = record_.openCall()) {
        report.call = call->function;
        report.arguments = call->arguments.dump();
        sinceNs = call->beginNs;
    }
    report.seconds = static_cast<double>(cutOffNs_ - sinceNs) / 1e9;
    report.lastPassed = lastPassed();
    report.stacks = stacks_;
    return report;
}

// Text and place of the check that passed last in the case under way; or empty.
std::string ModuleRun::lastPassed() const {
    const std::vector<CheckReport>& checks = record_.underWay()->checks;
    const auto passed = std::find_if(checks.rbegin(), checks.rend(),
                                     [](const CheckReport& check) { return check.passed; });
    return passed == checks.rend() ? "" : passed->text + ", at " + passed->place;
}

// ", in F with {…} and in G with {…}": any of these may be to blame.
std::string ModuleRun::callsUnderWay() const {
    std::string text;
    const auto add = [&text](const CallReport& call) {
        text += std::string(text.empty() ? ", in " : " and in ") + textOf(call);
    };
    const CallReport* longest = record_.openCall();
    if (longest != nullptr && longest->number == 0) {
        add(*longest);  // the probe's own, and so none of the case
    }
    for (const CallReport& call : record_.underWay()->calls) {
        if (!call.endNs) {
            add(call);
        }
    }
    return text.empty() ? ", outside of any call" : text;
}

// Passes on the last lines, though they have no line break.
void ModuleRun::finish() {
    output_.finish([this](std::string_view line) { takeModuleLine(outputCase_, line); });
    error_.finish([this](std::string_view line) { takeModuleLine(errorCase_, line); });
    brokerError_.finish([this](std::string_view line) { keepBrokerLine(line); });
}

void ModuleRun::takeModuleLine(std::string& currentCase, std::string_view line) {
    const std::optional<std::string_view> before = base::takeUntil(line, caseMark);
    if (!before) {
        showModuleLine(currentCase, line);
        return;
    }
    if (!before->empty()) {
        showModuleLine(currentCase, *before);
    }
    currentCase = line;
}

void ModuleRun::showModuleLine(const std::string& caseName, std::string_view line) {
    if (const std::optional<std::string> shown = printed_[caseName].add(line)) {
        display_.showForeignLine(*shown);
    }
}

std::string ModuleRun::outputOf(const std::string& caseName) const {
    const auto found = printed_.find(caseName);
    return found == printed_.end() ? "" : found->second.text();
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
