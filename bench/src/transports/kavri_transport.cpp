// Our own broker as a transport: with a service of its own process or with the
// broker's embedded test service, one call per message or batched; or two
// brokers as on two machines, with a message server each.
#include <kavri/ipc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "failure.h"
#include "session.h"
#include "transports/message_server.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

constexpr const char* identifier = "echo";
// As long as a uuid is; counts up, so that a response tells which it answers.
constexpr std::size_t uuidLength = 36;

// The clients' broker, and the services' where that is another one.
std::string socketOf(const Place& place) {
    return place.at("kavri.sock");
}
std::string farSocketOf(const Place& place) {
    return place.at("far.sock");
}

void check(kavri_core_status status, const char* what) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        throw std::runtime_error(std::string(what) + ": " + kavri_core_status_text(status));
    }
}

kavri_core_logging_cookie log() {
    static const kavri_core_logging_cookie cookie = [] {
        kavri_core_logging_cookie made = nullptr;
        check(kavri_core_init(), "init");
        check(kavri_core_logging_init("kavri-bench-measure", &made), "logging");
        return made;
    }();
    return cookie;
}

kavri_core_ipc_options optionsFor(const std::string& socket, bool gathers) {
    kavri_core_ipc_options options{};
    options.sizeBytes = sizeof options;
    options.brokerAddress = socket.c_str();
    options.gatherWrites = gathers ? 1 : 0;
    return options;
}

class Uuid {
  public:
    const char* text() const { return text_.data(); }
    void next() {
        for (std::size_t i = uuidLength; i > 0 && ++text_[i - 1] > '9'; --i) {
            text_[i - 1] = '0';
        }
    }

  private:
    std::string text_ = std::string(uuidLength, '0');
};

class Initiator {
  public:
    explicit Initiator(const Place& place) {
        const std::string socket = socketOf(place);
        kavri_core_ipc_options options = optionsFor(socket, false);
        check(kavri_core_ipc_initiator_init(log(), &options, &initiator_), "connecting");
    }
    Initiator(const Initiator&) = delete;
    Initiator& operator=(const Initiator&) = delete;
    // Waits for a callback under way.
    ~Initiator() { kavri_core_ipc_deinit(initiator_); }

    kavri_core_ipc_initiator* get() const { return initiator_; }
    void send(const std::string& category, const Uuid& uuid, const std::string& payload) const {
        check(kavri_core_ipc_initiator_command_send(initiator_, category.c_str(), identifier,
                                                    uuid.text(), payload.c_str()),
              "sending");
    }

  private:
    kavri_core_ipc_initiator* initiator_ = nullptr;
};

// Compares a response's uuid with the one after `expected`, which it becomes.
void checkOrder(std::string_view uuid, Uuid& expected) {
    expected.next();
    if (uuid != expected.text()) {
        throw std::runtime_error("a response came through out of order");
    }
}

class KavriClient : public Client {
  public:
    KavriClient(const Place& place, std::string category)
        : category_(std::move(category)), initiator_(place) {}

    ~KavriClient() override { release(); }

    void send(const std::string& payload) override {
        sent_.next();
        initiator_.send(category_, sent_, payload);
    }

    void sendBatch(std::span<const std::string> payloads) override {
        uuids_.resize(std::max(uuids_.size(), payloads.size()));
        commands_.clear();
        for (std::size_t i = 0; i < payloads.size(); ++i) {
            sent_.next();
            uuids_[i] = sent_;
            commands_.push_back(
                {category_.c_str(), identifier, uuids_[i].text(), payloads[i].c_str()});
        }
        std::size_t sent = 0;
        check(kavri_core_ipc_initiator_command_send_batch(initiator_.get(), commands_.data(),
                                                          commands_.size(), &sent),
              "sending");
    }

    std::string_view receive() override {
        release();
        check(kavri_core_ipc_initiator_response_receive(initiator_.get(), patienceMs, &fields_[0],
                                                        &fields_[1], &fields_[2], &fields_[3]),
              "receiving");
        checkOrder(fields_[2], received_);
        return fields_[3];
    }

  private:
    void release() {
        for (char*& field : fields_) {
            std::free(std::exchange(field, nullptr));
        }
    }

    const std::string category_;
    const Initiator initiator_;
    Uuid sent_;
    Uuid received_;
    std::vector<Uuid> uuids_;
    std::vector<kavri_core_ipc_command> commands_;
    std::array<char*, 4> fields_{};
};

class KavriCallbackClient : public CallbackClient {
  public:
    KavriCallbackClient(const Place& place, std::string category, MessageSink& sink)
        : category_(std::move(category)), sink_(sink), initiator_(place) {
        check(kavri_core_ipc_initiator_response_receive_callback(initiator_.get(), takeResponse,
                                                                 this),
              "installing the callback");
    }

    void send(const std::string& payload) override {
        sent_.next();
        initiator_.send(category_, sent_, payload);
    }

  private:
    static void takeResponse(char** category, char** name, char** uuid, char** payload,
                             void* context) {
        auto& self = *static_cast<KavriCallbackClient*>(context);
        failMeasurementOnException([&] {
            self.sink_.deliver(*payload);
            checkOrder(*uuid, self.received_);
        });
        for (char** field : {category, name, uuid, payload}) {
            std::free(*field);
        }
    }

    const std::string category_;
    MessageSink& sink_;
    Uuid sent_;
    Uuid received_;
    const Initiator initiator_;  // last: the callback uses the others until it is gone
};

void takeEvent(char** category, char** name, char** payload, void* context) {
    failMeasurementOnException([&] { static_cast<MessageSink*>(context)->deliver(*payload); });
    for (char** field : {category, name, payload}) {
        std::free(*field);
    }
}

