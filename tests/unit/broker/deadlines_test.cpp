// What is due when.
#define BOOST_TEST_MODULE deadlines

#include "broker/loop/deadlines.h"

#include <boost/test/unit_test.hpp>
#include <random>

using namespace kavri::broker;
using std::chrono::milliseconds;

namespace {

const Clock::time_point begin{};

Deadline at(int ms, std::uint32_t session = 0, DeadlineKind kind = DeadlineKind::drain) {
    return {begin + milliseconds(ms), kind, {session, 0}};
}

}  // namespace

BOOST_AUTO_TEST_CASE(nothingIsEverDueWithoutADeadline) {
    Deadlines deadlines;
    BOOST_TEST(!deadlines.next().has_value());
    BOOST_TEST(!deadlines.takeDue(Clock::time_point::max()).has_value());
}

BOOST_AUTO_TEST_CASE(aDeadlineIsDueFromItsMomentOn) {
    Deadlines deadlines;
    deadlines.set(at(10));
    BOOST_TEST(!deadlines.takeDue(begin + milliseconds(9)).has_value());
    BOOST_TEST((deadlines.next() == begin + milliseconds(10)));
    BOOST_TEST(deadlines.takeDue(begin + milliseconds(10)).has_value());
}

BOOST_AUTO_TEST_CASE(aDeadlineIsTakenOnce) {
    Deadlines deadlines;
    deadlines.set(at(10));
    BOOST_TEST(deadlines.takeDue(begin + milliseconds(20)).has_value());
    BOOST_TEST(!deadlines.takeDue(begin + milliseconds(20)).has_value());
    BOOST_TEST(!deadlines.next().has_value());
}

BOOST_AUTO_TEST_CASE(whatWasAddedComesBackWhole) {
    Deadlines deadlines;
    deadlines.set({begin + milliseconds(5), DeadlineKind::handshake, {42, 7}});
    const auto due = deadlines.takeDue(begin + milliseconds(5));
    BOOST_REQUIRE(due.has_value());
    BOOST_TEST((due->kind == DeadlineKind::handshake));
    BOOST_TEST((due->session == SessionId{42, 7}));
    BOOST_TEST((due->due == begin + milliseconds(5)));
}

BOOST_AUTO_TEST_CASE(theNextIsTheEarliestWhateverTheOrderOfAdding) {
    Deadlines deadlines;
    deadlines.set(at(30, 3));
    deadlines.set(at(10, 1));
    deadlines.set(at(20, 2));
    BOOST_TEST((deadlines.next() == begin + milliseconds(10)));
}

BOOST_AUTO_TEST_CASE(onlyWhatIsDueIsTaken) {
    Deadlines deadlines;
    deadlines.set(at(30, 3));
    deadlines.set(at(10, 1));
    deadlines.set(at(20, 2));
    const Clock::time_point now = begin + milliseconds(20);
    const auto first = deadlines.takeDue(now);
    const auto second = deadlines.takeDue(now);
    BOOST_REQUIRE((first && second));
    BOOST_TEST(first->session.index == 1U);
    BOOST_TEST(second->session.index == 2U);
    BOOST_TEST(!deadlines.takeDue(now).has_value());
    BOOST_TEST((deadlines.next() == begin + milliseconds(30)));
}

BOOST_AUTO_TEST_CASE(manyComeInTheOrderOfTheirTimeAndNoneIsLost) {
    std::mt19937 random(99);  // NOLINT(cert-msc51-cpp): the same every time
    Deadlines deadlines;
    constexpr std::uint32_t many = 1000;
    for (std::uint32_t i = 0; i < many; ++i) {
        deadlines.set(at(static_cast<int>(random() % 100), i));  // several at the same moment
    }
    std::vector<bool> seen(many);
    Clock::time_point last = begin;
    while (const auto due = deadlines.takeDue(begin + milliseconds(100))) {
        BOOST_REQUIRE(due->due >= last);
        BOOST_REQUIRE(!seen[due->session.index]);
        last = due->due;
        seen[due->session.index] = true;
    }
    BOOST_TEST(std::count(seen.begin(), seen.end(), true) == many);
}

BOOST_AUTO_TEST_CASE(aSessionHasOneDeadlineOfEachKind) {
    Deadlines deadlines;
    deadlines.set(at(10, 1));
    deadlines.set(at(30, 1));
    deadlines.set(at(20, 1, DeadlineKind::handshake));
    BOOST_TEST(deadlines.size() == 2U);
    const auto first = deadlines.takeDue(begin + milliseconds(40));
    const auto second = deadlines.takeDue(begin + milliseconds(40));
    BOOST_REQUIRE((first && second));
    BOOST_TEST((first->kind == DeadlineKind::handshake));
    BOOST_TEST((second->due == begin + milliseconds(30)));
}

BOOST_AUTO_TEST_CASE(aCancelledDeadlineIsGoneAndNoOtherIs) {
    Deadlines deadlines;
    deadlines.set(at(10, 1));
    deadlines.set(at(20, 1, DeadlineKind::handshake));
    deadlines.set(at(30, 2));
    deadlines.cancel(DeadlineKind::drain, {1, 0});
    deadlines.cancel(DeadlineKind::drain, {1, 0});
    BOOST_TEST(deadlines.size() == 2U);
    BOOST_TEST((deadlines.next() == begin + milliseconds(20)));
    BOOST_TEST((deadlines.takeDue(begin + milliseconds(20))->kind == DeadlineKind::handshake));
    BOOST_TEST((deadlines.takeDue(begin + milliseconds(30))->session == SessionId{2, 0}));
}
