// Keeps requests under way to the test service of some machine, each with a uuid and a payload
// of its own, and writes down what became of each, a line on standard output:
//
//     UUID IDENTIFIER SENT_MS OUTCOME_MS OUTCOME
//
// in milliseconds of the monotonic clock. OUTCOME is a status by its number (0: answered with
// what was expected, or ended without an answer where that was expected), or a word for what
// must not happen: "wrong" (another payload), "again" (a second outcome), "stranger" (an
// outcome of what was never sent), "none" (no outcome long after the end).
//
// Usage: link_load SOCKET NAME IN_FLIGHT PAUSE_US
//
// PAUSE_US: between two requests, besides.
//
// Ends when standard input does.
#include <kavri/ipc.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds waitForTheRest{15};
// So that a category that nobody serves is asked for often, and not all the time.
constexpr std::chrono::milliseconds pauseAfterFailure{2};
// In turn; the service answers none but "echo".
constexpr std::array identifiers = {"inc_repeat_count", "event", "echo", "echo"};

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
}

struct Request {
    const char* identifier = nullptr;
    long long sentMs = 0;
    std::string outcome;  // empty while there is none
};

// What was sent, and what became of it.
class Ledger {
  public:
    explicit Ledger(std::size_t mostInFlight) : mostInFlight_(mostInFlight) {}

    void add(const std::string& uuid, const char* identifier) {
        std::unique_lock lock(mutex_);
        hasRoom_.wait(lock, [this] { return inFlight_ < mostInFlight_; });
        ++inFlight_;
        requests_[uuid] = {identifier, nowMs(), {}};
    }

    void settle(const std::string& uuid, const std::string& outcome) {
        const std::lock_guard lock(mutex_);
        const auto found = requests_.find(uuid);
        if (found == requests_.end()) {
            write(uuid, {"-", 0, {}}, "stranger");
            return;
        }
        Request& request = found->second;
        if (!request.outcome.empty()) {
            write(uuid, request, "again");
            return;
        }
        request.outcome = outcome;
        write(uuid, request, outcome);
        --inFlight_;
        hasRoom_.notify_one();
    }

    // A send that failed; where the connection broke, its outcome may have come before.
    void settleFailedSend(const std::string& uuid, kavri_core_status status) {
        {
            const std::lock_guard lock(mutex_);
            if (!requests_[uuid].outcome.empty()) {
                return;
            }
        }
        settle(uuid, std::to_string(status));
    }

    void finish() {
        std::unique_lock lock(mutex_);
        hasRoom_.wait_for(lock, waitForTheRest, [this] { return inFlight_ == 0; });
        for (const auto& [uuid, request] : requests_) {
            if (request.outcome.empty()) {
                write(uuid, request, "none");
            }
        }
    }

  private:
    static void write(const std::string& uuid, const Request& request, const std::string& outcome) {
        std::printf("%s %s %lld %lld %s\n", uuid.c_str(), request.identifier, request.sentMs,
                    nowMs(), outcome.c_str());
        std::fflush(stdout);
    }

    const std::size_t mostInFlight_;
    std::mutex mutex_;
    std::condition_variable hasRoom_;
    std::size_t inFlight_ = 0;
    std::unordered_map<std::string, Request> requests_;
};

std::string payloadOf(std::string_view uuid) {
    return "what " + std::string(uuid) + " asks";
}

struct Load {
    Ledger ledger;
    std::atomic<bool> lastFailed = false;
};

void takeResponse(char** category, char** identifier, char** uuid, char** payload, void* context) {
    auto& load = *static_cast<Load*>(context);
    const bool isRight = *payload != nullptr && *payload == payloadOf(*uuid);
    load.ledger.settle(*uuid, isRight ? "0" : "wrong");
    for (char** text : {category, identifier, uuid, payload}) {
        std::free(*text);
    }
}

void takeOutcome(const char* uuid, kavri_core_status status, void* context) {
    auto& load = *static_cast<Load*>(context);
    load.lastFailed = status != KAVRI_CORE_STATUS_NO_ERROR;
    load.ledger.settle(uuid, std::to_string(status));
}

void require(kavri_core_status status, const char* what) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        std::fprintf(stderr, "link_load: %s: %s\n", what, kavri_core_status_text(status));
        std::_Exit(1);
    }
}

kavri_core_ipc_initiator* connect(const char* socket, Load& load) {
    require(kavri_core_init(), "init");
    kavri_core_ipc_options options{};
    options.sizeBytes = sizeof options;
    options.brokerAddress = socket;
    options.outcomeCallback = takeOutcome;
    options.outcomeContext = &load;
    kavri_core_ipc_initiator* initiator = nullptr;
    require(kavri_core_ipc_initiator_init(nullptr, &options, &initiator), "connecting");
    require(kavri_core_ipc_initiator_response_receive_callback(initiator, takeResponse, &load),
            "installing the callback");
    return initiator;
}

bool isEnded() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    return ::poll(&input, 1, 0) != 0;
}

void run(kavri_core_ipc_initiator* initiator, Load& load, const std::string& name,
         std::chrono::microseconds pause) {
    for (unsigned number = 0; !isEnded(); ++number) {
        const std::string uuid = name + "-" + std::to_string(number);
        const char* identifier = identifiers[number % identifiers.size()];
        load.ledger.add(uuid, identifier);
        const kavri_core_status status = kavri_core_ipc_initiator_command_send(
            initiator, "test", identifier, uuid.c_str(), payloadOf(uuid).c_str());
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            load.ledger.settleFailedSend(uuid, status);
        }
        if (load.lastFailed.exchange(false) || status != KAVRI_CORE_STATUS_NO_ERROR) {
            std::this_thread::sleep_for(pauseAfterFailure);
        }
        if (pause.count() > 0) {
            std::this_thread::sleep_for(pause);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: link_load SOCKET NAME IN_FLIGHT PAUSE_US\n");
        return 64;
    }
    Load load{.ledger = Ledger(std::strtoul(argv[3], nullptr, 10))};
    kavri_core_ipc_initiator* const initiator = connect(argv[1], load);
    std::fprintf(stderr, "link_load: ready\n");
    run(initiator, load, argv[2], std::chrono::microseconds(std::atol(argv[4])));
    load.ledger.finish();
    kavri_core_ipc_deinit(initiator);
    kavri_core_deinit();
    return 0;
}
