// What may cut a run short at any step: its time being over, and a signal that
// asks the tool to stop.
#ifndef KAVRI_CLI_RUN_LIMITS_H
#define KAVRI_CLI_RUN_LIMITS_H

#include <fmt/format.h>

#include <chrono>
#include <string>

#include "cli/exit_status.h"
#include "cli/stop_signals.h"

namespace kavri::cli {

class RunLimits {
  public:
    using Clock = std::chrono::steady_clock;

    // The time begins now.
    RunLimits(double seconds, StopSignals& signals)
        : seconds_(seconds),
          deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds))),
          signals_(signals) {}

    Clock::time_point deadline() const { return deadline_; }
    std::chrono::milliseconds left() const {
        return std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
    }
    StopSignals& signals() const { return signals_; }

    // After the one or the other; `place` says where in the run that was.
    [[noreturn]] void giveUp(const std::string& place) const {
        throw CommandFailure(ExitStatus::ended,
                             signals_.received()
                                 ? fmt::format("stopped {}", place)
                                 : fmt::format("the {} s were over {}", seconds_, place));
    }

  private:
    double seconds_;
    Clock::time_point deadline_;
    StopSignals& signals_;
};

}  // namespace kavri::cli

#endif
