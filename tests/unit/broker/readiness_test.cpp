// Which sessions are reported as ready, and in what order: over pairs of sockets.
#define BOOST_TEST_MODULE readiness

#include "broker/loop/readiness.h"

#include <sys/socket.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <chrono>
#include <deque>
#include <set>

using namespace kavri::broker;

namespace {

// A session, and the socket of its peer.
struct Connected {
    Connected(std::uint32_t index, UserAccount& account, BufferPool& pool)
        : session({index, 0}, 1000, account, pool) {
        int ends[2];
        BOOST_REQUIRE(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
        session.descriptor = ends[0];
        peer = ends[1];
    }
    Connected(const Connected&) = delete;
    Connected& operator=(const Connected&) = delete;
    ~Connected() {
        ::close(session.descriptor);
        ::close(peer);
    }
    void send() const { BOOST_REQUIRE(::send(peer, "x", 1, 0) == 1); }

    Session session;
    int peer = -1;
};

struct Sessions {
    UserAccount account;
    BufferPool pool;
    std::deque<Connected> connected;
    Readiness readiness;

    Connected& connect() {
        Connected& made =
            connected.emplace_back(static_cast<std::uint32_t>(connected.size()), account, pool);
        BOOST_REQUIRE(readiness.watch(made.session, EPOLLIN));
        return made;
    }
    // One that has input and is in the bulk set.
    Connected& connectBulk() {
        Connected& made = connect();
        made.send();
        BOOST_REQUIRE(readiness.setBulk(made.session, true));
        return made;
    }
};

std::multiset<std::uint64_t> marksOf(std::span<const epoll_event> events) {
    std::multiset<std::uint64_t> marks;
    for (const epoll_event& event : events) {
        marks.insert(event.data.u64);
    }
    return marks;
}

using Marks = std::multiset<std::uint64_t>;

}  // namespace

BOOST_FIXTURE_TEST_CASE(aSessionWithInputIsReported, Sessions) {
    const Connected& one = connect();
    BOOST_TEST(!readiness.poll());
    one.send();
    BOOST_TEST(readiness.poll());
    BOOST_TEST(marksOf(readiness.events()) == Marks{markOf(one.session.id)});
}

BOOST_FIXTURE_TEST_CASE(bulkSessionsAreOneEventBesideTheOthers, Sessions) {
    for (int i = 0; i < 8; ++i) {
        connectBulk();
    }
    const Connected& other = connect();
    other.send();
    BOOST_TEST(readiness.poll());
    BOOST_TEST(marksOf(readiness.events()) == (Marks{markOf(other.session.id), bulkMark}));
}

BOOST_FIXTURE_TEST_CASE(eachBulkSessionHasItsTurnBeforeAnyHasASecondOne, Sessions) {
    Marks all;
    for (int i = 0; i < 8; ++i) {
        all.insert(markOf(connectBulk().session.id));
    }
    Marks taken;
    while (taken.size() < all.size()) {
        readiness.waitBulk();
        const auto events = readiness.bulkEvents();
        BOOST_REQUIRE(!events.empty());
        BOOST_TEST(events.size() < all.size());
        taken.merge(marksOf(events));
    }
    BOOST_TEST(taken == all);
}

BOOST_FIXTURE_TEST_CASE(aSessionThatIsNoLongerBulkIsReportedByItself, Sessions) {
    Connected& one = connectBulk();
    BOOST_TEST(readiness.setBulk(one.session, false));
    BOOST_TEST(readiness.poll());
    BOOST_TEST(marksOf(readiness.events()) == Marks{markOf(one.session.id)});
    readiness.waitBulk();
    BOOST_TEST(readiness.bulkEvents().empty());
}

BOOST_FIXTURE_TEST_CASE(aBulkSessionThatIsNotWatchedIsNotReported, Sessions) {
    Connected& one = connectBulk();
    BOOST_TEST(readiness.watch(one.session, 0));
    BOOST_TEST(!readiness.poll());
    BOOST_TEST(readiness.watch(one.session, EPOLLIN));
    BOOST_TEST(readiness.poll());
    BOOST_TEST(marksOf(readiness.events()) == Marks{bulkMark});
}

BOOST_FIXTURE_TEST_CASE(waitingEndsAtTheTimeWithoutAnEvent, Sessions) {
    const auto until = WakeTimer::Clock::now() + std::chrono::milliseconds(2);
    while (WakeTimer::Clock::now() < until) {
        BOOST_TEST(!readiness.wait(until));
    }
    BOOST_TEST(readiness.events().empty());
}

BOOST_FIXTURE_TEST_CASE(waitingEndsWithAnEventBeforeTheTime, Sessions) {
    connect().send();
    BOOST_TEST(readiness.wait(WakeTimer::Clock::now() + std::chrono::hours(1)));
}

// The timer of a wait that ended early ends a later wait.
BOOST_FIXTURE_TEST_CASE(anEarlierTimeStaysSet, Sessions) {
    const auto soon = WakeTimer::Clock::now() + std::chrono::milliseconds(2);
    Connected& one = connect();
    one.send();
    BOOST_TEST(readiness.wait(soon));
    BOOST_TEST(readiness.watch(one.session, 0));
    BOOST_TEST(!readiness.wait(soon + std::chrono::hours(1)));
    BOOST_TEST((WakeTimer::Clock::now() >= soon));
}

BOOST_FIXTURE_TEST_CASE(anEarlierTimeReplacesALaterOne, Sessions) {
    Connected& one = connect();
    one.send();
    BOOST_TEST(readiness.wait(WakeTimer::Clock::now() + std::chrono::hours(1)));
    BOOST_TEST(readiness.watch(one.session, 0));
    BOOST_TEST(!readiness.wait(WakeTimer::Clock::now() + std::chrono::milliseconds(2)));
}
