// What one broker knows of another: the numbers of the messages each way, and when the other
// is lost or forgotten.
#define BOOST_TEST_MODULE link_association

#include "broker/link/association.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::broker;
using namespace std::chrono_literals;
using Judgement = Association::Judgement;

namespace {

const Clock::time_point start = Clock::time_point{} + 1h;

Envelope numbered(std::uint64_t epoch, std::uint64_t number, std::uint64_t heard = 0) {
    return {.kind = EnvelopeKind::ping, .epoch = epoch, .number = number, .heardEpoch = heard};
}

struct Heard {
    Association association{7, start};

    bool isJudged(Judgement judgement, std::uint64_t epoch, std::uint64_t number,
                  std::uint64_t heard = 0) const {
        return association.judge(numbered(epoch, number, heard)) == judgement;
    }
    void hear(std::uint64_t epoch, std::uint64_t number) {
        BOOST_TEST(isJudged(Judgement::expected, epoch, number));
        association.accept(numbered(epoch, number));
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(whatIsSentIsNumberedFromZero, Heard) {
    for (std::uint64_t expected = 0; expected < 3; ++expected) {
        Envelope envelope;
        association.number(envelope);
        BOOST_TEST(envelope.epoch == 7U);
        BOOST_TEST(envelope.number == expected);
    }
}

BOOST_FIXTURE_TEST_CASE(whatIsSentNamesTheEpochThatWasHeard, Heard) {
    Envelope envelope;
    association.number(envelope);
    BOOST_TEST(envelope.heardEpoch == 0U);
    hear(3, 0);
    association.number(envelope);
    BOOST_TEST(envelope.heardEpoch == 3U);
}

BOOST_FIXTURE_TEST_CASE(onlyTheNextNumberIsExpected, Heard) {
    hear(3, 0);
    hear(3, 1);
    BOOST_TEST(isJudged(Judgement::expected, 3, 2));
    for (const std::uint64_t number :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{3}, std::uint64_t{4}, UINT64_MAX}) {
        BOOST_TEST(isJudged(Judgement::lostSome, 3, number), number);
    }
}

BOOST_FIXTURE_TEST_CASE(theFirstHasToBeTheFirst, Heard) {
    BOOST_TEST(isJudged(Judgement::expected, 3, 0));
    BOOST_TEST(isJudged(Judgement::expected, 3, 0, 7));
    BOOST_TEST(isJudged(Judgement::lostSome, 3, 1));
    BOOST_TEST(isJudged(Judgement::lostSome, 3, UINT64_MAX, 7));
}

BOOST_FIXTURE_TEST_CASE(aNewEpochBeginsWithItsFirst, Heard) {
    hear(3, 0);
    BOOST_TEST(isJudged(Judgement::begunAnew, 4, 0));
    BOOST_TEST(isJudged(Judgement::joinedAnew, 4, 0, 7));
    BOOST_TEST(isJudged(Judgement::lostSome, 4, 1));
    BOOST_TEST(isJudged(Judgement::lostSome, 4, 1, 7));
}

BOOST_FIXTURE_TEST_CASE(whatIsStillOnItsWayFromEarlierEpochsChangesNothing, Heard) {
    hear(3, 0);
    for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{1}, UINT64_MAX}) {
        BOOST_TEST(isJudged(Judgement::outdated, 2, number));
        BOOST_TEST(isJudged(Judgement::outdated, 2, number, 7));
        BOOST_TEST(isJudged(Judgement::unaware, 3, number, 6));
        BOOST_TEST(isJudged(Judgement::unaware, 4, number, 8));
    }
}

BOOST_FIXTURE_TEST_CASE(aResetMeansAnEpochOfEitherSide, Heard) {
    const auto means = [this](std::uint64_t theirs, std::uint64_t ours) {
        return association.isMeantBy({.kind = EnvelopeKind::reset, .epoch = theirs, .value = ours});
    };
    BOOST_TEST(means(0, 7));
    BOOST_TEST(!means(3, 0));  // nothing was heard in an epoch of the other side
    hear(3, 0);
    BOOST_TEST(means(3, 0));
    for (const std::uint64_t epoch :
         {std::uint64_t{0}, std::uint64_t{6}, std::uint64_t{8}, UINT64_MAX}) {
        BOOST_TEST(!means(0, epoch), epoch);
        BOOST_TEST(!means(epoch, 0), epoch);
    }
}

BOOST_FIXTURE_TEST_CASE(silenceBeginsWithTheLastMessage, Heard) {
    BOOST_TEST(!association.isSilent(start + Association::silence - 1ms));
    BOOST_TEST(association.isSilent(start + Association::silence));
    association.accept(numbered(3, 0));
    BOOST_TEST(association.isSilent(start + Association::silence));
    association.ponged(start + 1s, start + 1500ms);
    BOOST_TEST(!association.isSilent(start + Association::silence));
    BOOST_TEST(association.isSilent(start + 1s + Association::silence));
}

BOOST_FIXTURE_TEST_CASE(silenceCountsFromTheFirstChannel, Heard) {
    association.addChannel(start + 1h);
    BOOST_TEST(!association.isSilent(start + 1h + Association::silence - 1ms));
    association.addChannel(start + 2h);  // the second changes nothing
    BOOST_TEST(association.isSilent(start + 2h));
}

BOOST_FIXTURE_TEST_CASE(itIsIdleSomeTimeAfterItsLastChannel, Heard) {
    BOOST_TEST(association.isIdle(start + Association::idle));
    association.addChannel(start);
    association.addChannel(start);
    BOOST_TEST(!association.isIdle(start + 1h));
    association.removeChannel(start + 1h);
    BOOST_TEST(!association.isIdle(start + 2h));
    association.removeChannel(start + 2h);
    BOOST_TEST(association.channels() == 0U);
    association.addChannel(start + 2h);
    association.addChannel(start + 2h);
    association.removeAllChannels(start + 2h);
    BOOST_TEST(association.channels() == 0U);
    BOOST_TEST(!association.isIdle(start + 2h + Association::idle - 1ms));
    BOOST_TEST(association.isIdle(start + 2h + Association::idle));
}
