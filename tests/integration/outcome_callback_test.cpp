// The outcome callback: what became of each request that gets no response, whatever else is
// pending.
#define BOOST_TEST_MODULE outcomeCallback

#include <boost/test/unit_test.hpp>
#include <map>

#include "support/scripted_connection.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

constexpr auto noResponder = KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
constexpr auto responderLost = KAVRI_CORE_STATUS_IPC_RESPONDER_LOST;
constexpr auto connectionLost = KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;

// The outcomes that a callback got, by uuid.
class Outcomes {
  public:
    static void callback(const char* uuid, kavri_core_status status, void* context) {
        auto& self = *static_cast<Outcomes*>(context);
        const std::lock_guard lock(self.mutex_);
        self.outcomes_.emplace(uuid, status);
    }
    kavri_core_ipc_options options() {
        kavri_core_ipc_options chosen{};
        chosen.outcomeCallback = callback;
        chosen.outcomeContext = this;
        return chosen;
    }

    std::size_t count() const {
        const std::lock_guard lock(mutex_);
        return outcomes_.size();
    }
    // What became of this one, once that is known, and of no other by the same uuid.
    kavri_core_status of(const std::string& uuid) const {
        BOOST_REQUIRE(eventually([&] {
            const std::lock_guard lock(mutex_);
            return outcomes_.contains(uuid);
        }));
        const std::lock_guard lock(mutex_);
        BOOST_TEST(outcomes_.count(uuid) == 1U);
        return outcomes_.find(uuid)->second;
    }

  private:
    mutable std::mutex mutex_;
    std::multimap<std::string, kavri_core_status> outcomes_;
};

// Made before the connection that it is called for.
struct WithOutcomes {
    Outcomes outcomes;
};

struct Scripted : WithOutcomes, ScriptedConnection {
    Scripted() : ScriptedConnection(outcomes.options()) {}
};

struct OfTheBroker : WithOutcomes, WithBroker {
    Initiator initiator{address, outcomes.options()};
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(ofTheBroker, OfTheBroker)

BOOST_AUTO_TEST_CASE(aRequestThatFailsIsToldWhileLaterOnesArePending) {
    Responder slow(address, "slow");
    BOOST_TEST(initiator.send("slow", "work", "before") == good);
    BOOST_TEST(initiator.send("nobody", "hello", "failed") == good);
    BOOST_TEST(initiator.send("slow", "work", "after") == good);
    BOOST_TEST(outcomes.of("failed") == noResponder);
    const Message before = slow.receive();
    BOOST_TEST(slow.answer(before, "done") == good);
    BOOST_TEST((initiator.receive().uuid == "before"));
    slow.end();
    BOOST_TEST(outcomes.of("after") == responderLost);
    BOOST_TEST(outcomes.count() == 2U);
}

BOOST_AUTO_TEST_CASE(aRequestThatItsResponderEndsHasNoErrorForAnOutcome) {
    Responder responder(address, "quiet");
    BOOST_TEST(initiator.send("quiet", "work", "ended") == good);
    const Message request = responder.receive();
    BOOST_TEST(kavri_core_ipc_responder_request_end(responder.get(), request.request) == good);
    BOOST_TEST(outcomes.of("ended") == good);
}

BOOST_AUTO_TEST_CASE(aReceiveReturnsNoOutcomeOfARequest) {
    BOOST_TEST(initiator.send("nobody", "hello", "failed") == good);
    BOOST_TEST(outcomes.of("failed") == noResponder);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(initiator.echoes("answered"));
    BOOST_TEST(outcomes.count() == 1U);
}

BOOST_AUTO_TEST_CASE(theCallbackMaySendAndTheOthersAreCalledBesideIt) {
    Inbox inbox;
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == good);
    BOOST_TEST(initiator.send("nobody", "hello", "failed") == good);
    BOOST_TEST(initiator.echo("answered") == good);
    BOOST_TEST(outcomes.of("failed") == noResponder);
    BOOST_TEST(inbox.waitFor(1));
    BOOST_TEST((inbox.messages()[0].uuid == "answered"));
}

BOOST_AUTO_TEST_CASE(aKilledBrokerLeavesEveryPendingRequestUnknown) {
    Responder slow(address, "slow");
    for (int i = 0; i < 300; ++i) {
        BOOST_TEST(initiator.send("slow", "work", std::to_string(i)) == good);
    }
    broker.kill();
    for (int i = 0; i < 300; ++i) {
        BOOST_TEST(outcomes.of(std::to_string(i)) == connectionLost);
    }
    broker.restart();
    BOOST_TEST(eventually([&] { return initiator.echo("again") == good; }));
    BOOST_TEST((initiator.receive().uuid == "again"));
}

BOOST_AUTO_TEST_CASE(aSendThatFailsIsReportedByItselfAlone) {
    broker.kill();
    BOOST_TEST(eventually(
        [&] { return initiator.echo("refused") == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE; }));
    broker.restart();
    BOOST_TEST(eventually([&] { return initiator.send("nobody", "hello", "failed") == good; }));
    BOOST_TEST(outcomes.of("failed") == noResponder);
    BOOST_TEST(outcomes.count() == 1U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(scripted, Scripted)

BOOST_AUTO_TEST_CASE(aSecondOutcomeOfARequestIsIgnored) {
    const std::uint64_t token = ask("once");
    const std::uint64_t other = ask("other");
    peer.send(makeFrame(FrameType::notice, token, {}, noResponder));
    peer.send(makeFrame(FrameType::completion, token));
    peer.send(makeFrame(FrameType::notice, other, {}, KAVRI_CORE_STATUS_IPC_REFUSED));
    BOOST_TEST(outcomes.of("other") == KAVRI_CORE_STATUS_IPC_REFUSED);
    BOOST_TEST(outcomes.of("once") == noResponder);
    BOOST_TEST(outcomes.count() == 2U);
}

BOOST_AUTO_TEST_SUITE_END()
