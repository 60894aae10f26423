// Which failures a caller receives, and when.
#define BOOST_TEST_MODULE corePendingRequests

#include "core/pending_requests.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <optional>
#include <random>
#include <vector>

using kavri::core::PendingRequests;

namespace {

constexpr auto noResponder = KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
constexpr auto lost = KAVRI_CORE_STATUS_IPC_RESPONDER_LOST;
constexpr auto connectionLost = KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;

struct Requests : PendingRequests {
    using PendingRequests::add;
    void add(std::size_t count) { add(std::vector<kavri::wire::Frame>(count)); }
    std::uint64_t send() {
        const std::uint64_t token = nextToken();
        add(1);
        return token;
    }
};

// That keep the uuid of each.
struct RequestsWithUuids : PendingRequests {
    RequestsWithUuids() { keepUuids(); }
    std::uint64_t send(std::string_view uuid) {
        kavri::wire::Frame frame;
        frame[kavri::wire::Field::uuid] = uuid;
        const std::uint64_t token = nextToken();
        add({&frame, 1});
        return token;
    }
    // "uuid status" of the oldest outcome.
    std::string take() {
        const Outcome outcome = takeOutcome();
        return outcome.uuid + " " + std::to_string(outcome.status);
    }
};

// The same, remembering everything and looking at all of it each time.
class NaiveRequests {
  public:
    std::uint64_t nextToken() const { return sent_.size() + 1; }
    void add() { sent_.push_back({true, std::nullopt}); }

    bool close(std::uint64_t token) {
        if (token < 1 || token > sent_.size() || !sent_[token - 1].open) {
            return false;
        }
        sent_[token - 1].open = false;
        return true;
    }
    void fail(std::uint64_t token, kavri_core_status status) {
        if (close(token)) {
            sent_[token - 1].failure = status;
        }
    }
    void failAll(kavri_core_status status) {
        for (std::uint64_t token = 1; token <= sent_.size(); ++token) {
            fail(token, status);
        }
    }
    void takeBack(std::size_t count) {
        for (std::size_t i = sent_.size() - count; i < sent_.size(); ++i) {
            sent_[i] = {false, std::nullopt};
        }
    }
    bool hasFailure() const { return receivable() != sent_.size(); }
    kavri_core_status takeFailure() { return *std::exchange(sent_[receivable()].failure, {}); }

  private:
    struct Sent {
        bool open;
        std::optional<kavri_core_status> failure;
    };

    // The index of the oldest failure behind which no request is pending, or the end.
    std::size_t receivable() const {
        std::size_t begin = sent_.size();
        while (begin > 0 && !sent_[begin - 1].open) {
            --begin;
        }
        while (begin < sent_.size() && !sent_[begin].failure) {
            ++begin;
        }
        return begin;
    }

    std::vector<Sent> sent_;
};

}  // namespace

BOOST_AUTO_TEST_CASE(tokensRiseByOneFromOne) {
    Requests requests;
    BOOST_TEST(requests.send() == 1U);
    BOOST_TEST(requests.send() == 2U);
    BOOST_TEST(requests.close(1));
    BOOST_TEST(requests.close(2));
    BOOST_TEST(requests.nextToken() == 3U);
    BOOST_TEST(requests.nextToken() == 3U);  // asking takes none
}

BOOST_AUTO_TEST_CASE(thereIsNoFailureAtFirst) {
    BOOST_TEST(!Requests().hasFailure());
}

BOOST_AUTO_TEST_CASE(anAnsweredRequestIsClosedOnce) {
    Requests requests;
    const auto token = requests.send();
    BOOST_TEST(requests.close(token));
    BOOST_TEST(!requests.close(token));
    BOOST_TEST(!requests.hasFailure());
}

BOOST_AUTO_TEST_CASE(aTokenThatWasNeverAssignedIsNotPending) {
    Requests requests;
    requests.send();
    for (const std::uint64_t token : {std::uint64_t{0}, std::uint64_t{2}, UINT64_MAX}) {
        BOOST_TEST(!requests.close(token));
        requests.fail(token, lost);
    }
    BOOST_TEST(!requests.hasFailure());
    BOOST_TEST(requests.close(1));
}

BOOST_AUTO_TEST_CASE(aFailureIsTakenOnce) {
    Requests requests;
    requests.fail(requests.send(), noResponder);
    BOOST_REQUIRE(requests.hasFailure());
    BOOST_TEST(requests.takeFailure() == noResponder);
    BOOST_TEST(!requests.hasFailure());
}

