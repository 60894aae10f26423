// Turns at reading, and what interrupts them.
#define BOOST_TEST_MODULE readTurn

#include "core/endpoint/read_turn.h"

#include <boost/test/unit_test.hpp>

#include "core/endpoint/receive_budget.h"

using kavri::core::ReadTurn;
using kavri::core::ReceiveBudget;
using kavri::core::Waker;

namespace {

struct Turn {
    Waker waker;
    ReadTurn turn{waker};
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(readTurn, Turn)

BOOST_AUTO_TEST_CASE(aTurnIsFreeButBetweenItsBeginAndItsEnd) {
    BOOST_TEST(turn.isFree());
    turn.begin();
    BOOST_TEST(!turn.isFree());
    turn.end();
    BOOST_TEST(turn.isFree());
}

BOOST_AUTO_TEST_CASE(theThreadThatReadsIsWoken) {
    turn.begin();
    turn.interrupt();
    BOOST_TEST(waker.isWoken());
    BOOST_TEST(!turn.isFree());
}

BOOST_AUTO_TEST_CASE(theEndOfItsTurnUndoesTheWakeUp) {
    turn.begin();
    turn.interrupt();
    turn.interrupt();
    turn.end();
    BOOST_TEST(!waker.isWoken());
    BOOST_TEST(turn.isFree());
}

BOOST_AUTO_TEST_CASE(withoutAReaderNothingIsWoken) {
    turn.interrupt();
    BOOST_TEST(!waker.isWoken());
    turn.begin();
    BOOST_TEST(!waker.isWoken());
}

BOOST_AUTO_TEST_CASE(aTurnLeavesWakeUpsThatAreNotForIt) {
    turn.begin();
    waker.wake();  // for good: the endpoint ends
    turn.end();
    BOOST_TEST(waker.isWoken());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_CASE(aBudgetIsUsedUpAtItsLimit) {
    ReceiveBudget budget;
    budget.queued(kavri::wire::libraryQueueBytes - 1);
    BOOST_TEST(!budget.isUsedUp());
    budget.queued(1);
    BOOST_TEST(budget.isUsedUp());
}

BOOST_AUTO_TEST_CASE(onlyTheMessageThatMakesRoomReportsIt) {
    ReceiveBudget budget;
    budget.queued(kavri::wire::libraryQueueBytes + 10);
    BOOST_TEST(!budget.dequeued(5));
    BOOST_TEST(!budget.dequeued(5));
    BOOST_TEST(budget.dequeued(1));
    BOOST_TEST(!budget.dequeued(1));
}
