// What a manager is told: what is in the reports, that they come in bounded rounds, and that
// neither who comes and goes meanwhile nor a manager who does not read does any harm.
#define BOOST_TEST_MODULE reports

#include "broker/management/reports.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <map>
#include <set>

#include "broker/hosted_test_service.h"
#include "support/conversation.h"

using namespace kavri::tests;
using kavri::broker::Reports;

namespace {

struct Report {
    std::string kind;
    std::string category;
    std::map<std::string, std::string> values;
};

std::map<std::string, std::string> valuesOf(std::string_view payload) {
    std::map<std::string, std::string> values;
    while (!payload.empty()) {
        const std::size_t end = payload.find('\n');
        BOOST_REQUIRE(end != std::string_view::npos);
        const std::string_view line = payload.substr(0, end);
        const std::size_t equals = line.find('=');
        BOOST_REQUIRE(equals != std::string_view::npos);
        values.emplace(line.substr(0, equals), line.substr(equals + 1));
        payload.remove_prefix(end + 1);
    }
    return values;
}

Frame query(std::uint64_t token) {
    return makeFrame(FrameType::query, token);
}

struct Managed : Conversation {
    using Conversation::Conversation;

    Session& manager = join("manager");

    // Goes on until nothing more is to be written.
    void advanceAll() {
        while (reports.hasWork()) {
            reports.advance();
        }
    }

    // All reports of a query; the manager reads as they come.
    std::vector<Report> reported(std::uint64_t token = 5) {
        say(manager, query(token));
        std::vector<Report> answer;
        std::string bytes;
        while (reports.hasWork()) {
            reports.advance();
            bytes += hearBytes(manager);
        }
        const std::vector<Frame> frames = framesIn(bytes);
        for (const Frame& frame : frames) {
            BOOST_TEST(frame.token == token);
            if (&frame == &frames.back()) {
                BOOST_TEST(describe(frame) == "acknowledgement " + std::to_string(token));
                break;
            }
            BOOST_REQUIRE((frame.type == FrameType::report));
            BOOST_TEST(frame[Field::payload].size() < 4096U);
            answer.push_back({std::string(frame[Field::identifier]),
                              std::string(frame[Field::category]),
                              valuesOf(frame[Field::payload])});
        }
        return answer;
    }
};

std::vector<Report> ofKind(const std::vector<Report>& reports, const std::string& kind) {
    std::vector<Report> found;
    std::ranges::copy_if(reports, std::back_inserter(found),
                         [&](const Report& report) { return report.kind == kind; });
    return found;
}

std::string value(const Report& report, const std::string& name) {
    const auto found = report.values.find(name);
    return found == report.values.end() ? "missing" : found->second;
}

std::string connectionOf(const Session& session) {
    return std::to_string(numberOf(session.id));
}

Report connection(const std::vector<Report>& reports, const Session& session) {
    for (const Report& report : ofKind(reports, "connection")) {
        if (value(report, "connection") == connectionOf(session)) {
            return report;
        }
    }
    BOOST_FAIL("the connection is not reported");
    return {};
}

}  // namespace

BOOST_AUTO_TEST_SUITE(content)

BOOST_FIXTURE_TEST_CASE(theBrokerComesFirst, Managed) {
    const Report broker = reported().at(0);
    BOOST_TEST(broker.kind == "broker");
    BOOST_TEST(value(broker, "format") == "1");
    BOOST_TEST(value(broker, "version") == "1.2.3");
    BOOST_TEST(value(broker, "process") == "4711");
    BOOST_TEST(value(broker, "user") == "1000");
    BOOST_TEST(broker.values.contains("uptime_ms"));
}

BOOST_FIXTURE_TEST_CASE(theLimitsAreThoseInForceByTheirNames, Managed) {
    const Report inForce = ofKind(reported(), "limits").at(0);
    BOOST_TEST(inForce.values.size() == 12U);
    BOOST_TEST(value(inForce, "send_queue_bytes") == std::to_string(queueLimit));
    BOOST_TEST(value(inForce, "open_requests_per_initiator") == "3");
    BOOST_TEST(value(inForce, "stall_ms") == "200");
}

