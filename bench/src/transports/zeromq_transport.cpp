// ZeroMQ as a transport: DEALER–ROUTER–DEALER over ipc, events through
// XSUB–XPUB; the broker is a process of this program, since ZeroMQ brings none.
//
// A request is [service][payload]. The ROUTER sees [sender][service][payload]
// and passes it on as [service][sender][payload]; an answer goes back likewise.
#include <zmq.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "transports/threaded_subscription.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

void check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
    }
}

void* context() {
    static void* const made = [] {
        void* one = zmq_ctx_new();
        zmq_ctx_set(one, ZMQ_MAX_SOCKETS, 8192);
        return one;
    }();
    return made;
}

// The three endpoints of the broker.
std::string router(const std::string& folder) {
    return "ipc://" + folder + "/router";
}
std::string eventsIn(const std::string& folder) {
    return "ipc://" + folder + "/events-in";
}
std::string eventsOut(const std::string& folder) {
    return "ipc://" + folder + "/events-out";
}

class Part {
  public:
    Part() { zmq_msg_init(&message_); }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    ~Part() { zmq_msg_close(&message_); }

    zmq_msg_t* get() { return &message_; }
    bool hasMore() { return zmq_msg_more(&message_) != 0; }
    std::string_view text() {
        return {static_cast<const char*>(zmq_msg_data(&message_)), zmq_msg_size(&message_)};
    }

  private:
    zmq_msg_t message_{};
};

// Never drops: queues have no limit, what is measured keeps them short.
class Socket {
  public:
    explicit Socket(int type) : socket_(zmq_socket(context(), type)) {
        if (socket_ == nullptr) {
            check(-1, "making a socket");
        }
        set(ZMQ_LINGER, 0);
        set(ZMQ_SNDHWM, 0);
        set(ZMQ_RCVHWM, 0);
        set(ZMQ_RCVTIMEO, patienceMs);
        set(ZMQ_BACKLOG, 1024);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { zmq_close(socket_); }

    void* get() const { return socket_; }
    void set(int option, int value) { zmq_setsockopt(socket_, option, &value, sizeof value); }
    void waitWithoutLimit() { set(ZMQ_RCVTIMEO, -1); }
    void setText(int option, std::string_view value) {
        check(zmq_setsockopt(socket_, option, value.data(), value.size()), "setting an option");
    }
    void bind(const std::string& endpoint) { check(zmq_bind(socket_, endpoint.c_str()), "bind"); }
    void connect(const std::string& endpoint) {
        check(zmq_connect(socket_, endpoint.c_str()), "connect");
    }
    void send(std::string_view part, int flags = 0) {
        check(zmq_send(socket_, part.data(), part.size(), flags), "sending");
    }
    void receive(Part& part) { check(zmq_msg_recv(part.get(), socket_, 0), "receiving"); }
    bool tryToReceive(Part& part) { return zmq_msg_recv(part.get(), socket_, ZMQ_DONTWAIT) >= 0; }
    void forward(Part& part, bool more) {
        check(zmq_msg_send(part.get(), socket_, more ? ZMQ_SNDMORE : 0), "forwarding");
    }

  private:
    void* socket_;
};

class ZeromqClient : public Client {
  public:
    ZeromqClient(const Place& place, std::string service)
        : service_(std::move(service)), socket_(ZMQ_DEALER) {
        socket_.connect(router(place.folder));
    }

    void send(const std::string& payload) override {
        socket_.send(service_, ZMQ_SNDMORE);
        socket_.send(payload);
    }

    std::string_view receive() override {
        socket_.receive(from_);
        socket_.receive(payload_);
        return payload_.text();
    }

  private:
    const std::string service_;
    Socket socket_;
    Part from_;
    Part payload_;
};

class ZeromqSubscriber {
  public:
    explicit ZeromqSubscriber(const Place& place) : socket_(ZMQ_SUB) {
        socket_.waitWithoutLimit();
        socket_.setText(ZMQ_SUBSCRIBE, "");
        socket_.connect(eventsOut(place.folder));
    }

