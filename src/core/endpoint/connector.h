// Makes the connection of an endpoint, for the first time and whenever it was lost.
//
// One thread connects, without the lock; others that need a connection wait for it. Guarded
// by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_CONNECTOR_H
#define KAVRI_CORE_ENDPOINT_CONNECTOR_H

#include <memory>
#include <string>

#include "core/deadline.h"
#include "core/endpoint/dispatcher.h"
#include "core/endpoint/monitor.h"
#include "core/endpoint/reconnect_schedule.h"
#include "core/endpoint/settings.h"
#include "core/endpoint/shared_connection.h"

namespace kavri::core {

class Connector {
  public:
    // What the endpoint does on a new connection, with the lock held: restores what belongs
    // to one. The connection may be lost again on return.
    class Events {
      public:
        virtual kavri_core_status connectionMade(Lock& lock, CallDeadline& deadline,
                                                 const ReconnectSchedule::Connected& made) = 0;

      protected:
        ~Events() = default;
    };

    // All of these outlive this. The dispatcher knows whether the endpoint is ending.
    Connector(const Settings& settings, Monitor& monitor, SharedConnection& connection,
              const Dispatcher& dispatcher, Events& events)
        : settings_(settings),
          monitor_(monitor),
          shared_(connection),
          dispatcher_(dispatcher),
          events_(events) {}

    // Makes a connection where there is none, within connectTimeout and the deadline.
    kavri_core_status connectIfNeeded(Lock& lock, CallDeadline& deadline);
    void connectionLost() { schedule_.lost(Clock::now()); }
    // Ends a try that is under way: the endpoint is ending.
    void interrupt() {
        if (schedule_.isConnecting()) {
            shared_.waker().wake();  // never reset: no wait on a socket follows
        }
    }

  private:
    // A connection with its handshake done, or why there is none.
    struct Made {
        std::shared_ptr<Connection> connection;
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        std::string reason;
    };
    kavri_core_status awaitTurn(Lock& lock, CallDeadline& deadline);
    Made makeWithoutLock(Lock& lock, Clock::time_point deadline);
    Made make(Clock::time_point deadline);

    const Settings& settings_;
    Monitor& monitor_;
    SharedConnection& shared_;
    const Dispatcher& dispatcher_;
    Events& events_;
    ReconnectSchedule schedule_;
};

}  // namespace kavri::core

#endif
