// What the programs of a simulation hear, and what must hold of that; see
// simulated_machines.h.
#include <sstream>
#include <utility>

#include "simulated_machines.h"
#include "support/frames.h"

namespace kavri::tests {

namespace {

std::uint64_t numberIn(std::istringstream& text) {
    std::uint64_t number = 0;
    if (!(text >> number)) {
        throw Violation("a payload that nobody sent: " + text.str().substr(0, 100));
    }
    return number;
}

bool isNotDelivered(std::uint16_t status) {
    switch (status) {
        case KAVRI_CORE_STATUS_IPC_NO_RESPONDER:
        case KAVRI_CORE_STATUS_IPC_REFUSED:
        case KAVRI_CORE_STATUS_IPC_OVERLOADED:
        case KAVRI_CORE_STATUS_IPC_TOO_LARGE:
            return true;
        default:
            return false;
    }
}

}  // namespace

void SimulatedMachines::hearAll() {
    std::erase_if(servers_, [this](Server& server) { return !hear(server); });
    std::erase_if(callers_, [this](Caller& caller) { return !hear(caller); });
    std::erase_if(listeners_, [this](Listener& listener) { return !hear(listener); });
}

// False where its connection has ended; likewise the others.
bool SimulatedMachines::hear(Caller& caller) {
    const std::string bytes = std::exchange(caller.program->heard, {});
    for (const Frame& frame : framesIn(bytes)) {
        if (frame.type != FrameType::goodbye) {
            takeAnswer(caller, frame);
        }
    }
    if (caller.program->session == nullptr) {
        end(caller);
    }
    return caller.program->session != nullptr;
}

void SimulatedMachines::takeAnswer(Caller& caller, const Frame& frame) {
    const std::uint64_t id = frame.token;
    const std::string name = "request " + std::to_string(id);
    require(id < requests_.size() && requests_[id].caller == caller.number,
            name + " is answered, and not its initiator's");
    require(caller.pending.erase(id) == 1, name + " has two outcomes");
    Request& request = requests_[id];
    request.hasOutcome = true;
    if (frame.type == FrameType::response) {
        takeResponse(caller, frame, id);
    } else if (frame.type == FrameType::completion) {
        require(request.answers == 1, name + " is completed, and its responder did not do so");
        ++totals_.answered;
    } else {
        require(frame.type == FrameType::notice, "a frame that no initiator gets");
        require(!isNotDelivered(frame.status) || !request.heardBy,
                name + " was delivered, and its initiator was told that it was not: status " +
                    std::to_string(frame.status));
        ++(isNotDelivered(frame.status) ? totals_.notDelivered : totals_.unknown);
        require(
            isNotDelivered(frame.status) || frame.status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST,
            name + " has an outcome that there is not");
    }
}

void SimulatedMachines::takeResponse(Caller& caller, const Frame& frame, std::uint64_t request) {
    std::istringstream payload{std::string(frame[wire::Field::payload])};
    const std::string name = "request " + std::to_string(request);
    require(numberIn(payload) == request, name + " has the answer to another");
    const std::uint64_t server = numberIn(payload);
    require(requests_[request].heardBy == server, name + " is answered by one who has not got it");
    require(requests_[request].answers == 1, name + " is answered more than once");
    const std::uint64_t number = numberIn(payload);
    std::uint64_t& latest = caller.latestAnswer[server];
    require(number > latest, name + ": the answers of a responder are out of order");
    latest = number;
    ++totals_.answered;
    totals_.crossed += machineOfServer_[server] != caller.machine ? 1 : 0;
}

void SimulatedMachines::end(Caller& caller) {
    for (const std::uint64_t request : caller.pending) {
        requests_[request].hasOutcome = true;
        ++totals_.unknown;
    }
    caller.pending.clear();
}

bool SimulatedMachines::hear(Server& server) {
    const std::string bytes = std::exchange(server.program->heard, {});
    for (const Frame& frame : framesIn(bytes)) {
        if (frame.type != FrameType::request) {
            continue;
        }
        require(frame[wire::Field::category] == server.category, "a request of another category");
        std::istringstream payload{std::string(frame[wire::Field::payload])};
        const std::uint64_t id = numberIn(payload);
        const std::uint64_t caller = numberIn(payload);
        const std::string name = "request " + std::to_string(id);
        require(!requests_[id].heardBy.has_value(), name + " is delivered twice");
        requests_[id].heardBy = server.number;
        const auto latest = server.latestRequest.find(caller);
        require(latest == server.latestRequest.end() || latest->second < id,
                name + ": the requests of an initiator are out of order");
        server.latestRequest[caller] = id;
        server.asked.push_back({frame.token, id});
    }
    return server.program->session != nullptr;
}

bool SimulatedMachines::hear(Listener& listener) {
    const std::string bytes = std::exchange(listener.program->heard, {});
    for (const Frame& frame : framesIn(bytes)) {
        if (frame.type != FrameType::event) {
            continue;
        }
        std::istringstream payload{std::string(frame[wire::Field::payload])};
        const std::uint64_t publisher = numberIn(payload);
        const std::uint64_t number = numberIn(payload);
        const auto next = listener.nextEvent.find(publisher);
        require(next == listener.nextEvent.end() || next->second == number,
                "event " + std::to_string(number) + " of publisher " + std::to_string(publisher) +
                    " comes in the place of another, and nobody was told");
        listener.nextEvent[publisher] = number + 1;
        ++totals_.events;
    }
    return listener.program->session != nullptr;
}

void SimulatedMachines::checkDue() {
    for (const Due& due : due_) {
        if (due.time <= world_.hub.now) {
            for (const std::uint64_t request : due.requests) {
                require(requests_[request].hasOutcome,
                        "request " + std::to_string(request) +
                            " is not told of, and its responder's broker is gone for 3 s");
            }
        }
    }
    std::erase_if(due_, [this](const Due& due) { return due.time <= world_.hub.now; });
}

}  // namespace kavri::tests
