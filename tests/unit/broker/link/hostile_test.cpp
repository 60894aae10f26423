// Whoever may publish to the servers, and what that costs others: no more than the channel
// that was forged.
#define BOOST_TEST_MODULE link_hostile

#include <boost/test/unit_test.hpp>
#include <random>

#include "support/conversation.h"
#include "support/linked_broker.h"

using namespace kavri::tests;
using namespace std::chrono_literals;
using kavri::broker::BrokerIdentity;
using kavri::broker::Envelope;
using kavri::broker::EnvelopeKind;
using kavri::broker::linkUser;

namespace {

std::string encoded(const Envelope& envelope, std::string_view content = {}) {
    std::string bytes;
    kavri::broker::appendEncoded(envelope, bytes);
    return bytes.append(content);
}

// Speaks as a broker does, and says what it likes.
class Intruder {
  public:
    explicit Intruder(FakeHub& hub) : bus_(hub.connect()) {
        identity.fill(0xee);
        bus_->subscribe(kavri::broker::brokerSubject(identity), {});
        bus_->handle();
    }

    BrokerIdentity identity{};

    void publish(const std::string& subject, const std::string& bytes,
                 const std::string& replyTo = {}) {
        bus_->publish(subject, bytes, replyTo);
        bus_->flush();
    }
    void ask(const std::string& category, std::uint64_t channel) {
        publish(
            kavri::broker::serveSubject(category),
            encoded({.kind = EnvelopeKind::open, .sender = identity, .value = channel}, category));
    }
    // The next message of its epoch.
    void say(const LinkedBroker& to, Envelope envelope, std::string_view content = {}) {
        envelope.sender = identity;
        envelope.epoch = 1;
        envelope.number = next_++;
        publish(kavri::broker::brokerSubject(to.identity()), encoded(envelope, content));
    }
    // What came for it since the last time, of one kind.
    std::vector<Envelope> hear(EnvelopeKind kind) {
        std::vector<Envelope> all;
        while (bus_->isReadable()) {
            bus_->handle();
        }
        while (const auto message = bus_->next()) {
            const auto opened = kavri::broker::openEnvelope(message->data);
            if (opened && opened->envelope.kind == kind) {
                all.push_back(opened->envelope);
            }
        }
        return all;
    }
    void serve(const std::string& category) {
        bus_->subscribe(kavri::broker::serveSubject(category), "kavri");
    }

  private:
    std::unique_ptr<FakeBus> bus_;
    std::uint64_t next_ = 0;
};

struct Attacked : LinkedWorld {
    LinkedBroker& here = start();
    LinkedBroker& there = start();
    Program& caller = here.initiator();
    Program& service = there.responder("test");
    Intruder intruder{hub};
    std::uint64_t asked = 0;

    Attacked() {
        settle();
        here.say(caller, request(1));
        settle();
        asked = framesIn(service.heard).at(0).token;
        service.heard.clear();
    }

    // The channel of before lasts, and nothing is left of the intruder after a while.
    void requireThatOthersGoOn() {
        settle();
        there.say(service, response(asked));
        settle();
        BOOST_TEST(here.hear(caller) == "response 1" + fields + "p");
        run(13s, 100ms);
        BOOST_TEST(here.link->channels().size() == 1U);
        BOOST_TEST(there.link->channels().size() == 1U);
        BOOST_TEST(here.link->neighbours().all().size() == 1U);
        BOOST_TEST(there.link->neighbours().all().size() == 1U);
        here.say(caller, request(2));
        settle();
        there.say(service, response(framesIn(service.heard).at(0).token));
        settle();
        BOOST_TEST(here.hear(caller) == "response 2" + fields + "p");
        for (LinkedBroker* broker : {&here, &there}) {
            broker->stop();
            BOOST_TEST(broker->userBytes(linkUser) == 0U);
            BOOST_TEST(broker->userBytes(someUser) == 0U);
        }
    }

