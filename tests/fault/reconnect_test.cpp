// A broker that welcomes every connection and closes it at once: the library neither
// recurses nor hammers it, and everything works when the broker is in order again.
#define BOOST_TEST_MODULE reconnect

#include <boost/test/unit_test.hpp>

#include "support/scripted_connection.h"

using namespace kavri::tests;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Setting : ScriptedConnection {
    Setting() : ScriptedConnection(sendWithin(5000)) {}

    // The broker's part in so many connections, each of which it closes at once.
    void closeNext(int count) {
        for (int i = 0; i < count; ++i) {
            broker.acceptAndWelcome();
        }
    }
    // That requests, responses and events go through; of the thread with the callbacks.
    void expectWorks(const std::string& category) {
        Inbox events;
        Inbox responses;
        BOOST_TEST(initiator.onEvent(Inbox::event, &events) == good);
        BOOST_TEST(initiator.onResponse(Inbox::response, &responses) == good);
        peer.send(responseFrame(ask("request"), "request"));
        peer.send(makeFrame(FrameType::event, 0, {category, "x", {}, "payload"}));
        BOOST_TEST(responses.waitFor(1));
        BOOST_TEST(events.waitFor(1));
        BOOST_TEST(initiator.onResponse(nullptr, nullptr) == good);
        BOOST_TEST(initiator.onEvent(nullptr, nullptr) == good);
    }
};

// The pauses before the second, third … of connections that do not last.
std::chrono::milliseconds pausesBefore(int connections) {
    std::chrono::milliseconds sum{0};
    std::chrono::milliseconds pause = 10ms;
    for (int i = 0; i < connections; ++i) {
        sum += pause;
        pause = std::min(2 * pause, 1000ms);
    }
    return sum;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(shortLivedConnections, Setting)

BOOST_AUTO_TEST_CASE(areMadeAfterPausesThatGrowOnTheLibrarysThread) {
    constexpr int count = 8;
    Inbox events;
    subscribe("news");
    BOOST_TEST(initiator.onEvent(Inbox::event, &events) == good);
    const auto begin = Clock::now();
    peer.close();
    closeNext(count);
    // The first connection may have lasted a second on a busy machine: no pause follows it.
    BOOST_TEST((Clock::now() - begin >= pausesBefore(count - 1)));
    restoreNext(1);
    expectWorks("news");
}

BOOST_AUTO_TEST_CASE(endAReceiveWithoutLimitEachAfterPausesThatGrow) {
    constexpr int count = 7;
    subscribe("news");
    const auto begin = Clock::now();
    peer.close();
    auto closed = std::async(std::launch::async, [&] { closeNext(count); });
    // One for each connection that breaks during the call, whenever that shows.
    for (int i = 0; i < count + 1; ++i) {
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    }
    closed.get();
    BOOST_TEST((Clock::now() - begin >= pausesBefore(count - 1)));
    auto restored = std::async(std::launch::async, [&] { restoreNext(1); });
    BOOST_TEST(initiator.echo("connects") == good);
    restored.get();
    peer.send(makeFrame(FrameType::completion, peer.expect(FrameType::request).values.token));
    expectWorks("news");
}

BOOST_AUTO_TEST_CASE(areSpentWithinTheTimeOfASend) {
    subscribe("news");
    peer.close();
    auto closed = std::async(std::launch::async, [&] {
        closeNext(4);
        restoreNext(1);
        return peer.expect(FrameType::request).values.token;
    });
    // A send over a connection that turns out to be closed may fail, or have the outcome
    // unknown; one over the last connection does neither.
    std::size_t sent = 0;
    while (closed.wait_for(0s) != std::future_status::ready) {
        const kavri_core_status status = initiator.echo("request");
        BOOST_TEST((status == good || status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST));
        sent += status == good ? 1 : 0;
        initiator.receive(0);
    }
    BOOST_TEST(sent > 0U);
    closed.get();
}

BOOST_AUTO_TEST_CASE(restoreManySubscriptions) {
    const std::vector<std::string> categories = numbers(50);
    for (const std::string& category : categories) {
        subscribe(category);
    }
    Inbox events;
    BOOST_TEST(initiator.onEvent(Inbox::event, &events) == good);
    peer.close();
    for (int i = 0; i < 4; ++i) {
        broker.acceptAndWelcome().expect(FrameType::subscribe);
    }
    restoreNext(categories.size());
    expectWorks("49");
}

BOOST_AUTO_TEST_CASE(keepACallWithoutTimeFromWaiting) {
    peer.close();
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    // There is a pause to be waited for, or no time to connect.
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
}

BOOST_AUTO_TEST_CASE(endWhileTheLibraryPauses) {
    Inbox events;
    BOOST_TEST(initiator.onEvent(Inbox::event, &events) == good);
    peer.close();
    closeNext(6);
    BOOST_TEST(kavri_core_ipc_deinit(initiator.release()) == good);
    BOOST_TEST(haveFurtherThreads(0));
}

BOOST_AUTO_TEST_SUITE_END()
