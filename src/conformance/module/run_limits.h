// What may end a run at any step: its deadline, and a signal that asks the tool to stop.
#ifndef KAVRI_CONFORMANCE_MODULE_RUN_LIMITS_H
#define KAVRI_CONFORMANCE_MODULE_RUN_LIMITS_H

#include <fmt/format.h>

#include <chrono>
#include <string>

#include "process/exit_status.h"
#include "process/stop_signals.h"

namespace kavri::conformance {

class RunLimits {
  public:
    using Clock = std::chrono::steady_clock;

    // The time begins now.
    RunLimits(double seconds, process::StopSignals& signals)
        : seconds_(seconds),
          deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds))),
          signals_(signals) {}

    Clock::time_point deadline() const { return deadline_; }
    std::chrono::milliseconds left() const {
        return std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
    }
    process::StopSignals& signals() const { return signals_; }

    // Throws after the deadline or a signal; `place`: where in the run that was.
    [[noreturn]] void giveUp(const std::string& place) const {
        throw process::CommandFailure(process::ExitStatus::ended,
                                      signals_.received()
                                          ? fmt::format("stopped {}", place)
                                          : fmt::format("the {} s were over {}", seconds_, place));
    }

  private:
    double seconds_;
    Clock::time_point deadline_;
    process::StopSignals& signals_;
};

}  // namespace kavri::conformance

#endif
