// What is measured: one way of getting a message to a service and its answer
// back, whoever carries it. The workloads know nothing but this.
//
// The measuring process starts the servers and, as further processes, the
// services; it holds the clients itself. Everything happens in one private
// folder. Failures are exceptions: a measurement that fails has no result.
#ifndef KAVRI_BENCH_TRANSPORT_H
#define KAVRI_BENCH_TRANSPORT_H

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "child.h"

namespace kavri::bench {

// How long anything may take to come before the measurement has failed.
inline constexpr int patienceMs = 20000;

struct Place {
    std::string folder;
    // Many messages are under way at once: whoever can choose looks for the
    // next one before waiting for it.
    bool manyInFlight = false;

    std::string at(std::string_view name) const { return folder + "/" + std::string(name); }
};

// One that sends requests. Used by one thread at a time.
class Client {
  public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    virtual ~Client() = default;

    virtual void send(const std::string& payload) = 0;
    // In one call, where the transport has such a call.
    virtual void sendBatch(std::span<const std::string> payloads) {
        for (const std::string& payload : payloads) {
            send(payload);
        }
    }
    // The payload of the next response, good until the next call.
    virtual std::string_view receive() = 0;
};

// Receives events or responses, one at a time, on a thread that is not the
// caller's. A message that is not the expected one is an exception, with which
// the delivering thread ends the process.
class MessageSink {
  public:
    virtual ~MessageSink() = default;
    virtual void deliver(std::string_view payload) = 0;
};

// One that sends requests; responses are delivered to a sink until it is
// destroyed. One thread at a time sends, which may be the one that delivers.
class CallbackClient {
  public:
    CallbackClient() = default;
    CallbackClient(const CallbackClient&) = delete;
    CallbackClient& operator=(const CallbackClient&) = delete;
    virtual ~CallbackClient() = default;

    virtual void send(const std::string& payload) = 0;
};

// Events come until it is destroyed.
class Subscription {
  public:
    Subscription() = default;
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    virtual ~Subscription() = default;
};

// What a service can do while it has a request in hand.
class Answers {
  public:
    virtual ~Answers() = default;
    virtual void respond(const std::string& payload) = 0;
    virtual void publish(const std::string& payload) = 0;
};

// What a service is asked: answers every request through `answers`.
using Handler = std::function<void(std::string_view payload, Answers& answers)>;

class Transport {
  public:
    virtual ~Transport() = default;

    // The service lives in the server.
    virtual bool isServiceInside() const { return false; }
    // Requests are handed over in batches and responses gathered.
    virtual bool isBatched() const { return false; }

    // Starts what stands between clients and services; ready when it returns. First the
    // others, where there are any, then the server that the clients connect to.
    virtual std::vector<Child> startOthers(const Place&) const { return {}; }
    virtual Child startServer(const Place& place) const = 0;
    virtual std::unique_ptr<Client> connect(const Place& place,
                                            const std::string& service) const = 0;
    // Throws where the client library has no thread that delivers.
    virtual std::unique_ptr<CallbackClient> connectCallback(const Place& place,
                                                            const std::string& service,
                                                            MessageSink& sink) const;
    // In effect, at the latest, some moments later.
    virtual std::unique_ptr<Subscription> subscribe(const Place& place, const std::string& service,
                                                    MessageSink& sink) const = 0;
    // Serves until the process is ended; calls `ready` once requests come through.
    virtual void serve(const Place& place, const std::string& service, const Handler& handler,
                       const std::function<void()>& ready) const = 0;
    // Until what serves elsewhere is reached from where the clients are.
    virtual void waitForService(const Place&, const std::string&) const {}
};

// Never null; throws for a name that is none, or is not in this build.
std::unique_ptr<Transport> makeTransport(const std::string& name);
std::vector<std::string> transportNames();

// To other machines: not at all; configured, and nobody uses it; clients on one machine, services
// on another.
enum class Link { none, unused, used };
std::unique_ptr<Transport> makeKavri(bool isEmbedded, bool isBatched, Link link = Link::none);
std::unique_ptr<Transport> makeRelay(bool isInside, bool spins, bool isBatched);
std::unique_ptr<Transport> makeDbus();
std::unique_ptr<Transport> makeNats(bool isJoined);
std::unique_ptr<Transport> makeZeromq();
std::unique_ptr<Transport> makeMqtt();
std::unique_ptr<Transport> makeRedis();

// The brokers that are a few lines of this program, as processes of their own.
[[noreturn]] void runRelay(const std::string& path, bool isInside, bool spins);
[[noreturn]] void runZeromqBroker(const std::string& folder);

}  // namespace kavri::bench

#endif