    void receive(MessageSink& sink) {
        if (zmq_msg_recv(event_.get(), socket_.get(), 0) >= 0) {
            sink.deliver(event_.text());
        } else if (zmq_errno() == ETERM) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } else {
            check(-1, "receiving");
        }
    }
    // Of all subscribers at once: the measurement is over.
    static void interrupt() { zmq_ctx_shutdown(context()); }

  private:
    Socket socket_;
    Part event_;
};

class ZeromqAnswers : public Answers {
  public:
    ZeromqAnswers(Socket& socket, Socket& events, std::string_view client)
        : socket_(socket), events_(events), client_(client) {}

    void respond(const std::string& payload) override {
        socket_.send(client_, ZMQ_SNDMORE);
        socket_.send(payload);
    }
    void publish(const std::string& payload) override { events_.send(payload); }

  private:
    Socket& socket_;
    Socket& events_;
    std::string_view client_;
};

// A service becomes known to the ROUTER in its own time: it writes to itself
// until that arrives.
void waitUntilKnown(Socket& socket, const std::string& service) {
    constexpr int tryMs = 20;
    Part from;
    Part payload;
    socket.set(ZMQ_RCVTIMEO, tryMs);
    for (int waitedMs = 0; waitedMs < patienceMs; waitedMs += tryMs) {
        socket.send(service, ZMQ_SNDMORE);
        socket.send("known");
        if (zmq_msg_recv(from.get(), socket.get(), 0) >= 0) {
            socket.receive(payload);
            socket.waitWithoutLimit();
            return;
        }
    }
    throw std::runtime_error("the broker does not come to know the service");
}

class ZeromqTransport : public Transport {
  public:
    Child startServer(const Place& place) const override {
        Child server(
            {ownCommand({"run-zeromq-broker", "--folder", place.folder}), place.at("zeromq.log")});
        server.waitUntilReady([&] { return acceptsConnections(place.at("events-out")); });
        return server;
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<ZeromqClient>(place, service);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string&,
                                            MessageSink& sink) const override {
        return std::make_unique<ThreadedSubscription<ZeromqSubscriber>>(sink, place);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        Socket socket(ZMQ_DEALER);
        Socket events(ZMQ_PUB);
        socket.setText(ZMQ_ROUTING_ID, service);
        socket.connect(router(place.folder));
        events.connect(eventsIn(place.folder));
        waitUntilKnown(socket, service);
        ready();
        Part client;
        Part payload;
        while (true) {
            socket.receive(client);
            socket.receive(payload);
            if (client.text() != service) {
                ZeromqAnswers answers(socket, events, client.text());
                handler(payload.text(), answers);
            }
        }
    }
};

void forwardRequests(Socket& router) {
    Part from;
    Part to;
    Part payload;
    while (router.tryToReceive(from)) {
        router.receive(to);
        router.receive(payload);
        // Unknown receivers are silently passed over.
        router.forward(to, true);
        router.forward(from, true);
        router.forward(payload, false);
    }
}

void forwardAll(Socket& from, Socket& to) {
    Part part;
    while (from.tryToReceive(part)) {
        const bool more = part.hasMore();
        to.forward(part, more);
    }
}

}  // namespace

void runZeromqBroker(const std::string& folder) {
    Socket requests(ZMQ_ROUTER);
    Socket in(ZMQ_XSUB);
    Socket out(ZMQ_XPUB);
    requests.bind(router(folder));
    in.bind(eventsIn(folder));
    out.bind(eventsOut(folder));
    std::array<zmq_pollitem_t, 3> waited{{{requests.get(), 0, ZMQ_POLLIN, 0},
                                          {in.get(), 0, ZMQ_POLLIN, 0},
                                          {out.get(), 0, ZMQ_POLLIN, 0}}};
    while (true) {
        zmq_poll(waited.data(), static_cast<int>(waited.size()), -1);
        forwardRequests(requests);
        forwardAll(in, out);
        forwardAll(out, in);  // subscriptions go the other way
    }
}

std::unique_ptr<Transport> makeZeromq() {
    return std::make_unique<ZeromqTransport>();
}

}  // namespace kavri::bench
