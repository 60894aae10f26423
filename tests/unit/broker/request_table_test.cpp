// The broker's table of the requests that responders have in hand.
#define BOOST_TEST_MODULE brokerRequestTable

#include "broker/routing/request_table.h"

#include <boost/test/unit_test.hpp>
#include <map>
#include <random>
#include <set>

using namespace kavri::broker;

namespace {

constexpr std::array<std::array<std::size_t, 3>, 6> ordersOfThree = {
    {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}}};

struct Table {
    UserAccount account;
    UserAccount initiatorsAccount;
    BufferPool pool;
    RequestTable requests;
    Session initiator{{7, 3}, 1001, initiatorsAccount, pool};
    Session first{{0, 0}, 1000, account, pool};
    Session second{{1, 0}, 1000, account, pool};

    // By the initiator's token, which says which request it is.
    std::uint64_t open(Session& responder, std::uint64_t initiatorToken) {
        return requests.open(responder, initiator, initiatorToken);
    }
    // What `responder` has in hand under the token; 0 for nothing.
    std::uint64_t found(const Session& responder, std::uint64_t token) const {
        const PendingRequest* known = requests.find(responder, token);
        return known == nullptr ? 0 : known->initiatorToken;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aRequestIsFoundByTheTokenItWasGiven, Table) {
    const auto token = open(first, 11);
    const PendingRequest* known = requests.find(first, token);
    BOOST_REQUIRE(known != nullptr);
    BOOST_TEST(known->initiatorToken == 11U);
    BOOST_TEST(known->initiator == &initiator);
    BOOST_TEST(initiator.asInitiator.pendingRequests == 1U);
    BOOST_TEST(first.asResponder.requestsInFlight == 1U);
}

BOOST_FIXTURE_TEST_CASE(nothingIsFoundUnderATokenThatWasNotGiven, Table) {
    const auto token = open(first, 11);
    for (const std::uint64_t other : {token + 1, token + (std::uint64_t{1} << 32U), UINT64_MAX,
                                      token ^ (std::uint64_t{1} << 63U)}) {
        BOOST_TEST(found(first, other) == 0U);
    }
}

BOOST_FIXTURE_TEST_CASE(anotherRespondersRequestIsNotFound, Table) {
    const auto token = open(first, 11);
    BOOST_TEST(found(second, token) == 0U);
    const Session sameIndexLater({first.id.index, first.id.generation + 1}, 1000, account, pool);
    BOOST_TEST(found(sameIndexLater, token) == 0U);
}

BOOST_FIXTURE_TEST_CASE(aClosedRequestIsNotFoundAgain, Table) {
    const auto token = open(first, 11);
    requests.close(token);
    BOOST_TEST(found(first, token) == 0U);
    BOOST_TEST(first.asResponder.requestsInFlight == 0U);
}

BOOST_FIXTURE_TEST_CASE(aTokenIsNotGivenOutAgain, Table) {
    std::set<std::uint64_t> given;
    for (std::uint64_t i = 1; i <= 1000; ++i) {
        const auto token = open(first, i);
        BOOST_REQUIRE(given.insert(token).second);
        requests.close(token);
    }
    for (const auto token : given) {
        BOOST_REQUIRE(found(first, token) == 0U);
    }
}

BOOST_FIXTURE_TEST_CASE(aSlotIsUsedAgain, Table) {
    const auto before = open(first, 11);
    requests.close(before);
    const auto after = open(second, 12);
    BOOST_TEST(static_cast<std::uint32_t>(before) == static_cast<std::uint32_t>(after));
    BOOST_TEST(found(first, before) == 0U);
    BOOST_TEST(found(second, before) == 0U);
    BOOST_TEST(found(second, after) == 12U);
}

BOOST_FIXTURE_TEST_CASE(requestsCloseInAnyOrderOfThree, Table) {
    for (const std::array<std::size_t, 3>& order : ordersOfThree) {
        const std::array<std::uint64_t, 3> tokens = {open(first, 1), open(first, 2),
                                                     open(first, 3)};
        std::size_t left = 3;
        for (const std::size_t which : order) {
            requests.close(tokens[which]);
            BOOST_TEST(first.asResponder.requestsInFlight == --left);
        }
        BOOST_TEST(!requests.closeAny(first).has_value());
    }
}

BOOST_FIXTURE_TEST_CASE(allOfOneResponderCanBeClosedAndNoneOfAnother, Table) {
    std::set<std::uint64_t> expected;
    std::vector<std::uint64_t> othersTokens;
    for (std::uint64_t i = 1; i <= 10; ++i) {
        open(first, i);
        expected.insert(i);
        othersTokens.push_back(open(second, 100 + i));
    }
    while (const auto closed = requests.closeAny(first)) {
        BOOST_TEST(expected.erase(closed->initiatorToken) == 1U);
    }
    BOOST_TEST(expected.empty());
    BOOST_TEST(first.asResponder.requestsInFlight == 0U);
    BOOST_TEST(second.asResponder.requestsInFlight == 10U);
    for (std::uint64_t i = 1; i <= 10; ++i) {
        BOOST_TEST(found(second, othersTokens[i - 1]) == 100 + i);
    }
}

BOOST_FIXTURE_TEST_CASE(aRequestClosedByTurnIsNotFoundUnderItsToken, Table) {
    const auto token = open(first, 11);
    BOOST_REQUIRE(requests.closeAny(first).has_value());
    BOOST_TEST(found(first, token) == 0U);
}

BOOST_FIXTURE_TEST_CASE(itAgreesWithAPlainMapWhateverHappens, Table) {
    std::mt19937 random(4711);  // NOLINT(cert-msc51-cpp): the same every time
    std::array<std::map<std::uint64_t, std::uint64_t>, 2> plain;
    std::vector<std::uint64_t> given;
    for (std::uint64_t step = 1; step <= 20000; ++step) {
        const std::size_t which = random() % 2;
        Session& responder = which == 0 ? first : second;
        auto& expected = plain[which];
        if (random() % 100 < 45) {
            given.push_back(open(responder, step));
            BOOST_REQUIRE(expected.emplace(given.back(), step).second);
        } else if (!given.empty()) {
            const auto token =
                given[given.size() - 1 - random() % std::min<std::size_t>(given.size(), 50)];
            const auto known = expected.find(token);
            BOOST_REQUIRE(found(responder, token) == (known == expected.end() ? 0 : known->second));
            if (known != expected.end()) {
                requests.close(token);
                expected.erase(known);
            }
        }
        BOOST_REQUIRE(responder.asResponder.requestsInFlight == expected.size());
    }
    for (const auto& [token, request] : plain[0]) {
        BOOST_REQUIRE(found(first, token) == request);
    }
}

// An initiator leaves.

BOOST_FIXTURE_TEST_CASE(whatALeaverSentIsPendingNoLonger, Table) {
    Session stays({8, 0}, 1001, initiatorsAccount, pool);
    const auto gone = open(first, 11);
    open(second, 12);
    const auto kept = requests.open(first, stays, 13);
    requests.abandonAll(initiator);
    BOOST_TEST(initiator.asInitiator.pendingRequests == 0U);
    BOOST_TEST(found(first, gone) == 0U);
    BOOST_TEST(first.asResponder.requestsInFlight == 1U);
    BOOST_TEST(second.asResponder.requestsInFlight == 0U);
    BOOST_TEST(first.asResponder.abandonedRequests == 1U);
    BOOST_TEST(second.asResponder.abandonedRequests == 1U);
    BOOST_TEST(found(first, kept) == 13U);
    requests.close(kept);
}

BOOST_FIXTURE_TEST_CASE(requestsLeaveTheInitiatorsListInAnyOrder, Table) {
    for (const std::array<std::size_t, 3>& order : ordersOfThree) {
        const std::array<std::uint64_t, 3> tokens = {open(first, 1), open(second, 2),
                                                     open(first, 3)};
        requests.close(tokens[order[0]]);
        requests.close(tokens[order[1]]);
        BOOST_TEST(initiator.asInitiator.pendingRequests == 1U);
        requests.abandonAll(initiator);
        BOOST_TEST(initiator.asInitiator.pendingRequests == 0U);
        BOOST_TEST(first.asResponder.requestsInFlight + second.asResponder.requestsInFlight == 0U);
    }
}

BOOST_FIXTURE_TEST_CASE(eachIsChargedToTheInitiatorsUserWhileItIsPending, Table) {
    const std::size_t before = initiatorsAccount.memory.bytes();
    const std::size_t respondersBefore = account.memory.bytes();
    const auto token = open(first, 11);
    open(first, 12);
    BOOST_TEST(initiatorsAccount.memory.bytes() == before + 2 * RequestTable::bytesEach);
    BOOST_TEST(account.memory.bytes() == respondersBefore);
    requests.close(token);
    BOOST_TEST(initiatorsAccount.memory.bytes() == before + RequestTable::bytesEach);
    requests.abandonAll(initiator);
    BOOST_TEST(initiatorsAccount.memory.bytes() == before);
}

BOOST_FIXTURE_TEST_CASE(theMemoryOfManyRequestsIsFreedWithThem, Table) {
    const auto stays = open(second, 1);
    const std::size_t before = requests.capacity();
    std::vector<std::uint64_t> tokens;
    for (std::uint64_t i = 0; i < 100'000; ++i) {
        tokens.push_back(open(first, i));
    }
    BOOST_TEST(requests.capacity() >= 100'000U);
    for (const auto token : tokens) {
        requests.close(token);
    }
    BOOST_TEST(requests.capacity() <= 2 * before);
    BOOST_TEST(found(first, tokens.back()) == 0U);
    BOOST_TEST(found(second, stays) == 1U);
    requests.close(stays);
}
