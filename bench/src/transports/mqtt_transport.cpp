// MQTT as a transport: mosquitto on a Unix socket, quality of service 0. A
// request goes to bench/SERVICE/requests/CLIENT, its answer comes back on
// bench/responses/CLIENT.
//
// The client library is driven from the caller's own thread, which saves a
// thread switch per message over its threaded way. Responses by callback come on
// the library's thread, which also writes what others send.
#include <mosquitto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <fstream>
#include <future>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "failure.h"
#include "transports/threaded_subscription.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

constexpr int keepAliveS = 3600;

void check(int result, const char* what) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " +
                                 (result == MOSQ_ERR_ERRNO
                                      ? std::generic_category().message(errno)
                                      : std::string(mosquitto_strerror(result))));
    }
}

std::string socketOf(const Place& place) {
    return place.at("mqtt.sock");
}

struct Message {
    std::string topic;
    std::string payload;
};

class Connection {
  public:
    Connection(const Place& place, const std::string& name)
        : readsFirst_(place.manyInFlight), client_(mosquitto_new(name.c_str(), true, this)) {
        mosquitto_connect_callback_set(client_, [](mosquitto*, void* self, int result) {
            static_cast<Connection*>(self)->isConnected_ = result == 0;
        });
        mosquitto_subscribe_callback_set(client_, [](mosquitto*, void* self, int, int, const int*) {
            static_cast<Connection*>(self)->isSubscribed_ = true;
        });
        mosquitto_message_callback_set(
            client_, [](mosquitto*, void* self, const mosquitto_message* message) {
                static_cast<Connection*>(self)->take(*message);
            });
        check(mosquitto_connect(client_, socketOf(place).c_str(), 0, keepAliveS), "connecting");
        while (!isConnected_) {
            step(patienceMs);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        mosquitto_disconnect(client_);
        mosquitto_destroy(client_);
    }

    void subscribe(const std::string& topic) {
        isSubscribed_ = false;
        check(mosquitto_subscribe(client_, nullptr, topic.c_str(), 0), "subscribing");
        while (!isSubscribed_) {
            step(patienceMs);
        }
    }

    void publish(const std::string& topic, const std::string& payload) {
        check(mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                payload.data(), 0, false),
              "sending");
    }

    // Makes a receive on another thread fail.
    void shutDown() { ::shutdown(mosquitto_socket(client_), SHUT_RDWR); }

    // Good until the next call.
    const Message& receive(int timeoutMs) {
        if (readsFirst_ && messages_.empty()) {
            check(mosquitto_loop_read(client_, 1), "reading");
        }
        while (messages_.empty()) {
            step(timeoutMs);
        }
        last_ = std::move(messages_.front());
        messages_.pop_front();
        return last_;
    }

  private:
    // A packet at a time is read; what could not be written at once is written.
    void step(int timeoutMs) {
        const bool writes = mosquitto_want_write(client_);
        pollfd waited{mosquitto_socket(client_),
                      static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
        if (::poll(&waited, 1, timeoutMs) == 0) {
            throw std::runtime_error("nothing came in time");
        }
        if ((waited.revents & POLLOUT) != 0) {
            check(mosquitto_loop_write(client_, 1), "writing");
        }
        if ((waited.revents & ~POLLOUT) != 0) {
            check(mosquitto_loop_read(client_, 1), "reading");
        }
    }

    void take(const mosquitto_message& message) {
        messages_.push_back(
            {message.topic, std::string(static_cast<const char*>(message.payload),
                                        static_cast<std::size_t>(message.payloadlen))});
    }

    const bool readsFirst_;
    bool isConnected_ = false;
    bool isSubscribed_ = false;
    std::deque<Message> messages_;
    Message last_;
    mosquitto* client_;
};

std::string newName() {
    static std::atomic<int> count = 0;
    return std::to_string(::getpid()) + "-" + std::to_string(++count);
}

std::string eventsOf(const std::string& service) {
    return "bench/" + service + "/events";
}

const std::string responses = "bench/responses/";

class MqttClient : public Client {
  public:
    MqttClient(const Place& place, const std::string& service)
        : name_(newName()),
          topic_("bench/" + service + "/requests/" + name_),
          connection_(place, name_) {
        connection_.subscribe(responses + name_);
    }

    void send(const std::string& payload) override { connection_.publish(topic_, payload); }
    std::string_view receive() override { return connection_.receive(patienceMs).payload; }

