// One process of the module under a watchdog: starts it, reads its events and its output,
// and kills it when a call does not return, the time is over, the broker has ended or a
// signal arrives.
#ifndef KAVRI_CONFORMANCE_MODULE_MODULE_RUN_H
#define KAVRI_CONFORMANCE_MODULE_MODULE_RUN_H

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/line_buffer.h"
#include "base/pipe.h"
#include "conformance/module/broker_access.h"
#include "conformance/module/conformance_module.h"
#include "conformance/module/module_events.h"
#include "conformance/module/module_output.h"
#include "conformance/module/run_limits.h"
#include "conformance/module/run_record.h"
#include "conformance/report/run_display.h"
#include "process/child_process.h"

namespace kavri::conformance {

// channelClosed: the module goes on, but its records do not come any more. stopped: after a
// round, because no further one was wanted.
enum class RunEnd { moduleEnded, hung, channelClosed, timeOver, brokerLost, signalled, stopped };

// Whether another module can run the remaining cases after such an end.
constexpr bool letsAnotherRun(RunEnd end) {
    return end == RunEnd::moduleEnded || end == RunEnd::hung || end == RunEnd::channelClosed;
}

// To be followed by where that was.
inline const std::string closedChannelText =
    "the library closed a file descriptor that is not its own, by which the kit follows the module";

// When the module counts as hanging.
struct WatchdogSettings {
    std::chrono::milliseconds callLimit;  // a call that takes longer does not return
    bool wantsStacks;                     // of a module that hangs; this takes some time

    // Between its calls the module sleeps for up to a second.
    std::chrono::milliseconds silenceLimit() const {
        return callLimit + std::chrono::milliseconds(1500);
    }
};

class ModuleRun {
  public:
    using Clock = std::chrono::steady_clock;

    // All of these must outlive this. `ended` is called for each case that has a verdict.
    using CaseEnded = std::function<void(const CaseReport&)>;
    // Called after each round of the cases, with its number and what the module then holds.
    // Returns whether to go on.
    using RoundEnded = std::function<bool(unsigned number, const nlohmann::json& held)>;
    ModuleRun(const OtherEnd& otherEnd, const RunLimits& limits, RunDisplay& display,
              WatchdogSettings watchdog, CaseEnded ended, RoundEnded roundEnded);

    // Once: returns when the module has ended, by itself or killed. Sets the descriptor
    // of the request.
    RunEnd run(const ConformanceModule& module, ModuleRunRequest request);

    // How the module ended.
    const process::ExitState& exit() const { return exit_; }
    const RunRecord& record() const { return record_; }
    // Whether a case was under way at that time.
    bool cutACase() const { return cutACase_; }
    // The last lines of the broker's log.
    const std::deque<std::string>& brokerLines() const { return brokerLines_; }
    const ModuleOutput& output() const { return output_; }

  private:
    RunEnd watch(process::ChildProcess& module);
    void pollOnce(const process::ChildProcess& module) const;
    Clock::time_point hangTime() const;
    Clock::time_point wakeTime() const;
    std::vector<ModuleEvent> follow(process::ChildProcess& module);
    void cutOff(RunEnd end);
    void apply(const std::vector<ModuleEvent>& events);
    std::vector<std::string> confirm(const CaseReport& report, bool hasProbeEcho) const;
    void beginNextCase();
    void keepBrokerLine(std::string_view line);

    const OtherEnd otherEnd_;
    process::ChildProcess* const broker_;  // of the other end
    const RunLimits& limits_;
    RunDisplay& display_;
    const WatchdogSettings watchdog_;
    const CaseEnded ended_;
    const RoundEnded roundEnded_;
    unsigned rounds_ = 1;
    bool isStopped_ = false;
    Clock::time_point releasedAt_;  // the module, to its first case or to the next one
    std::int64_t cutOffNs_ = 0;     // when watching ended
    bool cutACase_ = false;
    std::string stacks_;
    base::Pipe eventsPipe_;   // the module's events, beside its output
    base::Pipe releasePipe_;  // a byte lets the module go on to the next case
    std::optional<Clock::time_point> channelClosed_;
    ModuleEvents events_;
    RunRecord record_;
    ModuleOutput output_;
    base::LineBuffer brokerError_;
    std::deque<std::string> brokerLines_;
    process::ExitState exit_;
};

}  // namespace kavri::conformance

#endif
