// One process of the module under watch: starts it, follows what it does and what
// it prints, and ends it when a call does not return, the time is over, the broker
// is lost or a signal comes.
#ifndef KAVRI_CLI_MODULE_RUN_H
#define KAVRI_CLI_MODULE_RUN_H

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "cli/child_process.h"
#include "cli/conformance_module.h"
#include "cli/module_events.h"
#include "cli/run_display.h"
#include "cli/run_limits.h"
#include "cli/run_record.h"

namespace kavri::cli {

enum class RunEnd { moduleEnded, hung, timeOver, brokerLost, signalled };

// How long the module may take over one thing.
struct Patience {
    // A call that takes longer does not return.
    std::chrono::milliseconds call;
    // Whether to look at the stacks then, which takes some time.
    bool wantsStacks;

    // Between its calls the module sleeps for up to a second.
    std::chrono::milliseconds silence() const { return call + std::chrono::milliseconds(1500); }
};

class ModuleRun {
  public:
    using Clock = std::chrono::steady_clock;

    // `broker`: the run's own, or null. All of these must outlive this.
    // `ended` is called for each case that comes to a verdict.
    using CaseEnded = std::function<void(const CaseReport&)>;
    ModuleRun(ChildProcess* broker, const RunLimits& limits, RunDisplay& display, Patience patience,
              CaseEnded ended);

    // Once: returns when the module has ended, by itself or not. The descriptor
    // in the request is filled in here.
    RunEnd run(const ConformanceModule& module, ModuleRunRequest request);

    // How the module ended.
    const ExitState& exit() const { return exit_; }
    const RunRecord& record() const { return record_; }
    // What the broker said in the meantime, as far as it is recent.
    const std::deque<std::string>& brokerLines() const { return brokerLines_; }

  private:
    RunEnd watch(ChildProcess& module);
    void pollOnce(const ChildProcess& module) const;
    Clock::time_point hangTime() const;
    void follow(ChildProcess& module);
    void cutOff(RunEnd end);
    HangReport hangReport() const;
    std::string lastPassed() const;
    std::string callsUnderWay() const;
    void apply(const std::vector<ModuleEvent>& events);
    void finish();

    // Passes on the whole lines of a stream.
    class LineBuffer {
      public:
        void add(std::string_view bytes, const std::function<void(std::string_view)>& use);
        void finish(const std::function<void(std::string_view)>& use);

      private:
        std::string partial_;
    };
    // What the module writes beside its output; closed with its owner.
    class Channel {
      public:
        Channel();
        Channel(const Channel&) = delete;
        Channel& operator=(const Channel&) = delete;
        ~Channel();
        int reading() const { return reading_; }
        int writing() const { return writing_; }
        std::string read() const;  // what is there, without waiting

      private:
        int reading_ = -1;
        int writing_ = -1;
    };

    void showModuleLine(std::string_view line);
    void keepBrokerLine(std::string_view line);

    ChildProcess* broker_;
    const RunLimits& limits_;
    RunDisplay& display_;
    const Patience patience_;
    const CaseEnded ended_;
    Clock::time_point begun_;
    std::int64_t cutOffNs_ = 0;  // when watching ended
    std::string stacks_;
    Channel eventsChannel_;
    ModuleEvents events_;
    RunRecord record_;
    LineBuffer output_;
    LineBuffer error_;
    LineBuffer brokerError_;
    std::deque<std::string> brokerLines_;
    ExitState exit_;
};

}  // namespace kavri::cli

#endif
