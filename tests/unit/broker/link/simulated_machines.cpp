// Load and faults of a simulation, and what is asked of it at its end; see
// simulated_machines.h.
#include "simulated_machines.h"

#include <algorithm>
#include <utility>

#include "support/frames.h"

namespace kavri::tests {

namespace {

using namespace std::chrono_literals;

const std::vector<std::string> categories = {"one", "two", "three"};
constexpr auto stepTime = 20ms;
constexpr int stepsOfTrouble = 200;
// A lost broker is told within this; the rest is what the simulated network and its steps add.
constexpr auto lostIsTold = 3s + 300ms;

}  // namespace

SimulatedMachines::SimulatedMachines(std::uint64_t seed) : world_(seed) {
    world_.hub.leastDelay = std::chrono::microseconds(below(2000));
    world_.hub.mostDelay =
        world_.hub.leastDelay + std::chrono::microseconds(below(happens(300) ? 60000 : 3000));
    world_.hub.lostPerMille = happens(200) ? 1 + below(10) : 0;
    machines_.resize(2 + below(3));
    for (std::size_t machine = 0; machine < machines_.size(); ++machine) {
        startMachine(machine);
    }
    step(100ms);
}

void SimulatedMachines::run() {
    for (int i = 0; i < stepsOfTrouble; ++i) {
        makeTrouble();
        changePrograms();
        speak();
        step(stepTime);
    }
    makePeace();
    requireThatAllIsAnswered();
    requireThatNothingIsLeft();
}

void SimulatedMachines::require(bool holds, const std::string& what) {
    if (!holds) {
        throw Violation(what);
    }
}

void SimulatedMachines::startMachine(std::size_t machine) {
    machines_[machine].broker = &world_.start(linkOf(categories, {"*"}));
    addCaller(machine);
    addCaller(machine);
    addServer(machine, categories[below(categories.size())]);
    addListener(machine, categories[below(categories.size())]);
}

// What was pending with its initiators is unknown to them; what was with its responders has to
// be told to others.
void SimulatedMachines::killMachine(std::size_t machine) {
    ++totals_.faults;
    Due due{world_.hub.now + lostIsTold, {}};
    for (const Server& server : servers_) {
        if (server.machine == machine) {
            for (const Server::Asked& asked : server.asked) {
                due.requests.push_back(asked.request);
            }
        }
    }
    due_.push_back(std::move(due));
    for (Caller& caller : callers_) {
        if (caller.machine == machine) {
            end(caller);
        }
    }
    const auto isOfIt = [machine](const auto& each) { return each.machine == machine; };
    std::erase_if(callers_, isOfIt);
    std::erase_if(servers_, isOfIt);
    std::erase_if(listeners_, isOfIt);
    world_.kill(*std::exchange(machines_[machine].broker, nullptr));
}

void SimulatedMachines::addCaller(std::size_t machine) {
    Caller& caller = callers_.emplace_back();
    caller.number = ++lastNumber_;
    caller.machine = machine;
    caller.program = &machines_[machine].broker->initiator();
}

void SimulatedMachines::addServer(std::size_t machine, const std::string& category) {
    const broker::Category* const known = machines_[machine].broker->router.find(category);
    if (known != nullptr && known->isServed()) {
        return;
    }
    Server& server = servers_.emplace_back();
    server.number = ++lastNumber_;
    server.machine = machine;
    server.category = category;
    server.program = &machines_[machine].broker->responder(category);
    machineOfServer_[server.number] = machine;
}

void SimulatedMachines::addListener(std::size_t machine, const std::string& category) {
    Listener& listener = listeners_.emplace_back();
    listener.machine = machine;
    listener.program = &machines_[machine].broker->subscriber(category);
}

void SimulatedMachines::makeTrouble() {
    const std::size_t machine = below(machines_.size());
    LinkedBroker* const broker = machines_[machine].broker;
    if (broker == nullptr) {
        if (happens(20)) {
            startMachine(machine);
        }
        return;
    }
    LinkedBroker* const other = machines_[below(machines_.size())].broker;
    world_.hub.asksBeyondCuts = happens(500);
    if (happens(5)) {
        killMachine(machine);
    } else if (happens(10)) {
        ++totals_.faults;
        broker->bus.disconnect();
    } else if (happens(100)) {
        broker->bus.reconnect();
    } else if (happens(10) && other != nullptr && other != broker) {
        ++totals_.faults;
        world_.hub.cut(broker->bus.place, other->bus.place);
        if (happens(500)) {
            world_.hub.cut(other->bus.place, broker->bus.place);
        }
    } else if (happens(20)) {
        world_.hub.healAll();
    } else if (happens(20)) {
        broker->bus.mostFlushedBytes = happens(500) ? 0 : 1 + below(50000);
    } else if (happens(100)) {
        broker->bus.mostFlushedBytes = SIZE_MAX;
    }
}

void SimulatedMachines::changePrograms() {
    for (Caller& caller : callers_) {
        LinkedBroker& broker = *machines_[caller.machine].broker;
        if (happens(2)) {
            broker.leave(*caller.program);
        } else if (happens(5)) {
            caller.program->reads = false;
        } else if (happens(50)) {
            broker.resumeReading(*caller.program);
        }
    }
    for (Server& server : servers_) {
        LinkedBroker& broker = *machines_[server.machine].broker;
        if (happens(4)) {
            broker.leave(*server.program);
        } else if (happens(5)) {
            server.program->reads = false;
        } else if (happens(50)) {
            broker.resumeReading(*server.program);
        }
    }
    const std::size_t machine = below(machines_.size());
    if (machines_[machine].broker == nullptr) {
        return;
    }
    const std::string& category = categories[below(categories.size())];
    if (happens(30) && callers_.size() < 12) {
        addCaller(machine);
    } else if (happens(40)) {
        addServer(machine, category);
    } else if (happens(40) && listeners_.size() < 8) {
        addListener(machine, category);
    }
}

void SimulatedMachines::ask(Caller& caller, const std::string& category) {
    const std::uint64_t id = requests_.size();
    requests_.push_back({caller.machine, caller.number, false, std::nullopt, 0});
    caller.pending.insert(id);
    ++totals_.requests;
    std::string payload = std::to_string(id) + " " + std::to_string(caller.number) + " ";
    payload.append(happens(30) ? below(90000) : below(300), 'p');
    machines_[caller.machine].broker->say(
        *caller.program, makeFrame(FrameType::request, id, {category, "do", "u", payload}));
}

void SimulatedMachines::speak() {
    const std::uint64_t eagerness = happens(100) ? 20 : 3;
    for (Caller& caller : callers_) {
        for (std::uint64_t i = below(eagerness); i > 0 && caller.program->maySpeak(); --i) {
            ask(caller, categories[below(categories.size())]);
        }
    }
    for (Server& server : servers_) {
        answerSome(server, 400);
        for (std::uint64_t i = below(4); i > 0 && server.program->maySpeak(); --i) {
            publish(server);
        }
    }
}

void SimulatedMachines::publish(Server& server) {
    const std::string payload =
        std::to_string(server.number) + " " + std::to_string(server.events++);
    machines_[server.machine].broker->say(
        *server.program,
        makeFrame(FrameType::publish, 0, {server.category, "happened", {}, payload}));
}

// In any order; some by a completion.
void SimulatedMachines::answerSome(Server& server, std::uint64_t perThousand) {
    for (std::size_t i = 0; i < server.asked.size() && server.program->maySpeak();) {
        if (!happens(perThousand)) {
            ++i;
            continue;
        }
        const Server::Asked asked = server.asked[i];
        server.asked.erase(server.asked.begin() + static_cast<std::ptrdiff_t>(i));
        ++requests_[asked.request].answers;
        LinkedBroker& broker = *machines_[server.machine].broker;
        if (happens(100)) {
            broker.say(*server.program, makeFrame(FrameType::completion, asked.token));
            continue;
        }
        std::string payload = std::to_string(asked.request) + " " + std::to_string(server.number) +
                              " " + std::to_string(++server.answers) + " ";
        payload.append(happens(30) ? below(90000) : below(300), 'a');
        broker.say(*server.program, makeFrame(FrameType::response, asked.token,
                                              {server.category, "do", "u", payload}));
    }
}

void SimulatedMachines::step(broker::Clock::duration time) {
    world_.run(time, stepTime);
    hearAll();
    checkDue();
}

// Nothing fails any more, and everybody does his work.
void SimulatedMachines::makePeace() {
    world_.hub.healAll();
    world_.hub.lostPerMille = 0;
    world_.hub.asksBeyondCuts = false;
    for (std::size_t machine = 0; machine < machines_.size(); ++machine) {
        if (machines_[machine].broker == nullptr) {
            startMachine(machine);
        }
        machines_[machine].broker->bus.reconnect();
        machines_[machine].broker->bus.mostFlushedBytes = SIZE_MAX;
    }
    for (const std::string& category : categories) {
        addServer(below(machines_.size()), category);
    }
    for (int i = 0; i < 250; ++i) {
        for (Caller& caller : callers_) {
            machines_[caller.machine].broker->resumeReading(*caller.program);
        }
        for (Server& server : servers_) {
            machines_[server.machine].broker->resumeReading(*server.program);
            answerSome(server, 1000);
        }
        step(stepTime);
    }
}

// Of what is asked now, each has its response, and the brokers have counted just these.
void SimulatedMachines::requireThatAllIsAnswered() {
    for (const Caller& caller : callers_) {
        require(caller.pending.empty(),
                "an initiator is left without an outcome: request " +
                    std::to_string(caller.pending.empty() ? 0 : *caller.pending.begin()));
    }
    std::vector<std::uint64_t> expected;
    for (std::size_t machine = 0; machine < machines_.size(); ++machine) {
        const broker::TrafficCounts& counts = machines_[machine].broker->router.counts();
        expected.push_back(counts.responses + counts.completions);
        addCaller(machine);
    }
    const std::uint64_t first = requests_.size();
    for (Caller& caller : callers_) {
        for (const std::string& category : categories) {
            ask(caller, category);
            world_.settle();  // a large one may have to wait for the one before
        }
    }
    const std::uint64_t answeredBefore = totals_.answered;
    for (int i = 0; i < 30; ++i) {
        for (Server& server : servers_) {
            answerSome(server, 1000);
        }
        step(stepTime);
    }
    require(totals_.answered - answeredBefore == requests_.size() - first,
            "of " + std::to_string(requests_.size() - first) + " requests in peace, " +
                std::to_string(totals_.answered - answeredBefore) + " were answered");
    for (std::uint64_t id = first; id < requests_.size(); ++id) {
        const std::size_t serving = machineOfServer_.at(*requests_[id].heardBy);
        ++expected[serving];
        expected[requests_[id].machine] += serving != requests_[id].machine ? 1 : 0;
    }
    for (std::size_t machine = 0; machine < machines_.size(); ++machine) {
        const broker::TrafficCounts& counts = machines_[machine].broker->router.counts();
        require(counts.responses + counts.completions == expected[machine],
                "a broker has not counted what was answered");
    }
}

void SimulatedMachines::requireThatNothingIsLeft() {
    for (const Caller& caller : callers_) {
        machines_[caller.machine].broker->leave(*caller.program);
    }
    for (const Server& server : servers_) {
        machines_[server.machine].broker->leave(*server.program);
    }
    for (const Listener& listener : listeners_) {
        machines_[listener.machine].broker->leave(*listener.program);
    }
    world_.run(13s, 250ms);
    hearAll();
    for (const Request& request : requests_) {
        require(request.hasOutcome, "a request has no outcome");
    }
    for (const Machine& machine : machines_) {
        LinkedBroker& broker = *machine.broker;
        require(broker.link->channels().size() == 0, "a channel is left");
        require(broker.link->neighbours().all().empty(), "an association is left");
        require(broker.userBytes(someUser) == 0, "something is left of a user");
        broker.stop();
        require(broker.userBytes(broker::linkUser) == 0, "something is left of the link");
    }
}

}  // namespace kavri::tests
