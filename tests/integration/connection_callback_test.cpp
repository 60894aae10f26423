// The connection callback: what it is called for, in which order, and what may be done
// beside it and from within it.
#define BOOST_TEST_MODULE connectionCallback

#include <boost/test/unit_test.hpp>
#include <functional>
#include <semaphore>

#include "support/scripted_connection.h"
#include "support/with_broker.h"

using namespace kavri::tests;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto made = KAVRI_CORE_IPC_CONNECTION_MADE;
constexpr auto broken = KAVRI_CORE_IPC_CONNECTION_BROKEN;
constexpr auto closed = KAVRI_CORE_IPC_CONNECTION_CLOSED_BY_BROKER;
constexpr auto restored = KAVRI_CORE_IPC_CONNECTION_RESTORED;

struct Change {
    std::size_t sizeBytes;
    kavri_core_ipc_connection_event event;
    kavri_core_status status;
    std::string reason;
    std::uint64_t disconnectedMs;
    std::thread::id thread;
};

// The changes that a callback got, and what it does about each.
class Changes {
  public:
    explicit Changes(std::function<void(const Change&)> work = {}) : work_(std::move(work)) {}

    static void callback(const kavri_core_ipc_connection_change* change, void* context) {
        auto& self = *static_cast<Changes*>(context);
        const Change got{change->sizeBytes, change->event,          change->status,
                         change->reason,    change->disconnectedMs, std::this_thread::get_id()};
        {
            const std::lock_guard lock(self.mutex_);
            self.changes_.push_back(got);
        }
        if (self.work_) {
            self.work_(got);
        }
    }
    kavri_core_ipc_options options(unsigned sendTimeoutMs = 0) {
        kavri_core_ipc_options chosen = sendWithin(sendTimeoutMs);
        chosen.connectionCallback = callback;
        chosen.connectionContext = this;
        return chosen;
    }

    std::vector<Change> all() const {
        const std::lock_guard lock(mutex_);
        return changes_;
    }
    std::size_t count() const { return all().size(); }
    bool waitFor(std::size_t count) const {
        return eventually([&] { return all().size() >= count; });
    }
    // The change of this place, once it is there.
    Change at(std::size_t place) const {
        BOOST_REQUIRE(waitFor(place + 1));
        return all()[place];
    }
    std::vector<int> events() const {
        std::vector<int> result;
        for (const Change& change : all()) {
            result.push_back(change.event);
        }
        return result;
    }

  private:
    std::function<void(const Change&)> work_;
    mutable std::mutex mutex_;
    std::vector<Change> changes_;
};

// Made before the connection that it is called for.
struct WithChanges {
    Changes changes;
};

// An initiator with the callback, and a test in the broker's place.
struct Scripted : WithChanges, ScriptedConnection {
    explicit Scripted(unsigned sendTimeoutMs = 0)
        : ScriptedConnection(changes.options(sendTimeoutMs)) {}

    // What the callback gets where the broker says goodbye like this.
    Change changeAfterGoodbye(std::uint16_t status, const std::string& reason) {
        peer.send(makeFrame(FrameType::goodbye, 0, {.payload = reason}, status));
        peer.close();
        return changes.at(1);
    }
};