BOOST_FIXTURE_TEST_CASE(connectionsThatEndedAreCountedByTheirReasons, Managed) {
    using kavri::broker::CloseCause;
    connections.accepted = 9;
    connections.most = 8;
    connections.aboveLimit = 7;
    connections.aboveLimitOfUser = 6;
    connections.notPermitted = 5;
    connections.closedBy(CloseCause::malformed) = 4;
    connections.closedBy(CloseCause::leftByPeer) = 3;
    const Report counts = ofKind(reported(), "connections").at(0);
    BOOST_TEST(value(counts, "present") == "42");
    BOOST_TEST(value(counts, "accepted") == "9");
    BOOST_TEST(value(counts, "most") == "8");
    BOOST_TEST(value(counts, "refused_connections") == "7");
    BOOST_TEST(value(counts, "refused_connections_per_user") == "6");
    BOOST_TEST(value(counts, "refused_not_permitted") == "5");
    BOOST_TEST(value(counts, "closed_malformed") == "4");
    BOOST_TEST(value(counts, "closed_by_peer") == "3");
    BOOST_TEST(value(counts, "closed_late_hello") == "0");
}

BOOST_FIXTURE_TEST_CASE(whatPassesIsCounted, Managed) {
    Session& first = subscriber("test");
    subscriber("test");
    say(service, response(ask(1)));
    say(service, completion(ask(2)));
    say(service, response(12345));  // was never asked
    say(service, publish("p"));
    sayBytes(service, encode(publish("a")) + encode(publish("b")));  // gathered
    say(service, publish("p", "another"));
    say(caller, request(3, "p", "nobody"));
    ask(4);
    leave(service);
    const Report counts = ofKind(reported(), "traffic").at(0);
    BOOST_TEST(value(counts, "requests") == "3");
    BOOST_TEST(value(counts, "responses") == "1");
    BOOST_TEST(value(counts, "completions") == "1");
    BOOST_TEST(value(counts, "events_published") == "3");
    BOOST_TEST(value(counts, "events_delivered") == "6");
    BOOST_TEST(value(counts, "notices_no_responder") == "1");
    BOOST_TEST(value(counts, "notices_responder_lost") == "1");
    BOOST_TEST(value(counts, "dropped_answers") == "1");
    BOOST_TEST(value(counts, "dropped_events") == "1");
    BOOST_TEST(value(counts, "notices_refused") == "0");
    BOOST_TEST(value(counts, "notices_overloaded") == "0");
    BOOST_TEST(!first.isClosing);
}

BOOST_AUTO_TEST_CASE(whatIsNotDeliveredIsCountedByTheReason) {
    kavri::broker::Policy policy;
    policy.categories["test"].send = {false, {someUser}};
    Managed managed(smallLimits(), policy);
    managed.say(managed.initiator(otherUser), request(1));
    const auto mostOpen = managed.limits.openRequestsPerInitiator;
    for (std::uint64_t token = 1; token <= mostOpen + 2; ++token) {
        managed.say(managed.caller, request(token));
    }
    const Report counts = ofKind(managed.reported(), "traffic").at(0);
    BOOST_TEST(value(counts, "requests") == std::to_string(mostOpen));
    BOOST_TEST(value(counts, "notices_refused") == "1");
    BOOST_TEST(value(counts, "notices_overloaded") == "2");
    BOOST_TEST(value(counts, "notices_no_responder") == "0");
    BOOST_TEST(value(counts, "notices_responder_lost") == "0");
}

BOOST_FIXTURE_TEST_CASE(whatTheBrokerAnswersItselfIsCountedToo, Managed) {
    kavri::broker::HostedTestService hosted{[](std::string_view) {}};
    router.embed("hosted", hosted);
    say(caller, makeFrame(FrameType::request, 1, {"hosted", "echo", "u", "p"}));
    say(caller, makeFrame(FrameType::request, 2, {"hosted", "event", "u", "p"}));
    const Report counts = ofKind(reported(), "traffic").at(0);
    BOOST_TEST(value(counts, "requests") == "2");
    BOOST_TEST(value(counts, "responses") == "1");
    BOOST_TEST(value(counts, "completions") == "1");
    BOOST_TEST(value(counts, "events_published") == "1");
}

