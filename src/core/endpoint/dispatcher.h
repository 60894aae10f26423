// The library's thread, and the callbacks that it calls.
//
// The thread exists from the first installation of a callback to the end of the endpoint. It
// calls callbacks one at a time, without the lock. Replacing or removing a callback waits
// until a call of it that has begun has returned, except from within a callback, where that
// would be a deadlock. Guarded by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_DISPATCHER_H
#define KAVRI_CORE_ENDPOINT_DISPATCHER_H

#include <cstdint>
#include <memory>
#include <thread>

#include "core/endpoint/monitor.h"

namespace kavri::core {

class Dispatcher;

// A place for one callback, known to the dispatcher.
class CallbackPlace {
  public:
    explicit CallbackPlace(Dispatcher& dispatcher);
    CallbackPlace(const CallbackPlace&) = delete;
    CallbackPlace& operator=(const CallbackPlace&) = delete;

    bool isInstalled() const { return isInstalled_; }

  protected:
    ~CallbackPlace() = default;
    void setInstalled(bool isInstalled);

  private:
    friend class Dispatcher;

    Dispatcher& dispatcher_;
    CallbackPlace* const next_;  // of the dispatcher's
    bool isInstalled_ = false;
    // Calls that were begun and that have returned: at most one is under way.
    std::uint64_t begun_ = 0;
    std::uint64_t returned_ = 0;
};

template <typename Function>
class CallbackSlot : public CallbackPlace {
  public:
    using CallbackPlace::CallbackPlace;

    // Null removes it.
    void set(Function itsFunction, void* itsContext) {
        function_ = itsFunction;
        context_ = itsContext;
        setInstalled(itsFunction != nullptr);
    }
    Function function() const { return function_; }
    void* context() const { return context_; }

  private:
    Function function_ = nullptr;
    void* context_ = nullptr;
};

class Dispatcher {
  public:
    // What the thread does.
    class Work {
      public:
        // Called again and again, with the lock held, until the end: delivers something, or
        // waits for something to deliver. May release the lock in between. Throws
        // std::bad_alloc where there is no memory for now.
        virtual void dispatchOnce(Lock& lock) = 0;
        // The last that the thread does.
        virtual void finishDispatching(Lock& lock) = 0;

      protected:
        ~Work() = default;
    };

    explicit Dispatcher(Monitor& monitor) : monitor_(monitor) {}

    // The one question for whether the thread has to read: whether any callback is installed.
    bool hasCallback() const { return installed_ > 0; }
    bool isOwnThread() const { return thread_.get_id() == std::this_thread::get_id(); }
    bool isEnding() const { return state_ == State::ending; }

    // Starts the thread, where it does not run yet. It shares the ownership of its work.
    void ensureThread(const std::shared_ptr<Work>& work);

    // Calls what is installed, on the library's thread: `call` gets function and context.
    template <typename Function, typename Call>
    void invoke(Lock& lock, CallbackSlot<Function>& slot, const Call& call) {
        KAVRI_ASSERT(slot.isInstalled(), "only a callback that is installed is called");
        KAVRI_ASSERT(slot.begun_ == slot.returned_, "callbacks run one at a time");
        const Function function = slot.function();
        void* const context = slot.context();
        ++slot.begun_;
        lock.unlock();
        call(function, context);
        lock.lock();
        ++slot.returned_;
        monitor_.notifyAll();
    }
    // Waits until calls that have begun have returned, except from within one.
    void awaitReturn(Lock& lock, const CallbackPlace& place);

    // Removes all callbacks; the thread ends once it is notified.
    void beginEnd();
    // Waits for the end of the thread, without the lock; from within a callback, the thread
    // ends when that returns.
    void awaitEnd(Lock& lock);

  private:
    friend class CallbackPlace;
    enum class State { running, ending };

    void run(Work& work);

    Monitor& monitor_;
    State state_ = State::running;
    CallbackPlace* places_ = nullptr;
    int installed_ = 0;
    std::thread thread_;
};

}  // namespace kavri::core

#endif
