// The library's thread and its callbacks: what is called, one at a time, and what replacing,
// removing and ending wait for. Without a socket.
#define BOOST_TEST_MODULE dispatcher

#include "core/endpoint/dispatcher.h"

#include <pthread.h>

#include <atomic>
#include <boost/test/unit_test.hpp>
#include <csignal>
#include <functional>
#include <new>

#include "support/waiting.h"

using namespace kavri::core;
using namespace kavri::tests;

namespace {

using Callback = void (*)(void*);

// Calls its callback for each delivery that is queued.
struct Endpoint : Dispatcher::Work, std::enable_shared_from_this<Endpoint> {
    Monitor monitor;
    Dispatcher dispatcher{monitor};
    CallbackSlot<Callback> slot{dispatcher};
    CallbackSlot<Callback> other{dispatcher};
    int queued = 0;
    std::atomic<int> failures{0};  // how often memory is to run out first
    std::atomic<bool> finished{false};

    void dispatchOnce(Lock& lock) override {
        if (slot.isInstalled() && queued > 0) {
            if (failures > 0) {
                --failures;
                throw std::bad_alloc();
            }
            --queued;
            dispatcher.invoke(lock, slot,
                              [](Callback callback, void* context) { callback(context); });
        } else {
            monitor.wait(lock);
        }
    }
    void finishDispatching(Lock&) override { finished = true; }

    void install(Callback callback, void* context) {
        Lock lock = monitor.acquire();
        if (callback != nullptr) {
            dispatcher.ensureThread(shared_from_this());
        }
        slot.set(callback, context);
        monitor.notifyAll();
        dispatcher.awaitReturn(lock, slot);
    }
    void enqueue(int count = 1) {
        const Lock lock = monitor.acquire();
        queued += count;
        monitor.notifyAll();
    }
    void end() {
        Lock lock = monitor.acquire();
        dispatcher.beginEnd();
        monitor.notifyAll();
        dispatcher.awaitEnd(lock);
    }
};

struct Setting {
    std::shared_ptr<Endpoint> endpoint = std::make_shared<Endpoint>();
    std::function<void()> work;
    std::atomic<int> calls{0};

    ~Setting() {
        if (endpoint != nullptr) {
            endpoint->end();
        }
    }
    static void callback(void* context) {
        auto& self = *static_cast<Setting*>(context);
        if (self.work) {
            self.work();
        }
        ++self.calls;
    }
    void install() { endpoint->install(callback, this); }
    bool haveCalls(int count) {
        return eventually([&] { return calls == count; });
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(dispatching, Setting)

BOOST_AUTO_TEST_CASE(allInstallationsShareOneThread) {
    install();
    BOOST_TEST(haveFurtherThreads(1));
    install();
    BOOST_TEST(haveFurtherThreads(1));
}

BOOST_AUTO_TEST_CASE(eachDeliveryIsOneCallOnTheThread) {
    std::atomic<bool> isOwn{true};
    work = [&] { isOwn = isOwn && endpoint->dispatcher.isOwnThread(); };
    install();
    endpoint->enqueue(10);
    BOOST_TEST(haveCalls(10));
    BOOST_TEST(isOwn);
    BOOST_TEST(!endpoint->dispatcher.isOwnThread());
}

BOOST_AUTO_TEST_CASE(theThreadBlocksAllSignalsAndItsMakerDoesNot) {
    sigset_t blocked;
    sigemptyset(&blocked);
    work = [&] { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); };
    install();
    endpoint->enqueue();
    BOOST_TEST(haveCalls(1));
    BOOST_TEST(sigismember(&blocked, SIGTERM) == 1);
    BOOST_TEST(sigismember(&blocked, SIGSEGV) == 1);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    BOOST_TEST(sigismember(&own, SIGTERM) == 0);
}

BOOST_AUTO_TEST_CASE(anyOfItsCallbacksCounts) {
    Dispatcher& dispatcher = endpoint->dispatcher;
    BOOST_TEST(!dispatcher.hasCallback());
    endpoint->slot.set(callback, this);
    endpoint->other.set(callback, this);
    endpoint->other.set(callback, nullptr);  // replaced, not added
    BOOST_TEST(dispatcher.hasCallback());
    endpoint->slot.set(nullptr, nullptr);
    BOOST_TEST(dispatcher.hasCallback());
    endpoint->other.set(nullptr, nullptr);
    endpoint->other.set(nullptr, nullptr);
    BOOST_TEST(!dispatcher.hasCallback());
}

BOOST_AUTO_TEST_CASE(removingWaitsForTheCallUnderWay) {
    std::atomic<bool> mayReturn{false};
    std::atomic<bool> isInside{false};
    work = [&] {
        isInside = true;
        eventually([&] { return mayReturn.load(); });
    };
    install();
    endpoint->enqueue(2);
    BOOST_TEST(eventually([&] { return isInside.load(); }));
    BlockedCall removal([&] { endpoint->install(nullptr, nullptr); });
    BOOST_TEST(removal.sleeps());
    mayReturn = true;
    removal.join();
    BOOST_TEST(calls == 1);
}

BOOST_AUTO_TEST_CASE(removingFromWithinWaitsForNothing) {
    work = [&] { endpoint->install(nullptr, nullptr); };
    install();
    endpoint->enqueue(2);
    BOOST_TEST(haveCalls(1));
    endpoint->end();
    BOOST_TEST(calls == 1);
}

BOOST_AUTO_TEST_CASE(withoutMemoryItTriesAgain) {
    endpoint->failures = 3;
    install();
    endpoint->enqueue();
    BOOST_TEST(haveCalls(1));
    BOOST_TEST(endpoint->failures == 0);
}

BOOST_AUTO_TEST_CASE(theEndRemovesTheCallbacksAndWaitsForTheThread) {
    install();
    endpoint->enqueue();
    BOOST_TEST(haveCalls(1));
    endpoint->end();
    BOOST_TEST(endpoint->finished);
    BOOST_TEST(!endpoint->dispatcher.hasCallback());
    BOOST_TEST(haveFurtherThreads(0));
}

BOOST_AUTO_TEST_CASE(afterAnEndFromWithinTheThreadIsTheLastOwner) {
    const std::weak_ptr<Endpoint> observed = endpoint;
    work = [&] {
        endpoint->end();
        endpoint = nullptr;
    };
    install();
    endpoint->enqueue();
    BOOST_TEST(haveCalls(1));
    BOOST_TEST(eventually([&] { return observed.expired(); }));
    BOOST_TEST(haveFurtherThreads(0));
}

BOOST_AUTO_TEST_SUITE_END()