BOOST_FIXTURE_TEST_CASE(aConnectionIsShownWithWhatItHasAndWhatItHolds, Managed) {
    service.process = 77;
    Session& watching = subscriber("news", otherUser);
    ask(1);
    ask(2);
    fill(service, 1000);
    const std::vector<Report> all = reported();
    const Report serving = connection(all, service);
    BOOST_TEST(serving.category == "test");
    BOOST_TEST(value(serving, "role") == "responder");
    BOOST_TEST(value(serving, "process") == "77");
    BOOST_TEST(value(serving, "user") == "1000");
    BOOST_TEST(value(serving, "requests_in_flight") == "2");
    BOOST_TEST(value(serving, "queued_bytes") == "1000");
    BOOST_TEST(value(serving, "congested") == "0");
    BOOST_TEST(value(serving, "stalled") == "0");
    BOOST_TEST(value(connection(all, caller), "pending_requests") == "2");
    BOOST_TEST(value(connection(all, caller), "waits_for") == "missing");
    BOOST_TEST(value(connection(all, watching), "subscriptions") == "1");
    BOOST_TEST(value(connection(all, watching), "user") == "1001");
    BOOST_TEST(value(connection(all, manager), "role") == "manager");
    Session& silent = connect();
    BOOST_TEST(value(connection(reported(), silent), "role") == "none");
}

BOOST_FIXTURE_TEST_CASE(whoWaitsForWhomIsShown, Managed) {
    fill(service, threeQuarters);
    BOOST_TEST(say(caller, request(1)) == &service);
    const std::vector<Report> waiting = reported();
    BOOST_TEST(value(connection(waiting, caller), "waits_for") == connectionOf(service));
    BOOST_TEST(value(connection(waiting, caller), "input_bytes") != "0");
    BOOST_TEST(value(connection(waiting, service), "congested") == "1");
    BOOST_TEST(value(connection(waiting, service), "stalled") == "0");
    giveUpOn(service);
    BOOST_TEST(value(connection(reported(), service), "stalled") == "1");
}

BOOST_FIXTURE_TEST_CASE(aCategoryIsShownOnceWhoeverServesItAndHoweverManySubscribe, Managed) {
    kavri::broker::HostedTestService hosted{[](std::string_view) {}};
    router.embed("hosted", hosted);
    subscriber("test");
    subscriber("test");
    subscriber("unserved");
    subscriber("unserved");
    subscriber("hosted");
    ask(1);
    std::map<std::string, Report> categories;
    const std::vector<Report> found = ofKind(reported(), "category");
    for (const Report& report : found) {
        categories[report.category] = report;
    }
    BOOST_TEST(found.size() == 3U);
    BOOST_REQUIRE(categories.size() == 3U);
    const Report& served = categories["test"];
    BOOST_TEST(value(served, "served_by") == "responder");
    BOOST_TEST(value(served, "connection") == connectionOf(service));
    BOOST_TEST(value(served, "requests_in_flight") == "1");
    BOOST_TEST(value(served, "subscribers") == "2");
    BOOST_TEST(value(categories["unserved"], "served_by") == "nobody");
    BOOST_TEST(value(categories["unserved"], "subscribers") == "2");
    BOOST_TEST(value(categories["hosted"], "served_by") == "broker");
    BOOST_TEST(value(categories["hosted"], "subscribers") == "1");
}

BOOST_FIXTURE_TEST_CASE(aNameIsCutAndItsLengthTold, Managed) {
    const std::string name = "\n\x1b[31m\xff=" + std::string(1000, 'n');
    Session& other = responder(name);
    const std::vector<Report> all = reported();
    BOOST_TEST(connection(all, other).category == name.substr(0, 256));
    const std::vector<Report> categories = ofKind(all, "category");
    const auto found = std::ranges::find(categories, name.substr(0, 256), &Report::category);
    BOOST_REQUIRE((found != categories.end()));
    BOOST_TEST(value(*found, "name_bytes") == std::to_string(name.size()));
}

