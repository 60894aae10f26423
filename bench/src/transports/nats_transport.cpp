// NATS as a transport: nats-server on the loopback and the C client. Requests
// carry a reply subject; each client listens on one. With two servers, which are
// joined, the clients are at one and the services at the other.
//
// The client library is driven from the caller's own thread through its
// interface for event loops, which saves two thread switches per message over
// its own threads. What is published while more input is at hand leaves with
// the rest. Responses by callback come on the library's threads, one of which
// reads and another delivers.
#include <nats/nats.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <utility>

#include "failure.h"
#include "transports/message_server.h"
#include "transports/threaded_subscription.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

void check(natsStatus status, const char* what) {
    if (status != NATS_OK) {
        throw std::runtime_error(std::string(what) + ": " + natsStatus_GetText(status));
    }
}

struct Message {
    natsMsg* message = nullptr;

    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { natsMsg_Destroy(message); }

    std::string_view payload() const {
        return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
    }
};

class Connection {
  public:
    Connection(const Place& place, const std::string& server) {
        natsOptions* options = nullptr;
        check(natsOptions_Create(&options), "options");
        natsOptions_SetURL(options, addressOfServer(place, server).c_str());
        natsOptions_SetAllowReconnect(options, false);
        natsOptions_SetSendAsap(options, true);  // asks for writing at once, and does not write
        natsOptions_SetEventLoop(options, this, attach, setReading, setWriting, detach);
        const natsStatus status = natsConnection_Connect(&connection_, options);
        natsOptions_Destroy(options);
        check(status, "connecting");
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    // The library would wait, half a second, for an answer that only this thread
    // could read. So the connection is cut first, and the library told.
    ~Connection() {
        shutDown();
        natsConnection_ProcessReadEvent(connection_);
        natsSubscription_Destroy(subscription_);
        natsConnection_Destroy(connection_);
    }

    void listen(const std::string& subject) {
        check(natsConnection_SubscribeSync(&subscription_, connection_, subject.c_str()),
              "subscribing");
        natsSubscription_SetPendingLimits(subscription_, -1, -1);
        flush();
    }

    void publish(const char* subject, const char* reply, const std::string& payload) {
        check(natsConnection_PublishRequest(connection_, subject, reply, payload.data(),
                                            static_cast<int>(payload.size())),
              "sending");
    }
    void publish(const char* subject, const std::string& payload) {
        check(natsConnection_Publish(connection_, subject, payload.data(),
                                     static_cast<int>(payload.size())),
              "sending");
    }

    void receive(Message& into, int timeoutMs) {
        natsMsg_Destroy(std::exchange(into.message, nullptr));
        while (true) {
            const natsStatus status = natsSubscription_NextMsg(&into.message, subscription_, 0);
            if (status != NATS_TIMEOUT) {
                check(status, "receiving");
                return;
            }
            flush();
            step(timeoutMs);
        }
    }
    // Makes a receive on another thread fail.
    void shutDown() const { ::shutdown(descriptor_, SHUT_RDWR); }

  private:
    static natsStatus attach(void** data, void* self, natsConnection* connection, natsSock socket) {
        auto* const made = static_cast<Connection*>(self);
        made->connection_ = connection;
        made->descriptor_ = socket;
        *data = self;
        return NATS_OK;
    }
    static natsStatus setReading(void*, bool) { return NATS_OK; }
    static natsStatus setWriting(void* self, bool wanted) {
        static_cast<Connection*>(self)->wantsToWrite_ = wanted;
        return NATS_OK;
    }
    static natsStatus detach(void*) { return NATS_OK; }

    void flush() {
        if (wantsToWrite_) {
            natsConnection_ProcessWriteEvent(connection_);
        }
    }

    void step(int timeoutMs) {
        pollfd waited{descriptor_, static_cast<short>(wantsToWrite_ ? POLLIN | POLLOUT : POLLIN),
                      0};
        if (::poll(&waited, 1, timeoutMs) == 0) {
            throw std::runtime_error("nothing came in time");
        }
        if ((waited.revents & ~POLLOUT) != 0) {
            natsConnection_ProcessReadEvent(connection_);
        }
    }

    natsConnection* connection_ = nullptr;
    natsSubscription* subscription_ = nullptr;
    int descriptor_ = -1;
    std::atomic<bool> wantsToWrite_ = false;
};

constexpr int withoutLimitMs = -1;

std::string newInbox() {
    natsInbox* made = nullptr;
    check(natsInbox_Create(&made), "making an inbox");
    const std::string inbox = made;
    natsInbox_Destroy(made);
    return inbox;
}

std::string requestsOf(const std::string& service) {
    return "requests." + service;
}
std::string eventsOf(const std::string& service) {
    return "events." + service;
}

class NatsClient : public Client {
  public:
    NatsClient(const Place& place, const std::string& service)
        : connection_(place, nearServer), subject_(requestsOf(service)), reply_(newInbox()) {
        connection_.listen(reply_);
    }

