// Functions of the program behind the callbacks of the C interface. For the library's own
// headers.
//
// Each std::function that is installed is an object of its own, whose address is the context
// of the C callback. The C functions promise when it is no longer needed: when the one that
// replaces or removes it returns, except for the call from within which that is done.
#ifndef KAVRI_CPP_CALLBACK_HPP
#define KAVRI_CPP_CALLBACK_HPP

#include <kavri/core.h>

#include <functional>
#include <iterator>
#include <kavri/cpp/status.hpp>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

namespace kavri::detail {

// A function while the C interface may call it. Calls and the end from within a call are in
// the library's thread; any other end comes after the last call has returned. So no lock is
// needed.
template <typename Argument>
class Callback {
  public:
    // Ends it now, or, from within its call, once that returns.
    struct End {
        void operator()(Callback* callback) const noexcept {
            if (callback->isRunning_) {
                callback->hasEnded_ = true;
            } else {
                delete callback;
            }
        }
    };
    using Owner = std::unique_ptr<Callback, End>;

    // Null for a function that is empty.
    static Owner make(std::function<void(Argument)> function) {
        return Owner(function ? new Callback(std::move(function)) : nullptr);
    }

    // Calls it. An exception that it throws ends the program: no caller could catch it.
    static void call(void* context, Argument argument) noexcept {
        auto* const callback = static_cast<Callback*>(context);
        callback->isRunning_ = true;
        callback->function_(std::forward<Argument>(argument));
        callback->isRunning_ = false;
        if (callback->hasEnded_) {
            delete callback;
        }
    }

  private:
    explicit Callback(std::function<void(Argument)> function) : function_(std::move(function)) {}

    std::function<void(Argument)> function_;
    bool isRunning_ = false;
    bool hasEnded_ = false;
};

// The place of one callback of an initiator or responder. Thread-safe; a call from within
// the callback never waits for one that waits for the callback.
template <typename Argument>
class CallbackSlot {
  public:
    // Replaces the function, or removes it with an empty one. `install` gives a context, or
    // null, to the C function. On a failure the function of before stays.
    //
    // Which of two calls at the same time came last is known to the C function alone: then
    // the one that returns last installs its own once more, which settles it.
    template <typename Install>
    Status replace(std::function<void(Argument)> function, const Install& install) {
        Callback<Argument>* const context = add(Callback<Argument>::make(std::move(function)));
        while (true) {
            const Status status = install(context);
            std::list<Owner> ended;  // without the lock, since their end may be that of this
            const std::lock_guard<std::mutex> lock(mutex_);
            const bool hasFailed = status != KAVRI_CORE_STATUS_NO_ERROR;
            if (hasFailed) {
                moveIf(ended, [=](const Owner& each) { return each.get() == context; });
            } else if (callsUnderWay_ == 1 && !isUnsettled_) {
                moveIf(ended, [=](const Owner& each) { return each.get() != context; });
            }
            if (hasFailed || callsUnderWay_ > 1 || !isUnsettled_) {
                --callsUnderWay_;
                return status;
            }
            isUnsettled_ = false;
        }
    }

  private:
    using Owner = typename Callback<Argument>::Owner;

    Callback<Argument>* add(Owner callback) {
        const std::lock_guard<std::mutex> lock(mutex_);
        installed_.push_back(std::move(callback));
        ++callsUnderWay_;
        isUnsettled_ = isUnsettled_ || callsUnderWay_ > 1;
        return installed_.back().get();
    }

    // Allocates nothing.
    template <typename Condition>
    void moveIf(std::list<Owner>& target, const Condition& condition) {
        for (auto each = installed_.begin(); each != installed_.end();) {
            const auto next = std::next(each);
            if (condition(*each)) {
                target.splice(target.end(), installed_, each);
            }
            each = next;
        }
    }

    std::mutex mutex_;
    std::list<Owner> installed_;  // the one in effect, and those it may have replaced
    int callsUnderWay_ = 0;
    bool isUnsettled_ = false;  // calls overlapped since it was known which is in effect
};

}  // namespace kavri::detail

#endif
