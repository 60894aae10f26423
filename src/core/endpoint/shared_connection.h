// The connection that an endpoint has at present, as several threads share it.
//
// The bytes that have arrived are handled frame by frame, by a thread that waits for a message
// or an acknowledgement, and only until it has it: so a message is allocated when it is about
// to be received. After each frame the other waiting threads are notified, since the next
// frames may be theirs. A connection that breaks is dropped at once; threads that still wait
// for it wake up and find that its number has changed. Guarded by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_SHARED_CONNECTION_H
#define KAVRI_CORE_ENDPOINT_SHARED_CONNECTION_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/connection/connection.h"
#include "core/endpoint/monitor.h"
#include "core/endpoint/read_turn.h"
#include "core/endpoint/receive_budget.h"

namespace kavri::core {

class SharedConnection {
  public:
    // Why a connection is gone. The reason is the broker's own where it said goodbye.
    struct Loss {
        std::string_view reason;
        kavri_core_status status = KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
        bool isClosedByBroker = false;
    };

    // What the endpoint does about it; called with the lock held.
    class Events {
      public:
        // The payload of a large frame comes in memory of its own, which may be taken over.
        // After an exception the frame is handled once more, later.
        virtual void frameReceived(const wire::Frame& frame, Text& payload) = 0;
        virtual void connectionLost(const Loss& loss) = 0;

      protected:
        ~Events() = default;
    };

    SharedConnection(Monitor& monitor, Events& events) : monitor_(monitor), events_(events) {}

    bool isConnected() const { return connection_ != nullptr; }
    // Whether the connection of this number is still there.
    bool isConnected(std::uint64_t number) const { return isConnected() && number_ == number; }
    // Distinguishes a connection from those before it. There was none yet: 0.
    std::uint64_t number() const { return number_; }
    const std::shared_ptr<Connection>& current() const { return connection_; }

    // Allocates nothing.
    void set(std::shared_ptr<Connection> made);
    // Drops the connection, after handling what has arrived. There must be one.
    void lose(std::string_view reason);

    // Whether a thread may read: no other does, and there is room for what arrives.
    bool mayRead() const { return turn_.isFree() && !budget_.isUsedUp(); }
    // Whether no thread reads from this connection or one before it.
    bool isUnread() const { return turn_.isFree(); }
    // Receives what has arrived; waits for it until the deadline, where asked.
    enum class Waiting { no, yes };
    void read(Lock& lock, Waiting waiting, Deadline deadline);
    // Waits until the connection may take more. The broker may be waiting for this side to
    // read: so what arrives meanwhile is received.
    void waitToWrite(Lock& lock, Connection& connection, Deadline deadline);

    // Handles what has arrived, frame by frame, until `ready()`; whether it is.
    template <typename Ready>
    bool handleUntil(const Ready& ready) {
        while (!ready()) {
            if (!mayRead() || !handleNextFrame()) {
                return false;
            }
        }
        return true;
    }
    void handleAll() {
        while (handleNextFrame()) {
        }
    }

    // Something changed that any thread may wait for, the one that reads included.
    void wakeAll() {
        turn_.interrupt();
        monitor_.notifyAll();
    }

    ReceiveBudget& budget() { return budget_; }
    const ReceiveBudget& budget() const { return budget_; }
    Waker& waker() { return waker_; }
    SocketRecord& record() { return record_; }

  private:
    bool handleNextFrame();
    void endTurn(Connection& connection, Connection::Io io);

    Monitor& monitor_;
    Events& events_;
    Waker waker_;
    SocketRecord record_;
    std::shared_ptr<Connection> connection_;
    std::uint64_t number_ = 0;
    ReadTurn turn_{waker_};
    ReceiveBudget budget_;

    struct Goodbye {
        std::string reason;
        kavri_core_status status;
    };
    std::optional<Goodbye> goodbye_;  // of the present connection
};

}  // namespace kavri::core

#endif
