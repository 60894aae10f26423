// One run of the module under watch: starts it, follows its log and its output,
// and ends it when the time is over, the broker is lost or a signal comes.
#ifndef KAVRI_CLI_MODULE_RUN_H
#define KAVRI_CLI_MODULE_RUN_H

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "cli/child_process.h"
#include "cli/module_log.h"
#include "cli/run_display.h"
#include "cli/run_limits.h"
#include "cli/run_record.h"

namespace kavri::cli {

enum class RunEnd { moduleEnded, timeOver, brokerLost, signalled };

class ModuleRun {
  public:
    using Clock = std::chrono::steady_clock;

    // `broker`: the run's own, or null. All but the spawn must outlive this.
    ModuleRun(ChildProcess* broker, const RunLimits& limits, RunDisplay& display);
    ModuleRun(const ModuleRun&) = delete;
    ModuleRun& operator=(const ModuleRun&) = delete;
    ~ModuleRun();

    // Where the module is to write its log; for the spawn.
    int logDescriptor() const { return logWriting_; }

    // Once: returns when the module has ended, by itself or not.
    RunEnd run(const ChildSpawn& module);

    // How the module ended.
    const ExitState& exit() const { return exit_; }
    RunRecord& record() { return record_; }
    // What the broker said in the meantime, as far as it is recent.
    const std::deque<std::string>& brokerLines() const { return brokerLines_; }

  private:
    RunEnd watch(ChildProcess& module);
    void pollOnce(const ChildProcess& module) const;
    void follow(ChildProcess& module);
    std::string readLog() const;
    void apply(const std::vector<LogEvent>& events);

    // Passes on the whole lines of a stream.
    class LineBuffer {
      public:
        void add(std::string_view bytes, const std::function<void(std::string_view)>& use);
        void finish(const std::function<void(std::string_view)>& use);

      private:
        std::string partial_;
    };
    void showModuleLine(std::string_view line);
    void keepBrokerLine(std::string_view line);

    ChildProcess* broker_;
    const RunLimits& limits_;
    RunDisplay& display_;
    int logReading_ = -1;
    int logWriting_ = -1;
    ModuleLog log_;
    RunRecord record_;
    LineBuffer output_;
    LineBuffer error_;
    LineBuffer brokerError_;
    std::deque<std::string> brokerLines_;
    ExitState exit_;
};

}  // namespace kavri::cli

#endif
