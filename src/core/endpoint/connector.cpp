// A try to connect and what precedes it; see connector.h.
#include "core/endpoint/connector.h"

#include <algorithm>

#include "core/connection/handshake.h"

namespace kavri::core {

kavri_core_status Connector::connectIfNeeded(Lock& lock, CallDeadline& deadline) {
    monitor_.expectHeld(lock);
    const kavri_core_status turn = awaitTurn(lock, deadline);
    if (shared_.isConnected() || turn != KAVRI_CORE_STATUS_NO_ERROR) {
        return turn;
    }
    const Clock::time_point now = Clock::now();
    schedule_.begin(now);
    const Clock::time_point limit = now + settings_.connectTimeout;
    Made made = makeWithoutLock(lock, std::min(limit, deadline.at().value_or(limit)));
    if (made.connection != nullptr) {
        shared_.set(std::move(made.connection));
        made.status = events_.connectionMade(lock, deadline, schedule_.succeeded(Clock::now()));
    } else {
        schedule_.failed();
        if (!dispatcher_.isEnding()) {
            settings_.log->info({"no connection to the broker at ", settings_.address, ": ",
                                 made.reason.empty() ? kavri_core_status_text(made.status)
                                                     : std::string_view(made.reason)});
        }
    }
    shared_.wakeAll();
    return made.status;
}

// Waits until there is a connection, or this thread may make one. The reader of a lost
// connection must have left: a wake-up meant for it would abort the new handshake.
kavri_core_status Connector::awaitTurn(Lock& lock, CallDeadline& deadline) {
    while (!shared_.isConnected()) {
        const bool othersWork = schedule_.isConnecting() || !shared_.isUnread();
        const Clock::time_point notBefore = schedule_.notBefore();
        if (!othersWork && Clock::now() >= notBefore) {
            break;
        }
        if (deadline.hasPassed() || dispatcher_.isEnding()) {
            return KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
        }
        monitor_.wait(lock, othersWork ? deadline.at()
                                       : std::min(deadline.at().value_or(notBefore), notBefore));
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

Connector::Made Connector::makeWithoutLock(Lock& lock, Clock::time_point deadline) {
    lock.unlock();
    Made made;
    try {
        made = make(deadline);
    } catch (...) {
        made.status = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    lock.lock();
    return made;
}

Connector::Made Connector::make(Clock::time_point deadline) {
    Connection::Opened opened =
        Connection::open(settings_.address, shared_.waker(), deadline, shared_.record());
    if (opened.connection == nullptr) {
        return {nullptr,
                opened.outOfDescriptors ? KAVRI_CORE_STATUS_OUT_OF_RESOURCES
                                        : KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE,
                std::move(opened.reason)};
    }
    Handshake::Result result = Handshake(*opened.connection, shared_.waker(), deadline)
                                   .perform(settings_.role, settings_.servedCategory);
    if (result.hasFailed()) {
        return {nullptr, result.status, std::move(result.reason)};
    }
    return {std::move(opened.connection), KAVRI_CORE_STATUS_NO_ERROR, {}};
}

}  // namespace kavri::core
