// Asking the test service for an echo; see peer_check.h.
#include "conformance/agent/peer_check.h"

#include <kavri/ipc.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>

#include "conformance/agent/functions.h"
#include "conformance/agent/record.h"

namespace kavri::conformance {

namespace {

constexpr int answerTimeoutMs = 2000;
constexpr const char* askedUuid = "peer";
constexpr const char* askedPayload = "peer";

// Whether the service has answered, or was checked already.
std::atomic<bool> isSettled{false};

// No call of the module has this number: so a call of the check is recorded, for the
// case that it hangs, and is not mistaken for one of a case.
constexpr unsigned checkNumber = 0;

// Makes a call and returns what was wrong; empty where it succeeded.
template <typename Type, typename... Arguments>
std::string tried(Function function, Arguments... arguments) {
    recordCall(checkNumber, functionName(function), Json::object());
    const kavri_core_status status = real<Type>(function)(arguments...);
    recordReturn(checkNumber, Json{{"status", status}});
    return status == KAVRI_CORE_STATUS_NO_ERROR
               ? ""
               : std::string(functionName(function)) + " returned " + std::to_string(status);
}

class PeerCheck {
  public:
    PeerCheck() = default;
    PeerCheck(const PeerCheck&) = delete;
    PeerCheck& operator=(const PeerCheck&) = delete;

    // Shuts down what was initialised, as the module itself would.
    ~PeerCheck() {
        if (initiator_ != nullptr) {
            tried<decltype(kavri_core_ipc_deinit)>(Function::initiatorDeinit, initiator_);
        }
        if (cookie_ != nullptr) {
            tried<decltype(kavri_core_logging_deinit)>(Function::loggingDeinit, cookie_);
        }
        if (isUp_) {
            tried<decltype(kavri_core_deinit)>(Function::coreDeinit);
        }
        for (char* text : answer_) {
            std::free(text);
        }
    }

    // Why no service answers; empty where one does.
    std::string reason() {
        std::string wrong = comeUp();
        if (wrong.empty()) {
            const auto asked = std::chrono::steady_clock::now();
            wrong = ask();
            roundTrip_ = std::chrono::steady_clock::now() - asked;
        }
        return wrong.empty() ? compare() : wrong;
    }

    long roundTripUs() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(roundTrip_).count();
    }

  private:
    std::string comeUp() {
        std::string wrong = tried<decltype(kavri_core_init)>(Function::coreInit);
        isUp_ = wrong.empty();
        if (wrong.empty()) {
            wrong = tried<decltype(kavri_core_logging_init)>(Function::loggingInit, "peerCheck",
                                                             &cookie_);
        }
        if (wrong.empty()) {
            wrong = tried<decltype(kavri_core_ipc_initiator_init)>(Function::initiatorInit, cookie_,
                                                                   nullptr, &initiator_);
        }
        if (wrong.empty() && initiator_ == nullptr) {
            wrong = std::string(functionName(Function::initiatorInit)) + " stored no initiator";
        }
        return wrong;
    }

    std::string ask() {
        std::string wrong = tried<decltype(kavri_core_ipc_initiator_command_send)>(
            Function::commandSend, initiator_, "test", "echo", askedUuid, askedPayload);
        if (wrong.empty()) {
            wrong = tried<decltype(kavri_core_ipc_initiator_response_receive)>(
                Function::responseReceive, initiator_, answerTimeoutMs, &answer_[0], &answer_[1],
                &answer_[2], &answer_[3]);
        }
        return wrong;
    }

    std::string compare() const {
        const char* uuid = answer_[2];
        const char* payload = answer_[3];
        if (uuid == nullptr || payload == nullptr) {
            return "answered without a uuid or without a payload";
        }
        if (std::string_view(uuid) != askedUuid) {
            return "answered with another uuid";
        }
        return std::string_view(payload) != askedPayload ? "answered with another payload" : "";
    }

    bool isUp_ = false;
    kavri_core_logging_cookie cookie_ = nullptr;
    kavri_core_ipc_initiator* initiator_ = nullptr;
    std::array<char*, 4> answer_{};
    std::chrono::steady_clock::duration roundTrip_{};
};

}  // namespace

void notePeerSeen() {
    isSettled = true;
}

void checkPeerUnlessSeen() {
    if (isSettled.exchange(true) || environmentVariable("KAVRI_PROBE_CHECK_PEER") != "1") {
        return;
    }
    PeerCheck check;
    const std::string reason = check.reason();
    recordPeer(reason.empty(), reason.empty() ? Json{{"us", check.roundTripUs()}}
                                              : Json{{"reason", shortened(reason.c_str())}});
}

}  // namespace kavri::conformance
