// A callback that does whatever a test wants within each call.
#ifndef KAVRI_TESTS_SUPPORT_ACTION_H
#define KAVRI_TESTS_SUPPORT_ACTION_H

#include <atomic>
#include <functional>
#include <utility>

#include "support/client.h"

namespace kavri::tests {

// The context of its two callbacks.
class Action {
  public:
    explicit Action(std::function<void()> work) : work_(std::move(work)) {}

    static void response(char** category, char** identifier, char** uuid, char** payload,
                         void* action) {
        static_cast<Action*>(action)->run({*category, *identifier, *uuid, *payload});
    }
    static void event(char** category, char** identifier, char** payload, void* action) {
        static_cast<Action*>(action)->run({*category, *identifier, nullptr, *payload});
    }

    bool waitForEnd() const {
        return eventually([this] { return ended_ > 0; });
    }
    int begun() const { return begun_; }
    int ended() const { return ended_; }

  private:
    void run(const Strings& strings) {
        const Message released(good, strings);
        ++begun_;
        work_();
        ++ended_;
    }

    std::function<void()> work_;
    std::atomic<int> begun_{0};
    std::atomic<int> ended_{0};
};

}  // namespace kavri::tests

#endif
