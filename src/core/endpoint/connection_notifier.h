// The connection callback, and the changes that it has not been called for yet. Guarded by
// the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_CONNECTION_NOTIFIER_H
#define KAVRI_CORE_ENDPOINT_CONNECTION_NOTIFIER_H

#include "core/endpoint/connection_changes.h"
#include "core/endpoint/dispatcher.h"
#include "core/endpoint/reconnect_schedule.h"
#include "core/endpoint/shared_connection.h"

namespace kavri::core {

class ConnectionNotifier {
  public:
    ConnectionNotifier(Dispatcher& dispatcher, kavri_core_ipc_connection_callback callback,
                       void* context)
        : dispatcher_(dispatcher), callback_(dispatcher) {
        callback_.set(callback, context);
    }

    bool isInstalled() const { return callback_.isInstalled(); }

    void connected(const ReconnectSchedule::Connected& made) {
        if (made.isFirst) {
            add({KAVRI_CORE_IPC_CONNECTION_MADE, KAVRI_CORE_STATUS_NO_ERROR, "connected"});
        } else {
            add({KAVRI_CORE_IPC_CONNECTION_RESTORED, KAVRI_CORE_STATUS_NO_ERROR, "connected again",
                 made.disconnected});
        }
    }
    void lost(const SharedConnection::Loss& loss) {
        add({loss.isClosedByBroker ? KAVRI_CORE_IPC_CONNECTION_CLOSED_BY_BROKER
                                   : KAVRI_CORE_IPC_CONNECTION_BROKEN,
             loss.status, loss.reason});
    }

    bool hasChange() const { return !changes_.isEmpty(); }
    // A restored connection is reported once its subscriptions are in effect.
    bool isNextARestored() const {
        return hasChange() && changes_.oldest().event == KAVRI_CORE_IPC_CONNECTION_RESTORED;
    }

    // Calls the callback for the oldest change.
    void deliver(Lock& lock) {
        const ConnectionChange next = changes_.take();
        const kavri_core_ipc_connection_change given{
            sizeof given, next.event, next.status, next.reason.data(),
            static_cast<std::uint64_t>(next.disconnected.count())};
        dispatcher_.invoke(lock, callback_,
                           [&given](auto* callback, void* context) { callback(&given, context); });
    }

  private:
    void add(const ConnectionChange& change) {
        if (isInstalled()) {
            changes_.add(change);
        }
    }

    Dispatcher& dispatcher_;
    CallbackSlot<kavri_core_ipc_connection_callback> callback_;
    ConnectionChanges changes_;
};

}  // namespace kavri::core

#endif
