// A subscription by way of a blocking receive, which gets a thread of its own.
#ifndef KAVRI_BENCH_THREADED_SUBSCRIPTION_H
#define KAVRI_BENCH_THREADED_SUBSCRIPTION_H

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

#include "transport.h"

namespace kavri::bench {

// `Receiver` has receive(sink), which takes the next event, and interrupt(),
// which makes a receive on another thread return or fail. One that fails before
// that ends the process: a measurement that fails has no result.
template <typename Receiver>
class ThreadedSubscription : public Subscription {
  public:
    template <typename... Arguments>
    explicit ThreadedSubscription(EventSink& sink, Arguments&&... arguments)
        : receiver_(std::forward<Arguments>(arguments)...), thread_([this, &sink] { run(sink); }) {}

    ~ThreadedSubscription() override {
        isEnding_ = true;
        receiver_.interrupt();
        thread_.join();
    }

  private:
    void run(EventSink& sink) {
        try {
            while (!isEnding_) {
                receiver_.receive(sink);
            }
        } catch (const std::exception& error) {
            if (!isEnding_) {
                std::fprintf(stderr, "kavri-bench-measure: %s\n", error.what());
                std::_Exit(1);
            }
        }
    }

    Receiver receiver_;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

}  // namespace kavri::bench

#endif
