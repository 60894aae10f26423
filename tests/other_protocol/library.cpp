// A good core library of the other protocol: the twelve functions of an initiator, and
// nothing of kavri's. Finds its broker by the environment variable OTHER_BROKER.
//
// A thread of each initiator reads its socket. It delivers to the installed callback, and
// without one keeps responses for a receive and drops events.
#include <kavri/ipc.h>
#include <signal.h>
#include <string.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

#include "other_protocol/protocol.h"

using kavri::base::Descriptor;
using namespace kavri::other_protocol;

namespace {

char* copyOf(const std::string& text) {
    return strdup(text.c_str());
}

// A callback and its context; none where the function is null.
template <typename Function>
struct Installed {
    Function call = nullptr;
    void* context = nullptr;
};

// No signal of the program is for this library's thread, which inherits the mask of the one
// that starts it.
template <typename Run>
std::thread threadWithoutSignals(const Run& run) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread started(run);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

}  // namespace

struct kavri_core_ipc_initiator {
    explicit kavri_core_ipc_initiator(Descriptor socket)
        : socket_(std::move(socket)), reader_(threadWithoutSignals([this] { read(); })) {}

    ~kavri_core_ipc_initiator() {
        shutdown(socket_.get(), SHUT_RDWR);
        reader_.join();
    }

    bool send(const Packet& packet) const { return sendPacket(socket_.get(), packet); }

    // Returns when the broker has acknowledged it.
    kavri_core_status change(const char* kind, const char* category) {
        std::unique_lock lock(mutex_);
        const unsigned before = acknowledged_;
        if (!send({kind, category})) {
            return KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
        }
        changed_.wait(lock, [&] { return acknowledged_ != before || isLost_; });
        return isLost_ ? KAVRI_CORE_STATUS_IPC_CONNECTION_LOST : KAVRI_CORE_STATUS_NO_ERROR;
    }

    kavri_core_status receive(int timeoutMs, char** category, char** identifier, char** uuid,
                              char** payload) {
        std::unique_lock lock(mutex_);
        if (onResponse_.call != nullptr) {
            return KAVRI_CORE_STATUS_IPC_FAILED;
        }
        const auto isOver = [this] { return !responses_.empty() || isLost_; };
        if (timeoutMs < 0) {
            changed_.wait(lock, isOver);
        } else {
            changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), isOver);
        }
        if (responses_.empty()) {
            return isLost_ ? KAVRI_CORE_STATUS_IPC_CONNECTION_LOST
                           : KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
        }
        const Packet response = std::move(responses_.front());
        responses_.pop_front();
        *category = copyOf(response[1]);
        *identifier = copyOf(response[2]);
        *uuid = copyOf(response[3]);
        *payload = copyOf(response[4]);
        return KAVRI_CORE_STATUS_NO_ERROR;
    }

    void install(Installed<kavri_core_ipc_initiator_response_callback> callback) {
        const auto idle = whenIdle();
        onResponse_ = callback;
    }
    void install(Installed<kavri_core_ipc_initiator_event_callback> callback) {
        const auto idle = whenIdle();
        onEvent_ = callback;
    }

  private:
    // The lock, once no callback is running; from within one, at once.
    std::unique_lock<std::mutex> whenIdle() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] {
            return !isDelivering_ || std::this_thread::get_id() == reader_.get_id();
        });
        return lock;
    }

    void read() {
        while (const auto packet = receivePacket(socket_.get())) {
            const std::string& kind = packet->front();
            std::unique_lock lock(mutex_);
            if (kind == "done") {
                ++acknowledged_;
            } else if (kind == "answer" && onResponse_.call == nullptr) {
                responses_.push_back(*packet);
            } else {
                deliver(*packet, lock);
            }
            changed_.notify_all();
        }
        const std::lock_guard lock(mutex_);
        isLost_ = true;
        changed_.notify_all();
    }

    void deliver(const Packet& packet, std::unique_lock<std::mutex>& lock) {
        const auto response = onResponse_;
        const auto event = onEvent_;
        isDelivering_ = true;
        lock.unlock();
        char* category = copyOf(packet[1]);
        char* identifier = copyOf(packet[2]);
        char* third = copyOf(packet[3]);
        if (packet.front() == "answer") {
            char* payload = copyOf(packet[4]);
            response.call(&category, &identifier, &third, &payload, response.context);
        } else if (event.call != nullptr) {
            event.call(&category, &identifier, &third, event.context);
        } else {
            for (char* text : {category, identifier, third}) {
                std::free(text);
            }
        }
        lock.lock();
        isDelivering_ = false;
    }

    Descriptor socket_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Packet> responses_;
    Installed<kavri_core_ipc_initiator_response_callback> onResponse_;
    Installed<kavri_core_ipc_initiator_event_callback> onEvent_;
    unsigned acknowledged_ = 0;
    bool isDelivering_ = false;
    bool isLost_ = false;
    std::thread reader_;
};

struct kavri_core_logging {};

kavri_core_status kavri_core_init() {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_deinit() {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_logging_init(const char* /*name*/, kavri_core_logging_cookie* cookie) {
    *cookie = new kavri_core_logging;
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie) {
    delete cookie;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie /*cookie*/,
                                                void* /*options*/,
                                                kavri_core_ipc_initiator** initiator) {
    const char* const path = std::getenv("OTHER_BROKER");
    Descriptor socket = connectTo(path != nullptr ? path : "");
    *initiator = socket.isOpen() ? new kavri_core_ipc_initiator(std::move(socket)) : nullptr;
    return *initiator != nullptr ? KAVRI_CORE_STATUS_NO_ERROR
                                 : KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
}
kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    delete initiator;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    return initiator->send({"request", category, identifier, uuid, payload})
               ? KAVRI_CORE_STATUS_NO_ERROR
               : KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
}
kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    return initiator->receive(timeout, category, identifier, uuid, payload);
}
kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    initiator->install(Installed<decltype(callback)>{callback, context});
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* initiator,
                                                           const char* category) {
    return initiator->change("subscribe", category);
}
kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator* initiator,
                                                             const char* category) {
    return initiator->change("unsubscribe", category);
}
kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    initiator->install(Installed<decltype(callback)>{callback, context});
    return KAVRI_CORE_STATUS_NO_ERROR;
}