    // How the broker of the responder numbers the channel that the intruder opened there.
    std::uint64_t openChannel() {
        intruder.ask("test", 5);
        settle();
        const auto opened = intruder.hear(EnvelopeKind::opened);
        BOOST_REQUIRE(opened.size() == 1U);
        return opened.at(0).value;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(garbageIsDropped, Attacked) {
    std::mt19937 random(1);
    const std::vector<std::string> subjects = {kavri::broker::brokerSubject(here.identity()),
                                               kavri::broker::brokerSubject(there.identity()),
                                               kavri::broker::serveSubject("test"),
                                               kavri::broker::eventsSubject("test"),
                                               kavri::broker::answerSubject(here.identity(), 1),
                                               kavri::broker::answerSubject(here.identity(), 0)};
    here.subscriber("test");
    for (int i = 0; i < 3000; ++i) {
        std::string bytes(random() % 200, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        if (bytes.size() > 1 && i % 4 != 0) {
            bytes[0] = 1;
            // All but a reset, which may be meant.
            bytes[1] = static_cast<char>(1 + random() % 8);
        }
        for (const std::string& subject : subjects) {
            intruder.publish(subject, bytes, subject);
        }
        settle();
    }
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(aQuestionOfNobodyCostsAChannelForAWhile, Attacked) {
    intruder.ask("test", 1);
    intruder.ask("test", 1);
    settle();
    BOOST_TEST(there.link->channels().size() == 3U);
    requireThatOthersGoOn();
}

BOOST_AUTO_TEST_CASE(questionsAreRefusedAboveTheShareOfTheLink) {
    LinkedWorld world;
    kavri::wire::Limits limits;
    limits.bytesPerUser = 256 * 1024;
    LinkedBroker& there = world.start(linkOf({"test"}, {}), {}, limits);
    there.responder("test");
    Intruder intruder(world.hub);
    for (std::uint64_t i = 0; i < 300; ++i) {
        intruder.ask("test", i);
    }
    world.settle();
    BOOST_TEST(there.link->channels().size() < 150U);
    const auto refused = intruder.hear(EnvelopeKind::refused);
    BOOST_TEST(refused.size() > 150U);
    for (const Envelope& each : refused) {
        BOOST_TEST(each.status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    }
    world.run(3s);
    BOOST_TEST(there.link->channels().size() == 0U);
    there.stop();
    BOOST_TEST(there.userBytes(linkUser) == 0U);
}

BOOST_FIXTURE_TEST_CASE(aQuestionForWhatIsNotExportedIsRefused, Attacked) {
    there.responder("private");
    intruder.publish(
        kavri::broker::serveSubject("test"),
        encoded({.kind = EnvelopeKind::open, .sender = intruder.identity, .value = 5}, "private"));
    settle();
    BOOST_TEST(intruder.hear(EnvelopeKind::refused).size() == 1U);
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(onlyRequestsComeFromAnInitiator, Attacked) {
    for (const FrameType type : allTypes) {
        if (type == FrameType::request) {
            continue;
        }
        const std::uint64_t channel = openChannel();
        intruder.say(there, {.kind = EnvelopeKind::frames, .channel = channel},
                     encode(smallestFrame(type, asked)));
        settle();
        BOOST_TEST(there.link->channels().size() == 1U, "frame of type " << int(type));
    }
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(whatIsNoFrameEndsItsChannel, Attacked) {
    const std::string frame = encode(request(1));
    std::string wrongLength = frame;
    wrongLength[0] = static_cast<char>(wrongLength[0] + 1);
    std::string wrongType = frame;
    wrongType[4] = 77;
    for (const std::string& content :
         {std::string("x"), frame.substr(0, frame.size() - 1), frame + "x", wrongLength, wrongType,
          std::string(64, '\0'), std::string(64, '\xff')}) {
        const std::uint64_t channel = openChannel();
        intruder.say(there, {.kind = EnvelopeKind::frames, .channel = channel}, content);
        settle();
        BOOST_TEST(there.link->channels().size() == 1U);
    }
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(moreThanTheCreditEndsItsChannel, Attacked) {
    Program& slow = service;
    slow.reads = false;
    const std::uint64_t channel = openChannel();
    const std::string large = encode(request(1, std::string(100000, 'l')));
    for (int i = 0; i < 200 && there.link->channels().size() == 2; ++i) {
        intruder.say(there, {.kind = EnvelopeKind::frames, .channel = channel}, large);
        settle();
        BOOST_REQUIRE(there.userBytes(linkUser) < kavri::wire::mebibyte);
    }
    BOOST_TEST(there.link->channels().size() == 1U);
    there.resumeReading(slow);
    settle();
    service.heard.clear();
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(creditForWhatWasNotSentIsNone, Attacked) {
    const std::uint64_t channel = openChannel();
    for (const std::uint64_t credit : {UINT64_MAX, std::uint64_t{0}, std::uint64_t{1} << 63U}) {
        intruder.say(there, {.kind = EnvelopeKind::credit, .channel = channel, .value = credit});
        intruder.say(there, {.kind = EnvelopeKind::frames, .channel = channel, .value = credit},
                     encode(request(1)));
        settle();
        const std::string bytes = std::exchange(service.heard, {});
        there.say(service, response(framesIn(bytes).at(0).token));
        settle();
    }
    BOOST_TEST(intruder.hear(EnvelopeKind::frames).size() == 3U);
    BOOST_TEST(there.link->channels().size() == 2U);
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(theChannelsOfOthersAreNotItsOwn, Attacked) {
    std::uint64_t theirs = 0;
    there.link->channels().forEach([&](const auto& channel) { theirs = channel.id; });
    openChannel();
    for (std::uint64_t channel : {theirs, std::uint64_t{0}, UINT64_MAX}) {
        for (const EnvelopeKind kind : {EnvelopeKind::frames, EnvelopeKind::close,
                                        EnvelopeKind::credit, EnvelopeKind::refused}) {
            intruder.say(there, {.kind = kind, .channel = channel}, "garbage");
            intruder.say(there, {.kind = EnvelopeKind::opened, .channel = channel, .value = 9});
        }
    }
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(answersToWhatWasNotAskedReachNobody, Attacked) {
    LinkedBroker& third = start(linkOf({}, {"false"}));
    Program& victim = third.initiator();
    settle();
    intruder.serve("false");
    third.say(victim, request(1, "p", "false"));
    settle();
    std::uint64_t channel = 0;
    third.link->channels().forEach([&](const auto& each) { channel = each.id; });
    intruder.say(third, {.kind = EnvelopeKind::opened, .channel = channel, .value = 9});
    settle();
    for (const std::uint64_t token : {std::uint64_t{0}, std::uint64_t{1}, UINT64_MAX}) {
        for (const FrameType type :
             {FrameType::response, FrameType::completion, FrameType::notice, FrameType::publish}) {
            Frame frame = smallestFrame(type, token + (std::uint64_t{77} << 32U));
            intruder.say(third, {.kind = EnvelopeKind::frames, .channel = channel}, encode(frame));
        }
    }
    settle();
    BOOST_TEST(third.hear(victim).empty());
    BOOST_TEST(victim.session->asInitiator.pendingRequests == 1U);
    intruder.say(third, {.kind = EnvelopeKind::frames, .channel = channel},
                 encode(registration(1, "mine")));
    settle();
    BOOST_TEST(third.hear(victim) ==
               "notice 1 status=" + std::to_string(KAVRI_CORE_STATUS_IPC_RESPONDER_LOST));
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(whatIsNoNextEventIsDropped, Attacked) {
    Program& subscriber = here.subscriber("test");
    settle();
    const std::string subject = kavri::broker::eventsSubject("test");
    const auto forge = [&](std::uint64_t number, std::string_view content) {
        intruder.publish(
            subject,
            encoded({.kind = EnvelopeKind::events, .sender = intruder.identity, .number = number},
                    content));
        settle();
    };
    forge(5, encode(publish("other", "other")));
    forge(0, encode(publish("repeated")));
    forge(5, encode(publish("repeated")));
    forge(6, "no frame");
    BOOST_TEST(here.hear(subscriber).empty());
    BOOST_TEST(subscriber.isConnected());
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(aChannelIsForItsOwnCategoryOnly, Attacked) {
    Program& secret = there.responder("private");
    const std::uint64_t channel = openChannel();
    intruder.say(there, {.kind = EnvelopeKind::frames, .channel = channel},
                 encode(request(1, "p", "private")));
    settle();
    BOOST_TEST(there.hear(secret).empty());
    BOOST_TEST(there.link->channels().size() == 1U);
    requireThatOthersGoOn();
}

BOOST_FIXTURE_TEST_CASE(aPongMaySayAnything, Attacked) {
    openChannel();
    for (const std::uint64_t clock :
         {std::uint64_t{0}, std::uint64_t{1} << 63U, UINT64_MAX, UINT64_MAX / 2}) {
        intruder.say(there, {.kind = EnvelopeKind::pong, .value = clock});
        settle();
        const auto known = there.link->neighbours().all().find(intruder.identity);
        BOOST_REQUIRE((known != there.link->neighbours().all().end()));
        BOOST_TEST((known->second.roundTrip() >= 0s));
        BOOST_TEST((known->second.roundTrip() <= hub.now.time_since_epoch()));
    }
    requireThatOthersGoOn();
}
