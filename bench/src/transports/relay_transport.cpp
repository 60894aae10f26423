// The bare relay as a transport: plain or spinning, with the service in another
// process or inside, with one write per message or gathered.
#include <unistd.h>

#include "transports/delivery_thread.h"
#include "transports/relay_stream.h"
#include "transports/threaded_subscription.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

std::string socketOf(const Place& place) {
    return place.at("relay.sock");
}

RelayHeader headerFor(RelayKind kind, const std::string& service) {
    RelayHeader header;
    header.kind = kind;
    header.service = service == "other" ? 1 : 0;
    return header;
}

class RelayClient : public Client {
  public:
    RelayClient(const Place& place, const std::string& service, bool spins)
        : stream_(socketOf(place), spins), header_(headerFor(RelayKind::request, service)) {}

    void send(const std::string& payload) override { stream_.send(header_, payload); }

    void sendBatch(std::span<const std::string> payloads) override {
        stream_.beginGathering();
        for (const std::string& payload : payloads) {
            send(payload);
        }
        stream_.endGathering();
    }

    std::string_view receive() override { return stream_.receive().payload; }

  private:
    RelayStream stream_;
    const RelayHeader header_;
};

// Takes responses on the thread that delivers them, and sends on any other.
class RelayResponses {
  public:
    RelayResponses(const Place& place, const std::string& service, bool spins)
        : stream_(socketOf(place), spins), header_(headerFor(RelayKind::request, service)) {}

    void send(const std::string& payload) { stream_.send(header_, payload); }
    void receive(MessageSink& sink) { sink.deliver(stream_.receive().payload); }
    void interrupt() { stream_.shutDown(); }

  private:
    RelayStream stream_;
    const RelayHeader header_;
};

// What a callback costs at least: a thread that reads and calls a function.
class RelayCallbackClient : public CallbackClient {
  public:
    RelayCallbackClient(const Place& place, const std::string& service, bool spins,
                        MessageSink& sink)
        : thread_(sink, place, service, spins) {}

    void send(const std::string& payload) override { thread_.receiver().send(payload); }

  private:
    DeliveryThread<RelayResponses> thread_;
};

class RelaySubscriber {
  public:
    RelaySubscriber(const Place& place, const std::string& service, bool spins)
        : stream_(socketOf(place), spins) {
        stream_.send(headerFor(RelayKind::subscribe, service), {});
    }

    void receive(MessageSink& sink) { sink.deliver(stream_.receive().payload); }
    void interrupt() { stream_.shutDown(); }

  private:
    RelayStream stream_;
};

class RelayAnswers : public Answers {
  public:
    RelayAnswers(RelayStream& stream, const RelayHeader& request)
        : stream_(stream), header_(request) {}

    void respond(const std::string& payload) override { send(RelayKind::response, payload); }
    void publish(const std::string& payload) override { send(RelayKind::event, payload); }

  private:
    void send(RelayKind kind, const std::string& payload) {
        header_.kind = kind;
        stream_.send(header_, payload);
    }

    RelayStream& stream_;
    RelayHeader header_;
};

class RelayTransport : public Transport {
  public:
    RelayTransport(bool isInside, bool spins, bool isBatched)
        : isInside_(isInside), spins_(spins), isBatched_(isBatched) {}

    bool isServiceInside() const override { return isInside_; }
    bool isBatched() const override { return isBatched_; }

    Child startServer(const Place& place) const override {
        std::vector<std::string> command = ownCommand({"run-relay", "--socket", socketOf(place)});
        if (isInside_) {
            command.emplace_back("--inside");
        }
        if (spins_) {
            command.emplace_back("--spin");
        }
        Child server({command, place.at("relay.log")});
        server.waitUntilReady([&] { return acceptsConnections(socketOf(place)); });
        return server;
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<RelayClient>(place, service, spins_);
    }

    std::unique_ptr<CallbackClient> connectCallback(const Place& place, const std::string& service,
                                                    MessageSink& sink) const override {
        return std::make_unique<RelayCallbackClient>(place, service, spins_, sink);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string& service,
                                            MessageSink& sink) const override {
        return std::make_unique<ThreadedSubscription<RelaySubscriber>>(sink, place, service,
                                                                       spins_);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        RelayStream stream(socketOf(place), spins_);
        stream.send(headerFor(RelayKind::serve, service), {});
        stream.receive();
        ready();
        while (true) {
            std::optional<RelayMessage> request = stream.receive();
            if (isBatched_) {
                stream.beginGathering();
            }
            for (; request; request = stream.received()) {
                RelayAnswers answers(stream, request->header);
                handler(request->payload, answers);
                if (!isBatched_) {
                    break;
                }
            }
            if (isBatched_) {
                stream.endGathering();
            }
        }
    }

  private:
    const bool isInside_;
    const bool spins_;
    const bool isBatched_;
};

}  // namespace

std::unique_ptr<Transport> makeRelay(bool isInside, bool spins, bool isBatched) {
    return std::make_unique<RelayTransport>(isInside, spins, isBatched);
}

}  // namespace kavri::bench