  private:
    const std::string name_;
    const std::string topic_;
    Connection connection_;
};

class MqttCallbackClient : public CallbackClient {
  public:
    MqttCallbackClient(const Place& place, const std::string& service, MessageSink& sink)
        : name_(newName()),
          topic_("bench/" + service + "/requests/" + name_),
          sink_(sink),
          client_(mosquitto_new(name_.c_str(), true, this)) {
        mosquitto_connect_callback_set(client_, subscribe);
        mosquitto_subscribe_callback_set(client_, [](mosquitto*, void* self, int, int, const int*) {
            static_cast<MqttCallbackClient*>(self)->subscribed_.set_value();
        });
        mosquitto_message_callback_set(client_, take);
        check(mosquitto_connect(client_, socketOf(place).c_str(), 0, keepAliveS), "connecting");
        check(mosquitto_loop_start(client_), "starting the library's thread");
        if (subscribed_.get_future().wait_for(std::chrono::milliseconds(patienceMs)) !=
            std::future_status::ready) {
            throw std::runtime_error("subscribing took too long");
        }
    }
    ~MqttCallbackClient() override {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
    }

    void send(const std::string& payload) override {
        check(mosquitto_publish(client_, nullptr, topic_.c_str(), static_cast<int>(payload.size()),
                                payload.data(), 0, false),
              "sending");
    }

  private:
    static void subscribe(mosquitto* client, void* self, int result) {
        if (result == 0) {
            const std::string topic = responses + static_cast<MqttCallbackClient*>(self)->name_;
            mosquitto_subscribe(client, nullptr, topic.c_str(), 0);
        }
    }
    static void take(mosquitto*, void* self, const mosquitto_message* message) {
        failMeasurementOnException([&] {
            static_cast<MqttCallbackClient*>(self)->sink_.deliver(
                {static_cast<const char*>(message->payload),
                 static_cast<std::size_t>(message->payloadlen)});
        });
    }

    const std::string name_;
    const std::string topic_;
    MessageSink& sink_;
    std::promise<void> subscribed_;
    mosquitto* client_;
};

class MqttSubscriber {
  public:
    MqttSubscriber(const Place& place, const std::string& service) : connection_(place, newName()) {
        connection_.subscribe(eventsOf(service));
    }

    void receive(MessageSink& sink) { sink.deliver(connection_.receive(-1).payload); }
    void interrupt() { connection_.shutDown(); }

  private:
    Connection connection_;
};

class MqttAnswers : public Answers {
  public:
    MqttAnswers(Connection& connection, const std::string& service, std::string client)
        : connection_(connection), service_(service), client_(std::move(client)) {}

    void respond(const std::string& payload) override {
        connection_.publish(responses + client_, payload);
    }
    void publish(const std::string& payload) override {
        connection_.publish(eventsOf(service_), payload);
    }

  private:
    Connection& connection_;
    const std::string& service_;
    const std::string client_;
};

class MqttTransport : public Transport {
  public:
    MqttTransport() { mosquitto_lib_init(); }

    Child startServer(const Place& place) const override {
        std::ofstream(place.at("mosquitto.conf"))
            << "listener 0 " << socketOf(place)
            << "\nallow_anonymous true\nmax_connections -1\nmax_queued_messages 0\n"
               "max_inflight_messages 0\npersistence false\nlog_dest stderr\nlog_type error\n"
               "user "
            << (::getuid() == 0 ? "root" : "") << "\n";
        Child server({{"mosquitto", "-c", place.at("mosquitto.conf")}, place.at("mosquitto.log")});
        server.waitUntilReady([&] { return acceptsConnections(socketOf(place)); });
        return server;
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<MqttClient>(place, service);
    }

    std::unique_ptr<CallbackClient> connectCallback(const Place& place, const std::string& service,
                                                    MessageSink& sink) const override {
        return std::make_unique<MqttCallbackClient>(place, service, sink);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string& service,
                                            MessageSink& sink) const override {
        return std::make_unique<ThreadedSubscription<MqttSubscriber>>(sink, place, service);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        const std::string requests = "bench/" + service + "/requests/";
        Connection connection(place, "service-" + service);
        connection.subscribe(requests + "+");
        ready();
        while (true) {
            const Message& request = connection.receive(-1);
            MqttAnswers answers(connection, service, request.topic.substr(requests.size()));
            handler(request.payload, answers);
        }
    }
};

}  // namespace

std::unique_ptr<Transport> makeMqtt() {
    return std::make_unique<MqttTransport>();
}

}  // namespace kavri::bench
