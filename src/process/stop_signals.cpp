// A signalfd around four signals; see stop_signals.h.
#include "process/stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace kavri::process {

namespace {

// As nohup and shells without job control set it: such a signal must stay without effect.
bool isIgnored(int number) {
    struct sigaction action {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

StopSignals::StopSignals() : descriptor_(-1), before_{} {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (!isIgnored(number)) {
            sigaddset(&signals, number);
        }
    }
    if (const int error = pthread_sigmask(SIG_BLOCK, &signals, &before_); error != 0) {
        throw std::system_error(error, std::generic_category(), "cannot block signals");
    }
    descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
    }
}

StopSignals::~StopSignals() {
    close(descriptor_);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

std::optional<int> StopSignals::received() {
    const std::lock_guard lock(mutex_);
    signalfd_siginfo info{};
    if (!received_ && read(descriptor_, &info, sizeof info) == sizeof info) {
        received_ = static_cast<int>(info.ssi_signo);
    }
    return received_;
}

void dieBySignal(int number) {
    signal(number, SIG_DFL);
    raise(number);
    std::_Exit(128 + number);  // only where the signal is blocked
}

}  // namespace kavri::process
