// Threads that are started while this lives get no signals: those of the broker are for its
// event loop alone.
#ifndef KAVRI_LINK_NATS_BLOCKED_SIGNALS_H
#define KAVRI_LINK_NATS_BLOCKED_SIGNALS_H

#include <pthread.h>

#include <csignal>

namespace kavri::link_nats {

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

}  // namespace kavri::link_nats

#endif
