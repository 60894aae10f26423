// Which sessions are written to in a round, and in which order.
#define BOOST_TEST_MODULE writeLists

#include "broker/routing/write_lists.h"

#include <boost/test/unit_test.hpp>
#include <string>

#include "support/scripted_broker.h"

using namespace kavri::tests;
using kavri::broker::Receivers;
using kavri::broker::WriteLists;

namespace {

struct Setting {
    ScriptedBroker broker;
    Session& alone = broker.initiator();
    Session& first = broker.subscriber("news");
    Session& second = broker.subscriber("news");
    Session& third = broker.subscriber("news");
    WriteLists& lists = broker.router.toWrite();
    std::vector<Session*> written;

    void writeOfOne() {
        lists.writeAllOfOne([this](Session& session) { written.push_back(&session); });
    }
    void writeOfMany(std::size_t most) {
        lists.writeSomeOfMany(most, [this](Session& session) { written.push_back(&session); });
    }
    void expectWritten(const std::vector<Session*>& expected) {
        BOOST_TEST(written == expected, boost::test_tools::per_element());
        written.clear();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(listed, Setting)

BOOST_AUTO_TEST_CASE(aSessionIsListedOnce) {
    lists.add(alone, Receivers::one);
    lists.add(alone, Receivers::one);
    writeOfOne();
    expectWritten({&alone});
    BOOST_TEST(lists.empty());
}

BOOST_AUTO_TEST_CASE(manyAreWrittenToByAndByInTheirOrder) {
    for (Session* session : {&first, &second, &third}) {
        lists.add(*session, Receivers::many);
    }
    writeOfOne();
    expectWritten({});
    writeOfMany(2);
    expectWritten({&first, &second});
    lists.add(first, Receivers::many);
    writeOfMany(2);
    expectWritten({&third, &first});
    BOOST_TEST(lists.empty());
}

BOOST_AUTO_TEST_CASE(oneOfManyWithAnAnswerOfItsOwnIsNotDelayed) {
    lists.add(first, Receivers::many);
    lists.add(second, Receivers::many);
    lists.add(second, Receivers::one);
    writeOfOne();
    expectWritten({&second});
}

BOOST_AUTO_TEST_CASE(whoIsListedWhileWritingIsLeftForTheNextTime) {
    lists.add(alone, Receivers::one);
    lists.writeAllOfOne([this](Session& session) {
        written.push_back(&session);
        lists.add(session, Receivers::one);
    });
    expectWritten({&alone});
    writeOfOne();
    expectWritten({&alone});
}

BOOST_AUTO_TEST_CASE(aRemovedSessionIsInNeitherList) {
    lists.add(alone, Receivers::one);
    lists.add(alone, Receivers::many);
    lists.remove(alone);
    BOOST_TEST(lists.empty());
    lists.add(alone, Receivers::one);
    writeOfOne();
    expectWritten({&alone});
}

// Whoever publishes to several does not delay the answer to anybody else.
BOOST_AUTO_TEST_CASE(eventsForSeveralAreOfMany) {
    Session& responder = broker.responder("news");
    for (Session* session : {&alone, &first, &second, &third, &responder}) {
        lists.remove(*session);
    }
    broker.say(responder, makeFrame(FrameType::publish, 0,
                                    {.category = "news", .identifier = "x", .payload = "y"}));
    broker.say(alone, makeFrame(FrameType::ping, 1));
    writeOfOne();
    expectWritten({&alone});
    writeOfMany(3);
    expectWritten({&first, &second, &third});
}

BOOST_AUTO_TEST_SUITE_END()
