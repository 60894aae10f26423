// A blocking receive on a thread of its own, which delivers every message to a sink.
#ifndef KAVRI_BENCH_DELIVERY_THREAD_H
#define KAVRI_BENCH_DELIVERY_THREAD_H

#include <atomic>
#include <exception>
#include <thread>
#include <utility>

#include "failure.h"
#include "transports/transport.h"

namespace kavri::bench {

// `Receiver` has receive(sink), which takes the next message, and interrupt(),
// which makes a receive on another thread return or fail. One that fails before
// that ends the process: a measurement that fails has no result.
template <typename Receiver>
class DeliveryThread {
  public:
    template <typename... Arguments>
    explicit DeliveryThread(MessageSink& sink, Arguments&&... arguments)
        : receiver_(std::forward<Arguments>(arguments)...), thread_([this, &sink] { run(sink); }) {}
    DeliveryThread(const DeliveryThread&) = delete;
    DeliveryThread& operator=(const DeliveryThread&) = delete;
    ~DeliveryThread() {
        isEnding_ = true;
        receiver_.interrupt();
        thread_.join();
    }

    Receiver& receiver() { return receiver_; }

  private:
    void run(MessageSink& sink) {
        try {
            while (!isEnding_) {
                receiver_.receive(sink);
            }
        } catch (const std::exception& error) {
            if (!isEnding_) {
                failMeasurement(error);
            }
        }
    }

    Receiver receiver_;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

}  // namespace kavri::bench

#endif