BOOST_AUTO_TEST_CASE(failuresAreTakenFromTheOldestOn) {
    Requests requests;
    const auto first = requests.send();
    const auto second = requests.send();
    requests.fail(second, lost);
    requests.fail(first, noResponder);
    BOOST_TEST(requests.takeFailure() == noResponder);
    BOOST_TEST(requests.takeFailure() == lost);
    BOOST_TEST(!requests.hasFailure());
}

BOOST_AUTO_TEST_CASE(aFailureWaitsWhileALaterRequestIsPending) {
    Requests requests;
    const auto failed = requests.send();
    const auto later = requests.send();
    requests.fail(failed, noResponder);
    BOOST_TEST(!requests.hasFailure());
    requests.close(later);
    BOOST_TEST(requests.hasFailure());
}

BOOST_AUTO_TEST_CASE(aFailureDoesNotWaitForAnEarlierRequest) {
    Requests requests;
    const auto neverAnswered = requests.send();
    requests.fail(requests.send(), lost);
    BOOST_TEST(requests.hasFailure());
    BOOST_TEST(requests.takeFailure() == lost);
    BOOST_TEST(requests.close(neverAnswered));
}

BOOST_AUTO_TEST_CASE(onlyFailuresBehindTheLatestPendingRequestAreReceivable) {
    Requests requests;
    const auto before = requests.send();
    const auto pending = requests.send();
    const auto behind = requests.send();
    requests.fail(before, noResponder);
    requests.fail(behind, lost);
    BOOST_TEST(requests.takeFailure() == lost);
    BOOST_TEST(!requests.hasFailure());
    requests.close(pending);
    BOOST_TEST(requests.takeFailure() == noResponder);
}

BOOST_AUTO_TEST_CASE(aRequestSentLaterDelaysAFailureNotYetTaken) {
    Requests requests;
    requests.fail(requests.send(), noResponder);
    const auto later = requests.send();
    BOOST_TEST(!requests.hasFailure());
    requests.close(later);
    BOOST_TEST(requests.takeFailure() == noResponder);
}

BOOST_AUTO_TEST_CASE(failingAllFailsPendingRequestsAndNoOthers) {
    Requests requests;
    const auto answered = requests.send();
    requests.send();
    const auto refused = requests.send();
    requests.send();
    requests.close(answered);
    requests.fail(refused, noResponder);
    requests.failAll(connectionLost);
    BOOST_TEST(requests.takeFailure() == connectionLost);
    BOOST_TEST(requests.takeFailure() == noResponder);
    BOOST_TEST(requests.takeFailure() == connectionLost);
    BOOST_TEST(!requests.hasFailure());
    BOOST_TEST(requests.nextToken() == 5U);
}

BOOST_AUTO_TEST_CASE(anOutcomeIsTakenWhateverElseIsPending) {
    RequestsWithUuids requests;
    requests.send("first");
    const auto failed = requests.send("failed");
    requests.send("last");
    BOOST_TEST(!requests.hasOutcome());
    requests.fail(failed, noResponder);
    BOOST_TEST(requests.take() == "failed 10");
    BOOST_TEST(!requests.hasOutcome());
    requests.failAll(connectionLost);
    BOOST_TEST(requests.take() == "first 12");
    BOOST_TEST(requests.take() == "last 12");
    BOOST_TEST(!requests.hasOutcome());
}

BOOST_AUTO_TEST_CASE(aRequestThatGetsNoAnswerIsAnOutcomeWhereUuidsAreKept) {
    RequestsWithUuids requests;
    const auto ended = requests.send("ended");
    BOOST_TEST(requests.close(requests.send("answered")));
    requests.complete(ended);
    requests.complete(ended);
    BOOST_TEST(requests.take() == "ended 0");
    BOOST_TEST(!requests.hasOutcome());

    Requests others;
    others.complete(others.send());
    BOOST_TEST(!others.hasFailure());
    BOOST_TEST(others.nextToken() == 2U);
}

BOOST_AUTO_TEST_CASE(aRequestThatWasTakenBackHasNoOutcome) {
    RequestsWithUuids requests;
    const auto kept = requests.send("kept");
    requests.send("taken back");
    requests.failAll(connectionLost);
    requests.takeBack(1);
    BOOST_TEST(requests.take() == "kept 12");
    BOOST_TEST(!requests.hasOutcome());
    BOOST_TEST(!requests.close(kept));
    BOOST_TEST(requests.close(requests.send("later")));
}

