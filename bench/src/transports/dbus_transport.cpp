// D-Bus as a transport: dbus-broker and sd-bus. Requests are method calls with
// a byte array, events are signals.
//
// dbus-broker takes its listening socket and its policy from a controller,
// which usually is a launcher that needs a journal and a service manager. Here
// the measuring process is the controller, with a policy that allows all.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <deque>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/unix_address.h"
#include "transports/threaded_subscription.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

constexpr const char* path = "/org/kavri/Bench";
constexpr const char* interface = "org.kavri.Bench";
constexpr std::uint64_t withoutLimit = UINT64_MAX;

int check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " +
                                 std::generic_category().message(-result));
    }
    return result;
}

struct Closer {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, Closer>;
using Message = std::unique_ptr<sd_bus_message, Closer>;

std::string socketOf(const Place& place) {
    return place.at("dbus.sock");
}
std::string nameOf(const std::string& service) {
    return "org.kavri.Bench." + service;
}

int listeningSocket(const std::string& at) {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const base::UnixAddress address(at);
    if (::bind(descriptor, address.get(), address.size()) != 0 || ::listen(descriptor, 1024) != 0) {
        check(-errno, "listening");
    }
    return descriptor;
}

// What the broker is told about who may do what; the parts are: for each user,
// by console and group (none), and then names for SELinux (none), AppArmor (no)
// and the bus's type.
constexpr const char* batchType = "bta(btbs)a(btssssuutt)a(btssssuutt)";
constexpr const char* policyType =
    "(a(u(bta(btbs)a(btssssuutt)a(btssssuutt)))"
    "a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))a(ss)bs)";

// Everything allowed, to everybody.
void appendBatch(sd_bus_message* message) {
    const std::uint64_t first = 1;
    check(sd_bus_message_open_container(message, 'r', batchType), "policy");
    check(sd_bus_message_append(message, "bt", 1, first), "policy");
    check(sd_bus_message_append(message, "a(btbs)", 1, 1, first, 1, ""), "policy");
    for (int direction = 0; direction < 2; ++direction) {
        check(sd_bus_message_append(message, "a(btssssuutt)", 1, 1, first, "", "", "", "", 0, 0,
                                    std::uint64_t{0}, UINT64_MAX),
              "policy");
    }
    check(sd_bus_message_close_container(message), "policy");
}

void appendPolicy(sd_bus_message* message) {
    const std::string type = policyType;
    const std::string perUser = "(u(" + std::string(batchType) + "))";
    check(sd_bus_message_open_container(message, 'v', policyType), "policy");
    check(sd_bus_message_open_container(message, 'r', type.substr(1, type.size() - 2).c_str()),
          "policy");
    check(sd_bus_message_open_container(message, 'a', perUser.c_str()), "policy");
    check(
        sd_bus_message_open_container(message, 'r', perUser.substr(1, perUser.size() - 2).c_str()),
        "policy");
    check(sd_bus_message_append(message, "u", UINT32_MAX), "policy");
    appendBatch(message);
    check(sd_bus_message_close_container(message), "policy");
    check(sd_bus_message_close_container(message), "policy");
    check(sd_bus_message_append(message, "a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))a(ss)bs", 0, 0,
                                0, "session"),
          "policy");
    check(sd_bus_message_close_container(message), "policy");
    check(sd_bus_message_close_container(message), "policy");
}

void addListener(sd_bus* controller, int listener) {
    sd_bus_message* made = nullptr;
    check(sd_bus_message_new_method_call(controller, &made, nullptr, "/org/bus1/DBus/Broker",
                                         "org.bus1.DBus.Broker", "AddListener"),
          "call");
    const Message call(made);
    check(sd_bus_message_append(made, "oh", "/org/bus1/DBus/Listener/0", listener), "call");
    appendPolicy(made);
    check(sd_bus_call(controller, made, 0, nullptr, nullptr), "handing over the listening socket");
}

Bus connectTo(const Place& place) {
    sd_bus* made = nullptr;
    check(sd_bus_new(&made), "making a connection");
    Bus bus(made);
    check(sd_bus_set_address(made, ("unix:path=" + socketOf(place)).c_str()), "address");
    check(sd_bus_set_bus_client(made, 1), "client");
    check(sd_bus_start(made), "connecting");
    return bus;
}

std::string_view payloadOf(sd_bus_message* message) {
    if (sd_bus_message_is_method_error(message, nullptr) != 0) {
        throw std::runtime_error("a call failed: " +
                                 std::string(sd_bus_message_get_error(message)->message));
    }
    const void* bytes = nullptr;
    std::size_t count = 0;
    check(sd_bus_message_read_array(message, 'y', &bytes, &count), "reading a message");
    return {static_cast<const char*>(bytes), count};
}

void append(sd_bus_message* message, const std::string& payload) {
    check(sd_bus_message_append_array(message, 'y', payload.data(), payload.size()), "payload");
}

// Handles what came, or waits for something to come.
void step(sd_bus* bus, std::uint64_t timeoutUs) {
    if (check(sd_bus_process(bus, nullptr), "processing") == 0) {
        const int woken = check(sd_bus_wait(bus, timeoutUs), "waiting");
        if (woken == 0 && timeoutUs != withoutLimit) {
            throw std::runtime_error("nothing came in time");
        }
    }
}

class DbusClient : public Client {
  public:
    DbusClient(const Place& place, const std::string& service)
        : bus_(connectTo(place)), name_(nameOf(service)) {}

