// A random schedule of load and faults on several machines, decided by a seed, and what must
// hold whatever happens.
#ifndef KAVRI_TESTS_UNIT_BROKER_LINK_SIMULATED_MACHINES_H
#define KAVRI_TESTS_UNIT_BROKER_LINK_SIMULATED_MACHINES_H

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/linked_broker.h"

namespace kavri::tests {

// Something does not hold.
class Violation : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class SimulatedMachines {
  public:
    explicit SimulatedMachines(std::uint64_t seed);

    // Throws a Violation.
    void run();

    struct Totals {
        std::uint64_t requests = 0;
        std::uint64_t answered = 0;      // by a response or a completion
        std::uint64_t notDelivered = 0;  // told so
        std::uint64_t unknown = 0;       // told so, or its initiator's connection ended
        std::uint64_t crossed = 0;       // answered by another machine
        std::uint64_t events = 0;
        std::uint64_t faults = 0;
    };
    const Totals& totals() const { return totals_; }

  private:
    struct Machine {
        LinkedBroker* broker = nullptr;  // null while it is killed
    };
    struct Request {
        std::size_t machine = 0;  // of its initiator
        std::uint64_t caller = 0;
        bool hasOutcome = false;
        std::optional<std::uint64_t> heardBy;  // the responder
        std::uint64_t answers = 0;
    };
    // Programs. Each has a number of its own.
    struct Caller {
        std::uint64_t number = 0;
        std::size_t machine = 0;
        Program* program = nullptr;
        std::set<std::uint64_t> pending;
        std::map<std::uint64_t, std::uint64_t> latestAnswer;  // by responder
    };
    struct Server {
        std::uint64_t number = 0;
        std::size_t machine = 0;
        std::string category;
        Program* program = nullptr;
        struct Asked {
            std::uint64_t token = 0;
            std::uint64_t request = 0;
        };
        std::vector<Asked> asked;
        std::map<std::uint64_t, std::uint64_t> latestRequest;  // by caller
        std::uint64_t answers = 0;
        std::uint64_t events = 0;
    };
    struct Listener {
        std::size_t machine = 0;
        Program* program = nullptr;
        std::map<std::uint64_t, std::uint64_t> nextEvent;  // by publisher
    };
    // What has to have an outcome by then: its responder's broker was killed.
    struct Due {
        broker::Clock::time_point time;
        std::vector<std::uint64_t> requests;
    };

    std::uint64_t below(std::uint64_t limit) { return world_.hub.below(limit); }
    bool happens(std::uint64_t perThousand) { return below(1000) < perThousand; }
    static void require(bool holds, const std::string& what);

    void startMachine(std::size_t machine);
    void killMachine(std::size_t machine);
    void addCaller(std::size_t machine);
    void addServer(std::size_t machine, const std::string& category);
    void addListener(std::size_t machine, const std::string& category);

    void makeTrouble();
    void changePrograms();
    void ask(Caller& caller, const std::string& category);
    void speak();
    void publish(Server& server);
    void answerSome(Server& server, std::uint64_t perThousand);
    void step(broker::Clock::duration time);

    void hearAll();
    bool hear(Caller& caller);
    void takeAnswer(Caller& caller, const Frame& frame);
    void takeResponse(Caller& caller, const Frame& frame, std::uint64_t request);
    bool hear(Server& server);
    bool hear(Listener& listener);
    void end(Caller& caller);
    void checkDue();

    void makePeace();
    void requireThatAllIsAnswered();
    void requireThatNothingIsLeft();

    LinkedWorld world_;
    std::vector<Machine> machines_;
    std::list<Caller> callers_;
    std::list<Server> servers_;
    std::list<Listener> listeners_;
    std::map<std::uint64_t, std::size_t> machineOfServer_;
    std::vector<Request> requests_;
    std::vector<Due> due_;
    std::uint64_t lastNumber_ = 0;
    Totals totals_;
};

}  // namespace kavri::tests

#endif
