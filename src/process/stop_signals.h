// Turns the signals that ask the tool to stop into a descriptor that can be polled, so
// that it can clean up before it ends.
#ifndef KAVRI_PROCESS_STOP_SIGNALS_H
#define KAVRI_PROCESS_STOP_SIGNALS_H

#include <signal.h>

#include <mutex>
#include <optional>

namespace kavri::process {

// Blocks SIGINT, SIGTERM, SIGHUP and SIGQUIT in this thread while it lives. Create it
// before any other thread is started.
class StopSignals {
  public:
    StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals();

    // Readable when a signal is pending.
    int descriptor() const { return descriptor_; }

    // The first signal that arrived, if one has. Thread-safe.
    std::optional<int> received();

  private:
    int descriptor_;
    sigset_t before_;
    std::mutex mutex_;
    std::optional<int> received_;
};

// Ends this process by the signal, as the sender expects.
[[noreturn]] void dieBySignal(int number);

}  // namespace kavri::process

#endif