    void send(const std::string& payload) override {
        sd_bus_message* made = nullptr;
        check(sd_bus_message_new_method_call(bus_.get(), &made, name_.c_str(), path, interface,
                                             "Echo"),
              "call");
        const Message call(made);
        append(made, payload);
        check(sd_bus_call_async(bus_.get(), nullptr, made, take, this, withoutLimit), "sending");
    }

    std::string_view receive() override {
        while (responses_.empty()) {
            step(bus_.get(), patienceMs * 1000UL);
        }
        last_ = std::move(responses_.front());
        responses_.pop_front();
        return payloadOf(last_.get());
    }

  private:
    static int take(sd_bus_message* message, void* self, sd_bus_error*) {
        static_cast<DbusClient*>(self)->responses_.emplace_back(sd_bus_message_ref(message));
        return 0;
    }

    Bus bus_;
    const std::string name_;
    std::deque<Message> responses_;
    Message last_;
};

class DbusAnswers : public Answers {
  public:
    explicit DbusAnswers(sd_bus_message* request) : request_(request) {}

    void respond(const std::string& payload) override {
        sd_bus_message* made = nullptr;
        check(sd_bus_message_new_method_return(request_, &made), "answer");
        send(made, payload);
    }
    void publish(const std::string& payload) override {
        sd_bus_message* made = nullptr;
        check(sd_bus_message_new_signal(sd_bus_message_get_bus(request_), &made, path, interface,
                                        "Event"),
              "signal");
        send(made, payload);
    }

  private:
    void send(sd_bus_message* made, const std::string& payload) {
        const Message owned(made);
        append(made, payload);
        check(sd_bus_send(sd_bus_message_get_bus(request_), made, nullptr), "sending");
    }

    sd_bus_message* request_;
};

int answer(sd_bus_message* request, void* handler, sd_bus_error*) {
    DbusAnswers answers(request);
    (*static_cast<const Handler*>(handler))(payloadOf(request), answers);
    return 1;
}

int takeEvent(sd_bus_message* event, void* sink, sd_bus_error*) {
    static_cast<MessageSink*>(sink)->deliver(payloadOf(event));
    return 0;
}

class DbusSubscriber {
  public:
    DbusSubscriber(const Place& place, MessageSink& sink) : bus_(connectTo(place)) {
        check(sd_bus_add_match(bus_.get(), nullptr,
                               "type='signal',interface='org.kavri.Bench',member='Event'",
                               takeEvent, &sink),
              "subscribing");
    }

    void receive(MessageSink&) { step(bus_.get(), withoutLimit); }
    void interrupt() { ::shutdown(sd_bus_get_fd(bus_.get()), SHUT_RDWR); }

  private:
    Bus bus_;
};

class DbusTransport : public Transport {
  public:
    Child startServer(const Place& place) const override {
        const int listener = listeningSocket(socketOf(place));
        std::array<int, 2> ends{};
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data());
        Child server({{"dbus-broker", "--controller", std::to_string(ends[1]), "--machine-id",
                       "00000000000000000000000000000001", "--max-bytes", "4000000000", "--max-fds",
                       "100000", "--max-matches", "1000000", "--max-objects", "1000000"},
                      place.at("dbus.log"),
                      false,
                      {ends[1]}});
        ::close(ends[1]);
        static Bus controller;  // the broker ends with it
        sd_bus* made = nullptr;
        check(sd_bus_new(&made), "making a connection");
        controller.reset(made);
        check(sd_bus_set_fd(made, ends[0], ends[0]), "controller");
        check(sd_bus_start(made), "controller");
        addListener(made, listener);
        ::close(listener);
        return server;
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<DbusClient>(place, service);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string&,
                                            MessageSink& sink) const override {
        return std::make_unique<ThreadedSubscription<DbusSubscriber>>(sink, place, sink);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        const Bus bus = connectTo(place);
        check(sd_bus_add_object(bus.get(), nullptr, path, answer, const_cast<Handler*>(&handler)),
              "serving");
        check(sd_bus_request_name(bus.get(), nameOf(service).c_str(), 0), "taking the name");
        ready();
        while (true) {
            step(bus.get(), withoutLimit);
        }
    }
};

}  // namespace

std::unique_ptr<Transport> makeDbus() {
    return std::make_unique<DbusTransport>();
}

}  // namespace kavri::bench