class KavriSubscription : public Subscription {
  public:
    KavriSubscription(const Place& place, const std::string& category, MessageSink& sink)
        : initiator_(place) {
        check(kavri_core_ipc_initiator_event_receive_callback(initiator_.get(), takeEvent, &sink),
              "installing the callback");
        check(kavri_core_ipc_initiator_event_subscribe(initiator_.get(), category.c_str()),
              "subscribing");
    }

  private:
    const Initiator initiator_;
};

// A responder at work; its callback gets this.
struct Server {
    kavri_core_ipc_responder* responder = nullptr;
    const Handler* handler = nullptr;
};

class KavriAnswers : public Answers {
  public:
    KavriAnswers(kavri_core_ipc_responder* responder, kavri_core_ipc_request request,
                 const std::array<const char*, 3>& fields)
        : responder_(responder), request_(request), fields_(fields) {}

    void respond(const std::string& payload) override {
        check(kavri_core_ipc_responder_response_send(responder_, request_, fields_[0], fields_[1],
                                                     fields_[2], payload.c_str()),
              "answering");
    }
    void publish(const std::string& payload) override {
        check(kavri_core_ipc_responder_event_publish(responder_, fields_[0], "event",
                                                     payload.c_str()),
              "publishing");
    }

  private:
    kavri_core_ipc_responder* responder_;
    const kavri_core_ipc_request request_;
    const std::array<const char*, 3> fields_;
};

void answer(kavri_core_ipc_request request, char** category, char** name, char** uuid,
            char** payload, void* context) {
    const auto& server = *static_cast<const Server*>(context);
    KavriAnswers answers(server.responder, request, {*category, *name, *uuid});
    failMeasurementOnException([&] { (*server.handler)(*payload, answers); });
    for (char** field : {category, name, uuid, payload}) {
        std::free(*field);
    }
}

// Whatever is measured may cross the link.
std::string linkSettings(const Place& place, const std::string& server) {
    std::string categories;
    std::string rights;
    for (const std::string category : {serviceName, otherServiceName}) {
        categories += "\"" + category + "\", ";
        rights += "[access.category.\"" + category + "\"]\nserve = [\"*\", \"@link\"]\n";
    }
    return "[link]\nservers = [\"" + addressOfServer(place, server) + "\"]\nname = \"" + server +
           "\"\nexport = [" + categories + "]\nimport = [" + categories + "]\n" + rights;
}

Child startBroker(const std::string& socket, const std::string& settings, bool hasTestService) {
    const std::string configuration = socket + ".toml";
    std::ofstream(configuration) << "[limits]\nconnections = 8192\nconnections_per_user = 8192\n" +
                                        settings;
    const std::string program = KAVRI_BIN_DIR "/kavri-broker";
    std::vector<std::string> command{program, "--socket", socket, "--config", configuration};
    if (hasTestService) {
        command.emplace_back("--test-service");
    }
    Child broker({command, socket + ".log"});
    broker.waitUntilReady([&] { return acceptsConnections(socket); });
    return broker;
}

class KavriTransport : public Transport {
  public:
    KavriTransport(bool isEmbedded, bool isBatched, Link link)
        : isEmbedded_(isEmbedded), isBatched_(isBatched), link_(link) {}

    bool isServiceInside() const override { return isEmbedded_; }
    bool isBatched() const override { return isBatched_; }

    std::vector<Child> startOthers(const Place& place) const override {
        std::vector<Child> others;
        if (link_ == Link::none) {
            return others;
        }
        others.push_back(startMessageServer(place, farServer));
        others.push_back(startJoinedServer(place, nearServer, farServer));
        if (link_ == Link::used) {
            others.push_back(
                startBroker(farSocketOf(place), linkSettings(place, farServer), false));
        }
        return others;
    }

    Child startServer(const Place& place) const override {
        return startBroker(socketOf(place),
                           link_ == Link::none ? "" : linkSettings(place, nearServer), isEmbedded_);
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<KavriClient>(place, isEmbedded_ ? "test" : service);
    }

    std::unique_ptr<CallbackClient> connectCallback(const Place& place, const std::string& service,
                                                    MessageSink& sink) const override {
        return std::make_unique<KavriCallbackClient>(place, isEmbedded_ ? "test" : service, sink);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string& service,
                                            MessageSink& sink) const override {
        return std::make_unique<KavriSubscription>(place, isEmbedded_ ? "test" : service, sink);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        const std::string socket = link_ == Link::used ? farSocketOf(place) : socketOf(place);
        kavri_core_ipc_options options = optionsFor(socket, isBatched_);
        Server server{nullptr, &handler};
        check(kavri_core_ipc_responder_init(log(), &options, service.c_str(), &server.responder),
              "serving");
        check(kavri_core_ipc_responder_request_receive_callback(server.responder, answer, &server),
              "installing the callback");
        ready();
        while (true) {
            ::pause();
        }
    }

    void waitForService(const Place& place, const std::string& service) const override {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patienceMs);
        while (link_ == Link::used && !isReached(place, service)) {
            if (std::chrono::steady_clock::now() >= end) {
                throw std::runtime_error("the service is not reached over the link");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

  private:
    static bool isReached(const Place& place, const std::string& service) {
        KavriClient client(place, service);
        client.send("is anybody there?");
        try {
            client.receive();
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }

    const bool isEmbedded_;
    const bool isBatched_;
    const Link link_;
};

}  // namespace

std::unique_ptr<Transport> makeKavri(bool isEmbedded, bool isBatched, Link link) {
    return std::make_unique<KavriTransport>(isEmbedded, isBatched, link);
}

}  // namespace kavri::bench
