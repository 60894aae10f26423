// Blocks all signals of the calling thread, and so of the threads that it starts while this
// lives: signals are left to the program's own threads.
#ifndef KAVRI_BASE_BLOCKED_SIGNALS_H
#define KAVRI_BASE_BLOCKED_SIGNALS_H

#include <pthread.h>

#include <csignal>

namespace kavri::base {

class BlockedSignals {
  public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_{};
};

}  // namespace kavri::base

#endif