// With a deadline for a test that reaches it.
struct ShortSendTimeout : Scripted {
    ShortSendTimeout() : Scripted(100) {}
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(ofTheBroker, WithBroker)

BOOST_AUTO_TEST_CASE(isCalledForTheFirstConnectionOnAThreadOfTheLibrarys) {
    Changes changes;
    Initiator initiator(address, changes.options());
    const Change first = changes.at(0);
    BOOST_TEST(first.sizeBytes == sizeof(kavri_core_ipc_connection_change));
    BOOST_TEST(first.event == made);
    BOOST_TEST(first.status == good);
    BOOST_TEST(!first.reason.empty());
    BOOST_TEST(first.disconnectedMs == 0U);
    BOOST_TEST((first.thread != std::this_thread::get_id()));
}

BOOST_AUTO_TEST_CASE(isCalledForAKilledBrokerAndForItsReturn) {
    Changes changes;
    Inbox events;
    Initiator initiator(address, changes.options());
    initiator.onEvent(Inbox::event, &events);
    initiator.subscribe("test");
    broker.kill();
    const Change loss = changes.at(1);
    BOOST_TEST(loss.event == broken);
    BOOST_TEST(loss.status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    BOOST_TEST(!loss.reason.empty());
    const auto known = Clock::now();
    BOOST_TEST(initiator.echo("0") == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    std::this_thread::sleep_for(30ms);
    const auto away = std::chrono::floor<std::chrono::milliseconds>(Clock::now() - known);
    broker.restart();
    const Change back = changes.at(2);
    BOOST_TEST(back.event == restored);
    BOOST_TEST(back.status == good);
    BOOST_TEST(back.disconnectedMs >= static_cast<std::uint64_t>(away.count()));
    initiator.send("test", "event");
    BOOST_TEST(events.waitFor(1));
    BOOST_TEST((events.messages()[0].thread == back.thread));
    BOOST_TEST(changes.count() == 3U);
}

BOOST_AUTO_TEST_CASE(getsTheGoodbyeOfAStoppedBroker) {
    Changes changes;
    Initiator initiator(address, changes.options());
    changes.at(0);
    BOOST_TEST(broker.stop());
    const Change loss = changes.at(1);
    BOOST_TEST(loss.event == closed);
    BOOST_TEST(loss.status != good);
    BOOST_TEST(!loss.reason.empty());
}

BOOST_AUTO_TEST_CASE(doesNotKeepOthersFromSendingAndReceiving) {
    Changes changes;
    Initiator initiator(address, changes.options());
    std::atomic<int> sent{0};
    std::jthread second([&] {
        for (int i = 0; i < 300; ++i) {
            sent += initiator.echo("second") == good ? 1 : 0;
        }
    });
    for (int i = 0; i < 300; ++i) {
        BOOST_TEST(initiator.echo("first") == good);
        BOOST_TEST(initiator.receive().status == good);
    }
    for (int i = 0; i < 300; ++i) {
        BOOST_TEST(initiator.receive(-1).status == good);
    }
    BOOST_TEST(sent == 300);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(neverOverlapsWithOtherCallbacks) {
    static std::atomic<int> inside;
    static std::atomic<int> overlaps;
    static std::atomic<int> responses;
    inside = overlaps = responses = 0;
    const auto within = [] {
        overlaps += ++inside > 1 ? 1 : 0;
        std::this_thread::yield();
        --inside;
    };
    Changes changes([&](const Change&) { within(); });
    Initiator initiator(address, changes.options());
    static const std::function<void()> counted = within;
    initiator.onResponse(
        [](char** category, char** identifier, char** uuid, char** payload, void*) {
            counted();
            for (char** string : {category, identifier, uuid, payload}) {
                std::free(*string);
            }
            ++responses;
        },
        nullptr);
    for (int i = 0; i < 5; ++i) {
        const int before = responses;
        for (int j = 0; j < 50; ++j) {
            initiator.echo("0");
        }
        BOOST_TEST(eventually([&] { return responses > before; }));
        broker.restart();
        BOOST_TEST(eventually([&] {
            const auto seen = changes.all();
            return seen.size() == static_cast<std::size_t>(1 + 2 * (i + 1));
        }));
    }
    BOOST_TEST(overlaps == 0);
}

BOOST_AUTO_TEST_CASE(endsTheInitiatorFromWithin) {
    kavri_core_ipc_initiator* handle = nullptr;
    std::atomic<int> status{-1};
    Changes changes([&](const Change& change) {
        if (change.event == broken) {
            status = kavri_core_ipc_deinit(handle);
        }
    });
    Initiator initiator(address, changes.options());
    handle = initiator.release();
    changes.at(0);
    broker.restart();
    BOOST_TEST(eventually([&] { return status == good; }));
    BOOST_TEST(haveFurtherThreads(0));
    BOOST_TEST(changes.count() == 2U);
}

BOOST_AUTO_TEST_CASE(isNotCalledAfterTheEnd) {
    for (int turn = 0; turn < 20; ++turn) {
        Changes changes;
        Initiator initiator(address, changes.options());
        if (turn % 2 == 0) {
            changes.at(0);
        }
        broker.kill();
        BOOST_TEST(kavri_core_ipc_deinit(initiator.release()) == good);
        const std::size_t atEnd = changes.count();
        broker.restart();
        BOOST_TEST(changes.count() == atEnd);
        BOOST_TEST(haveFurtherThreads(0));
    }
}

BOOST_AUTO_TEST_CASE(isRequiredWhereThereIsAContext) {
    int context = 0;
    kavri_core_ipc_options options = optionsFor(address);
    options.connectionContext = &context;
    BOOST_TEST(initStatus(options) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(initStatus(options, "work") == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(isCalledForAResponderOnceItsCategoryIsServedAgain) {
    std::optional<Message> answered;
    std::binary_semaphore done{0};
    Changes changes([&](const Change& change) {
        if (change.event == restored) {
            // At this moment a request arrives, without another call to the responder.
            Initiator asking(address);
            if (asking.send("work", "do", "0") == good) {
                answered.emplace(asking.receive(0));
            }
            done.release();
        }
    });
    Responder responder(address, "work", changes.options());
    changes.at(0);
    broker.restart();
    BOOST_REQUIRE(done.try_acquire_for(patience));
    BOOST_REQUIRE(answered.has_value());
    BOOST_TEST(answered->status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST((responder.receive().uuid == "0"));
    BOOST_TEST(changes.events() == (std::vector<int>{made, broken, restored}),
               boost::test_tools::per_element());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(ofAScript, Scripted)

BOOST_AUTO_TEST_CASE(getsTheStatusAndTheReasonOfTheBroker) {
    struct Goodbye {
        kavri_core_status said;
        std::string reason;
        kavri_core_status status;
        std::string shown;
    };
    constexpr auto overloaded = KAVRI_CORE_STATUS_IPC_OVERLOADED;
    const std::string longest(199, 'r');
    const std::vector<Goodbye> goodbyes = {
        {overloaded, "8 MiB were waiting for you", overloaded, "8 MiB were waiting for you"},
        {overloaded, longest, overloaded, longest},
        {overloaded, std::string(70'000, 'r'), overloaded, longest},
        {overloaded, "", overloaded, ""},
        {good, "bye", KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, "bye"}};
    for (const Goodbye& each : goodbyes) {
        Scripted scripted;
        const Change loss = scripted.changeAfterGoodbye(each.said, each.reason);
        BOOST_TEST(loss.event == closed);
        BOOST_TEST(loss.status == each.status);
        BOOST_TEST(loss.reason == each.shown);
    }
}

BOOST_AUTO_TEST_CASE(getsTheReasonOfOneConnectionForThatOneAlone) {
    BOOST_TEST(changeAfterGoodbye(KAVRI_CORE_STATUS_IPC_OVERLOADED, "first").reason == "first");
    broker.acceptAndWelcome();  // and closed without a word
    BOOST_TEST(changes.at(2).event == restored);
    BOOST_TEST(changes.at(3).event == broken);
    BOOST_TEST(changes.at(3).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(isCalledForARestoredConnectionOnceItsSubscriptionsAreInEffect) {
    Inbox events;
    BOOST_TEST(initiator.onEvent(Inbox::event, &events) == good);
    subscribe("first");
    subscribe("second");
    peer.close();
    peer = broker.acceptAndWelcome();
    acknowledge(peer);
    peer.send(makeFrame(FrameType::event, 0, {"first", "x", {}, "early"}));
    const std::uint64_t last = peer.expect(FrameType::subscribe).values.token;
    // A response behind all that: the library's thread has handled what came before.
    peer.send(responseFrame(ask(), "0"));
    BOOST_TEST((initiator.receive(-1).uuid == "0"));
    BOOST_TEST(changes.events() == (std::vector<int>{made, broken}),
               boost::test_tools::per_element());
    BOOST_TEST(events.count() == 0U);
    peer.send(makeFrame(FrameType::acknowledgement, last));
    BOOST_TEST(changes.at(2).event == restored);
    BOOST_TEST(events.waitFor(1));  // kept until then
    BOOST_TEST((events.payloads() == std::vector<std::string>{"early"}));
}

BOOST_FIXTURE_TEST_CASE(isCalledForALossWhereSubscriptionsAreNotAcknowledged, ShortSendTimeout) {
    subscribe("news");
    peer.close();
    peer = broker.acceptAndWelcome();
    peer.expect(FrameType::subscribe);  // and never acknowledged
    peer.expectEnd();
    // The connection on which the subscription was not in effect ends with a loss of its own.
    const auto isReported = [&] {
        const std::vector<Change> seen = changes.all();
        return std::any_of(seen.begin(), seen.end(), [](const Change& change) {
            return change.event == broken &&
                   change.status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST &&
                   change.reason == "the subscriptions were not acknowledged";
        });
    };
    BOOST_TEST(eventually(isReported));
    // The next connection, with an acknowledgement, lasts.
    restoreNext(1);
    BOOST_TEST(eventually([&] { return changes.all().back().event == restored; }));
    peer.send(responseFrame(ask(), "0"));
    BOOST_TEST((initiator.receive(-1).uuid == "0"));
}

BOOST_AUTO_TEST_CASE(keepsTheLatestSixteenOfThoseThatComeWhileItBlocks) {
    constexpr std::size_t losses = 10;
    std::counting_semaphore<> mayReturn{0};
    std::atomic<bool> blocks{false};
    Changes slow([&](const Change&) {
        blocks = true;
        (void)mayReturn.try_acquire_for(patience);
    });
    auto next = broker.welcomeNext();
    Initiator other(address, slow.options());
    RawPeer to = next.get();
    BOOST_REQUIRE(eventually([&] { return blocks.load(); }));
    // The library's thread is in the callback, so calls lose and make the connections.
    for (std::size_t i = 0; i < losses; ++i) {
        to.send(makeFrame(FrameType::goodbye, 0, {.payload = std::to_string(i)},
                          KAVRI_CORE_STATUS_IPC_OVERLOADED));
        to.close();
        BOOST_TEST(other.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
        next = broker.welcomeNext();
        BOOST_TEST(other.echo("0") == good);
        to = next.get();
        to.send(makeFrame(FrameType::completion, to.expect(FrameType::request).values.token));
    }
    mayReturn.release();
    BOOST_TEST(slow.waitFor(2));
    for (int i = 0; i < 16; ++i) {
        mayReturn.release();
        BOOST_TEST(slow.waitFor(static_cast<std::size_t>(std::min(3 + i, 17))));
    }
    const std::vector<Change> seen = slow.all();
    BOOST_REQUIRE(seen.size() == 17U);  // the first, in which it blocked, and the latest
    for (std::size_t i = 0; i < 8; ++i) {
        BOOST_TEST(seen[1 + 2 * i].event == closed);
        BOOST_TEST(seen[1 + 2 * i].reason == std::to_string(losses - 8 + i));
        BOOST_TEST(seen[2 + 2 * i].event == restored);
    }
    mayReturn.release(100);  // the last connection ends before its initiator
}

BOOST_AUTO_TEST_SUITE_END()
