// The round trips; see preflight.h.
#include "conformance/module/preflight.h"

#include <fmt/format.h>
#include <kavri/ipc.h>

#include <array>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

constexpr int answerTimeoutMs = 2000;
constexpr const char* category = "test";
constexpr const char* uuid = "preflight";

[[noreturn]] void cannotRun(const std::string& line) {
    throw process::CommandFailure(process::ExitStatus::couldNotRun, line);
}

// An initiator of our own library; what is wrong with the service ends it by an exception.
class Client {
  public:
    explicit Client(const std::string& socket) : socket_(socket) {
        kavri_core_ipc_options options{};
        options.sizeBytes = sizeof options;
        options.brokerAddress = socket.c_str();
        options.connectTimeoutMs = answerTimeoutMs;
        kavri_core_init();
        const kavri_core_status status =
            kavri_core_ipc_initiator_init(nullptr, &options, &initiator_);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            kavri_core_deinit();
            cannotRun(fmt::format(
                "the broker at {} does not serve: {}; is it stopped, or another program?", socket,
                kavri_core_status_text(status)));
        }
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        kavri_core_ipc_deinit(initiator_);
        kavri_core_deinit();
    }

    // The requests that were sent, as the service's record must have them.
    const CaseTraffic& traffic() const { return traffic_; }

    void send(const char* command, const char* payload) {
        const kavri_core_status status =
            kavri_core_ipc_initiator_command_send(initiator_, category, command, uuid, payload);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            fails(command, fmt::format("it cannot be sent: {}", kavri_core_status_text(status)));
        }
        traffic_.requests.push_back({category, command, uuid, payload});
    }

    void ask(const char* command, const char* payload, const std::string& expected) {
        send(command, payload);
        std::array<char*, 4> texts{};
        const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
            initiator_, answerTimeoutMs, &texts[0], &texts[1], &texts[2], &texts[3]);
        const auto textOf = [&texts](std::size_t i) {
            return texts.at(i) != nullptr ? std::string(texts.at(i)) : "";
        };
        const std::string answeredUuid = textOf(2);
        const std::string answer = textOf(3);
        for (char* text : texts) {
            std::free(text);
        }
        if (status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER) {
            cannotRun(
                fmt::format("the broker at {} has no test service: nobody serves category "
                            "\"{}\"; start the broker with --test-service, or run "
                            "'kavri-test-service --socket {}'",
                            socket_, category, socket_));
        }
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            fails(command, fmt::format("no answer: {}", kavri_core_status_text(status)));
        }
        if (answeredUuid != uuid || answer != expected) {
            fails(command, fmt::format("it is answered with payload \"{:.100}\" and uuid "
                                       "\"{:.100}\", not with \"{}\" and \"{}\"",
                                       answer, answeredUuid, expected, uuid));
        }
    }

    // Asks for one event, and waits for it.
    void awaitEvent() {
        const kavri_core_status status =
            kavri_core_ipc_initiator_event_subscribe(initiator_, category);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            fails("event", fmt::format("category \"{}\" cannot be subscribed to: {}", category,
                                       kavri_core_status_text(status)));
        }
        kavri_core_ipc_initiator_event_receive_callback(initiator_, eventArrived, this);
        send("event", "preflight");
        std::unique_lock lock(mutex_);
        const bool arrived = arrived_.wait_for(lock, std::chrono::milliseconds(answerTimeoutMs),
                                               [this] { return hasEvent_; });
        lock.unlock();
        kavri_core_ipc_initiator_event_receive_callback(initiator_, nullptr, nullptr);
        if (!arrived) {
            fails("event", "no event is published");
        }
    }

  private:
    static void eventArrived(char** eventCategory, char** identifier, char** payload,
                             void* client) {
        for (char** text : {eventCategory, identifier, payload}) {
            std::free(*text);
        }
        auto& self = *static_cast<Client*>(client);
        const std::lock_guard lock(self.mutex_);
        self.hasEvent_ = true;
        self.arrived_.notify_one();
    }

    [[noreturn]] void fails(const char* command, const std::string& how) const {
        cannotRun(
            fmt::format("the test service at {} does not do \"{}\": {}; the commands are in "
                        "kavri-test-service(1), which is such a service",
                        socket_, command, how));
    }

    std::string socket_;
    kavri_core_ipc_initiator* initiator_ = nullptr;
    CaseTraffic traffic_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    bool hasEvent_ = false;
};

}  // namespace

void checkTestService(const std::string& socket, ServiceEvidence* evidence,
                      const RunLimits& limits) {
    Client client(socket);
    client.ask("echo", "preflight", "preflight");
    client.ask("static_response", "preflight", "my static payload");
    client.send("clr_repeat_count", "preflight");
    client.send("inc_repeat_count", "preflight");
    client.ask("get_repeat_count", "preflight", "1");
    client.awaitEvent();
    if (evidence == nullptr) {
        return;
    }
    const auto deadline =
        ServiceEvidence::Clock::now() + std::chrono::milliseconds(answerTimeoutMs);
    const std::vector<std::string> wrong =
        evidence->compare(client.traffic(), deadline, limits.signals().descriptor());
    if (!wrong.empty()) {
        cannotRun(
            fmt::format("the service record is not that of the service at {}: {}; start "
                        "the broker or the service with --service-record and this file, "
                        "and let nobody else use it",
                        socket, wrong.front()));
    }
}

}  // namespace kavri::conformance
