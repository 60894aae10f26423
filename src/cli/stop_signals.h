// Turns the signals that ask the tool to stop into something that can be
// polled, so that it can tidy up first wherever it is.
#ifndef KAVRI_CLI_STOP_SIGNALS_H
#define KAVRI_CLI_STOP_SIGNALS_H

#include <signal.h>

#include <mutex>
#include <optional>

namespace kavri::cli {

// Holds SIGINT, SIGTERM, SIGHUP and SIGQUIT back from this thread while it
// lives. Make one before any other thread is started.
class StopSignals {
  public:
    StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals();

    // Readable when a signal is there.
    int descriptor() const { return descriptor_; }

    // The first signal that came, once one has. Any thread may ask.
    std::optional<int> received();

  private:
    int descriptor_;
    sigset_t before_;
    std::mutex mutex_;
    std::optional<int> received_;
};

// Ends this process by the signal, as its sender expects.
[[noreturn]] void dieBySignal(int number);

}  // namespace kavri::cli

#endif