BOOST_FIXTURE_TEST_CASE(aUserIsShownWithWhatIsHeldForHim, Managed) {
    Session& theirs = initiator(otherUser);
    std::map<std::string, Report> users;
    for (const Report& report : ofKind(reported(), "user")) {
        users[value(report, "user")] = report;
    }
    BOOST_REQUIRE(users.size() == 2U);
    BOOST_TEST(value(users["1001"], "bytes") == std::to_string(userBytes(otherUser)));
    leave(theirs);
    BOOST_TEST(ofKind(reported(), "user").size() == 1U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(rounds)

BOOST_FIXTURE_TEST_CASE(aRoundWritesABoundedNumberOfReports, Managed) {
    for (int i = 0; i < 300; ++i) {
        initiator();
    }
    say(manager, query(5));
    std::size_t frames = 0;
    while (reports.hasWork()) {
        reports.advance();
        const std::string bytes = hearBytes(manager);
        const std::size_t heard = framesIn(bytes).size();
        BOOST_TEST(heard <= Reports::stepsPerRound + 2);
        frames += heard;
    }
    BOOST_TEST(frames > 300U);
}

BOOST_FIXTURE_TEST_CASE(aManagerWhoDoesNotReadIsNotWrittenTo, Managed) {
    for (int i = 0; i < 1000; ++i) {
        initiator();
    }
    say(manager, query(5));
    advanceAll();
    const std::size_t queued = manager.sendQueue.bytes();
    BOOST_TEST(queued > Reports::mostQueuedBytes);
    BOOST_TEST(queued < Reports::mostQueuedBytes + 2 * 4096);
    const std::string before = hearBytes(manager);
    BOOST_TEST(reports.hasWork());
    reports.advance();
    BOOST_TEST(!manager.sendQueue.empty());
    BOOST_TEST(framesIn(before).size() < 1000U);
}

BOOST_FIXTURE_TEST_CASE(oneWhoDoesNotReadDelaysNoOther, Managed) {
    for (int i = 0; i < 1000; ++i) {
        initiator();
    }
    Session& idle = join("manager");
    say(idle, query(1));
    BOOST_TEST(ofKind(reported(), "connection").size() == 1004U);
}

BOOST_FIXTURE_TEST_CASE(aSecondQueryIsRefusedWhileTheFirstIsAnswered, Managed) {
    say(manager, query(5));
    say(manager, query(6));
    BOOST_TEST(hear(manager) == "acknowledgement 6 status=14");
    advanceAll();
    hearBytes(manager);
    BOOST_TEST(!reported(7).empty());
}

BOOST_FIXTURE_TEST_CASE(aManagerWhoLeavesIsForgotten, Managed) {
    say(manager, query(5));
    reports.advance();
    leave(manager);
    BOOST_TEST(!reports.hasWork());
    reports.advance();
}

BOOST_FIXTURE_TEST_CASE(aManagerThatIsBeingClosedIsNotWrittenTo, Managed) {
    say(manager, query(5));
    manager.isClosing = true;
    BOOST_TEST(!reports.hasWork());
    reports.advance();
    BOOST_TEST(manager.sendQueue.empty());
}

// In each round one leaves and another comes, at the same place of the table and elsewhere.
BOOST_FIXTURE_TEST_CASE(whoStaysIsShownOnceWhoeverComesAndGoes, Managed) {
    std::vector<Session*> staying;
    std::vector<Session*> leaving;
    for (int i = 0; i < 500; ++i) {
        (i % 2 == 0 ? staying : leaving).push_back(&subscriber("c" + std::to_string(i)));
    }
    say(manager, query(5));
    std::string bytes;
    while (reports.hasWork()) {
        reports.advance();
        if (!leaving.empty()) {
            leave(*leaving.back());
            leaving.pop_back();
            leave(*leaving.front());
            leaving.erase(leaving.begin());
            subscriber("new");
        }
        bytes += hearBytes(manager);
    }
    std::multiset<std::string> shown;
    for (const Frame& frame : framesIn(bytes)) {
        if (frame[Field::identifier] == "connection") {
            shown.insert(valuesOf(frame[Field::payload])["connection"]);
        }
    }
    for (const Session* session : staying) {
        BOOST_TEST(shown.count(connectionOf(*session)) == 1U);
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_CASE(aManagerThatIsCongestedHasToReadFirst, Managed) {
    fill(manager, threeQuarters);
    BOOST_TEST(say(manager, query(5)) == &manager);
    BOOST_TEST(!reports.hasWork());
    hearBytes(manager);
    resumeAllAt(manager);
    BOOST_TEST(reports.hasWork());
}