BOOST_AUTO_TEST_CASE(requestsCloseInAnyOrder) {
    std::vector<std::uint64_t> order = {1, 2, 3, 4, 5};
    do {
        Requests requests;
        for (std::size_t i = 0; i < order.size(); ++i) {
            requests.send();
        }
        requests.send();
        requests.fail(6, lost);
        for (const std::uint64_t token : order) {
            BOOST_REQUIRE(requests.close(token));
        }
        for (const std::uint64_t token : order) {
            BOOST_REQUIRE(!requests.close(token));
        }
        BOOST_REQUIRE(requests.hasFailure());
        BOOST_REQUIRE(requests.nextToken() == 7U);
    } while (std::ranges::next_permutation(order).found);
}

BOOST_AUTO_TEST_CASE(severalAreAddedAtOnce) {
    Requests requests;
    requests.add(3);
    BOOST_TEST(requests.nextToken() == 4U);
    requests.fail(1, noResponder);
    BOOST_TEST(!requests.hasFailure());
    BOOST_TEST(requests.close(3));
    BOOST_TEST(!requests.hasFailure());
    BOOST_TEST(requests.close(2));
    BOOST_TEST(requests.takeFailure() == noResponder);
}

BOOST_AUTO_TEST_CASE(requestsTakenBackAreNeitherPendingNorFailed) {
    Requests requests;
    const auto kept = requests.send();
    requests.add(3);
    requests.fail(kept, noResponder);
    requests.fail(3, lost);  // its failure came before it was taken back
    requests.takeBack(3);
    BOOST_TEST(requests.takeFailure() == noResponder);
    BOOST_TEST(!requests.hasFailure());
    for (const std::uint64_t token : {2, 3, 4}) {
        BOOST_TEST(!requests.close(token));
    }
    BOOST_TEST(requests.send() == 5U);  // their tokens are not assigned again
}

// A caller who never asks must not fill the memory.
BOOST_AUTO_TEST_CASE(theOldestOfTooManyFailuresAreDropped) {
    constexpr int kept = 65536;
    Requests requests;
    requests.fail(requests.send(), noResponder);
    for (int i = 0; i < kept; ++i) {
        requests.fail(requests.send(), lost);
    }
    int taken = 0;
    for (; requests.hasFailure(); ++taken) {
        BOOST_REQUIRE(requests.takeFailure() == lost);
    }
    BOOST_TEST(taken == kept);
}

BOOST_AUTO_TEST_CASE(itAgreesWithTheNaiveOneInRandomConversations) {
    std::mt19937 random(20240501);  // NOLINT(cert-msc51-cpp): the same every time
    constexpr std::array statuses = {noResponder, lost, KAVRI_CORE_STATUS_IPC_REFUSED};
    for (int round = 0; round < 200; ++round) {
        Requests requests;
        NaiveRequests naive;
        for (int step = 0; step < 200; ++step) {
            const std::uint64_t next = naive.nextToken();
            // Mostly recent ones, and some that are none.
            const std::uint64_t token = next - std::min<std::uint64_t>(random() % 12, next);
            const kavri_core_status status = statuses[random() % statuses.size()];
            switch (random() % 16) {
                case 0:
                    if (random() % 8 == 0) {
                        requests.failAll(connectionLost);
                        naive.failAll(connectionLost);
                    }
                    break;
                case 1: {
                    const std::uint64_t count = std::min<std::uint64_t>(random() % 3, next - 1);
                    requests.takeBack(count);
                    naive.takeBack(count);
                    break;
                }
                case 2:
                case 3:
                    requests.fail(token, status);
                    naive.fail(token, status);
                    break;
                case 4:
                case 5:
                    if (naive.hasFailure()) {
                        BOOST_REQUIRE(requests.takeFailure() == naive.takeFailure());
                    }
                    break;
                case 6:
                case 7:
                case 8:
                case 9:
                    BOOST_REQUIRE(requests.close(token) == naive.close(token));
                    break;
                case 10:
                    requests.add(2);
                    naive.add();
                    naive.add();
                    break;
                default:
                    requests.add(1);
                    naive.add();
                    break;
            }
            BOOST_REQUIRE(requests.nextToken() == naive.nextToken());
            BOOST_REQUIRE(requests.hasFailure() == naive.hasFailure());
        }
    }
}
