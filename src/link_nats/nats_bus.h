// The bus over libnats, driven by its owner's event loop: no thread is on a message's way.
//
// Its descriptor is an epoll set with the socket of the connection and the wake-up by which
// other threads say that there is something to do: the one that connects, and libnats' own,
// which send pings and notice when none is answered.
#ifndef KAVRI_LINK_NATS_NATS_BUS_H
#define KAVRI_LINK_NATS_NATS_BUS_H

#include <memory>
#include <string>

#include "base/descriptor.h"
#include "broker/link/bus.h"
#include "link_nats/connector.h"
#include "link_nats/outbox.h"
#include "link_nats/server_connection.h"
#include "link_nats/subscriptions.h"
#include "link_nats/wakeup.h"

namespace kavri::link_nats {

class NatsBus final : public broker::Bus {
  public:
    // Throws BadBusOptions.
    explicit NatsBus(const broker::BusOptions& options);
    ~NatsBus() override { flush(); }

    int descriptor() const override { return epoll_.get(); }
    void handle() override;
    std::optional<Message> next() override { return subscriptions_.next(); }
    const Connection& connection() const override { return state_; }

    SubscriptionId subscribe(std::string_view subject, std::string_view queue) override {
        return subscriptions_.add(subject, queue);
    }
    SubscriptionId subscribeAnswers(std::string_view subject) override {
        return subscriptions_.addForAnswers(subject);
    }
    void unsubscribe(SubscriptionId subscription) override { subscriptions_.remove(subscription); }

    bool publish(std::string_view subject, std::string_view data,
                 std::string_view replyTo) override;
    bool flush() override;
    std::size_t queuedBytes() const override;

  private:
    bool watch(int operation, int descriptor, unsigned events);
    void handleSocket(unsigned events);
    bool mayHand(std::size_t bytes) const;
    bool hand(std::string_view subject, std::string_view data, std::string_view replyTo);
    void write();
    void noteConnecting();
    void establish(std::unique_ptr<ServerConnection> connection);
    void lose();

    base::Descriptor epoll_;
    std::shared_ptr<const Wakeup> wakeup_ = std::make_shared<Wakeup>();
    Connector connector_;
    Connection state_;
    std::unique_ptr<ServerConnection> server_;  // while there is a connection
    bool waitsForRoom_ = false;                 // the kernel did not take all
    Outbox outbox_;
    Subscriptions subscriptions_{wakeup_};
    std::string subject_;  // with the zero at the end that libnats wants
    std::string replyTo_;
};

}  // namespace kavri::link_nats

#endif
