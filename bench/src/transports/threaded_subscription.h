// A subscription by way of a blocking receive, which gets a thread of its own.
#ifndef KAVRI_BENCH_THREADED_SUBSCRIPTION_H
#define KAVRI_BENCH_THREADED_SUBSCRIPTION_H

#include <utility>

#include "transports/delivery_thread.h"
#include "transports/transport.h"

namespace kavri::bench {

template <typename Receiver>
class ThreadedSubscription : public Subscription {
  public:
    template <typename... Arguments>
    explicit ThreadedSubscription(MessageSink& sink, Arguments&&... arguments)
        : thread_(sink, std::forward<Arguments>(arguments)...) {}

  private:
    DeliveryThread<Receiver> thread_;
};

}  // namespace kavri::bench

#endif
