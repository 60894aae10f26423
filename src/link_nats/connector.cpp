// Connecting; see connector.h.
#include "link_nats/connector.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <stdexcept>

#include "base/blocked_signals.h"

namespace kavri::link_nats {

namespace {

using namespace std::chrono_literals;

// After a round of attempts, or a loss.
constexpr std::chrono::milliseconds leastPause = 100ms;
constexpr std::chrono::milliseconds mostPause = 250ms;

// For a thread that is asked to end.
constexpr std::chrono::milliseconds patience = 200ms;

}  // namespace

// What the thread works on, and shares with the connector while there is one.
struct Connector::Attempts {
    Attempts(std::vector<Server> all, std::shared_ptr<const Wakeup> toRing)
        : servers(std::move(all)), wakeup(std::move(toRing)) {}

    // The thread's alone.
    std::minstd_rand random{std::random_device{}()};
    std::vector<Server> servers;
    std::size_t tried = 0;
    std::shared_ptr<const Wakeup> wakeup;

    std::mutex mutex;
    std::condition_variable changed;
    bool isAbandoned = false;
    bool hasEnded = true;
    std::string failure;
    std::unique_ptr<ServerConnection> made;

    // False where nobody waits for a connection any more.
    bool pause() {
        std::uniform_int_distribution<std::chrono::milliseconds::rep> length(leastPause.count(),
                                                                             mostPause.count());
        std::unique_lock lock(mutex);
        return !changed.wait_for(lock, std::chrono::milliseconds(length(random)),
                                 [this] { return isAbandoned; });
    }

    bool attempt() {
        const Server& server = servers[tried++ % servers.size()];
        std::unique_ptr<ServerConnection> connection;
        std::string why;
        try {
            connection = std::make_unique<ServerConnection>(server, wakeup);
        } catch (const std::runtime_error& error) {
            why = error.what();
        }
        const std::lock_guard lock(mutex);
        failure = std::move(why);
        if (!isAbandoned) {
            made = std::move(connection);
            wakeup->ring();
        }
        return made != nullptr || isAbandoned;
    }

    void connect() {
        const bool isFirst = tried == 0;
        for (bool isDone = !isFirst && !pause(); !isDone;) {
            for (std::size_t i = 0; i < servers.size() && !isDone; ++i) {
                isDone = attempt();
            }
            isDone = isDone || !pause();
        }
        const std::lock_guard lock(mutex);
        hasEnded = true;
        changed.notify_all();
    }
};

Connector::Connector(std::vector<Server> servers, std::shared_ptr<const Wakeup> wakeup)
    : attempts_(std::make_shared<Attempts>(std::move(servers), std::move(wakeup))) {}

Connector::~Connector() {
    std::unique_lock lock(attempts_->mutex);
    attempts_->isAbandoned = true;
    attempts_->changed.notify_all();
    const bool hasEnded =
        attempts_->changed.wait_for(lock, patience, [this] { return attempts_->hasEnded; });
    lock.unlock();
    if (hasEnded) {
        finish();
    } else {
        thread_.detach();
    }
}

void Connector::start() {
    finish();
    attempts_->hasEnded = false;
    const base::BlockedSignals blocked;
    thread_ = std::thread([attempts = attempts_] { attempts->connect(); });
}

std::unique_ptr<ServerConnection> Connector::take() {
    const std::lock_guard lock(attempts_->mutex);
    return std::move(attempts_->made);
}

std::string Connector::failure() const {
    const std::lock_guard lock(attempts_->mutex);
    return attempts_->failure;
}

void Connector::finish() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace kavri::link_nats