    void send(const std::string& payload) override {
        connection_.publish(subject_.c_str(), reply_.c_str(), payload);
    }

    std::string_view receive() override {
        connection_.receive(message_, patienceMs);
        return message_.payload();
    }

  private:
    Connection connection_;
    const std::string subject_;
    const std::string reply_;
    Message message_;
};

class NatsCallbackClient : public CallbackClient {
  public:
    NatsCallbackClient(const Place& place, const std::string& service, MessageSink& sink)
        : sink_(sink), subject_(requestsOf(service)), reply_(newInbox()) {
        connect(place);
        check(natsConnection_Subscribe(&subscription_, connection_, reply_.c_str(), take, this),
              "subscribing");
        natsSubscription_SetPendingLimits(subscription_, -1, -1);
        check(natsSubscription_SetOnCompleteCB(subscription_, endDelivery, this), "subscribing");
        check(natsConnection_Flush(connection_), "subscribing");
    }
    ~NatsCallbackClient() override {
        natsSubscription_Unsubscribe(subscription_);
        deliveryEnded_.get_future().wait();
        natsSubscription_Destroy(subscription_);
        natsConnection_Destroy(connection_);
    }

    void send(const std::string& payload) override {
        check(natsConnection_PublishRequest(connection_, subject_.c_str(), reply_.c_str(),
                                            payload.data(), static_cast<int>(payload.size())),
              "sending");
    }

  private:
    void connect(const Place& place) {
        natsOptions* options = nullptr;
        check(natsOptions_Create(&options), "options");
        natsOptions_SetURL(options, addressOfServer(place, nearServer).c_str());
        natsOptions_SetAllowReconnect(options, false);
        natsOptions_SetSendAsap(options, true);  // a thread that writes later would be a third
        const natsStatus status = natsConnection_Connect(&connection_, options);
        natsOptions_Destroy(options);
        check(status, "connecting");
    }
    static void take(natsConnection*, natsSubscription*, natsMsg* message, void* self) {
        Message taken;
        taken.message = message;
        failMeasurementOnException(
            [&] { static_cast<NatsCallbackClient*>(self)->sink_.deliver(taken.payload()); });
    }
    static void endDelivery(void* self) {
        static_cast<NatsCallbackClient*>(self)->deliveryEnded_.set_value();
    }

    MessageSink& sink_;
    const std::string subject_;
    const std::string reply_;
    std::promise<void> deliveryEnded_;
    natsConnection* connection_ = nullptr;
    natsSubscription* subscription_ = nullptr;
};

class NatsSubscriber {
  public:
    NatsSubscriber(const Place& place, const std::string& service)
        : connection_(place, nearServer) {
        connection_.listen(eventsOf(service));
    }

    void receive(MessageSink& sink) {
        connection_.receive(event_, withoutLimitMs);
        sink.deliver(event_.payload());
    }
    void interrupt() { connection_.shutDown(); }

  private:
    Connection connection_;
    Message event_;
};

class NatsAnswers : public Answers {
  public:
    NatsAnswers(Connection& connection, const std::string& events, const char* reply)
        : connection_(connection), events_(events), reply_(reply) {}

    void respond(const std::string& payload) override { connection_.publish(reply_, payload); }
    void publish(const std::string& payload) override {
        connection_.publish(events_.c_str(), payload);
    }

  private:
    Connection& connection_;
    const std::string& events_;
    const char* reply_;
};

class NatsTransport : public Transport {
  public:
    explicit NatsTransport(bool isJoined) : isJoined_(isJoined) {}

    std::vector<Child> startOthers(const Place& place) const override {
        std::vector<Child> others;
        if (isJoined_) {
            others.push_back(startMessageServer(place, farServer));
        }
        return others;
    }

    Child startServer(const Place& place) const override {
        return isJoined_ ? startJoinedServer(place, nearServer, farServer)
                         : startMessageServer(place, nearServer);
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<NatsClient>(place, service);
    }

    std::unique_ptr<CallbackClient> connectCallback(const Place& place, const std::string& service,
                                                    MessageSink& sink) const override {
        return std::make_unique<NatsCallbackClient>(place, service, sink);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string& service,
                                            MessageSink& sink) const override {
        return std::make_unique<ThreadedSubscription<NatsSubscriber>>(sink, place, service);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        Connection connection(place, isJoined_ ? farServer : nearServer);
        const std::string events = eventsOf(service);
        connection.listen(requestsOf(service));
        Message request;
        connection.publish(requestsOf(service).c_str(), "known");
        connection.receive(request, patienceMs);
        ready();
        while (true) {
            connection.receive(request, withoutLimitMs);
            NatsAnswers answers(connection, events, natsMsg_GetReply(request.message));
            handler(request.payload(), answers);
        }
    }

  private:
    const bool isJoined_;
};

}  // namespace

std::unique_ptr<Transport> makeNats(bool isJoined) {
    return std::make_unique<NatsTransport>(isJoined);
}

}  // namespace kavri::bench
