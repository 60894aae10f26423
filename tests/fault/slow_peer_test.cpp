// The real broker and peers that are slow, greedy or gone: what each costs, and
// that it costs nobody else anything.
#define BOOST_TEST_MODULE slowPeer

#include <sys/resource.h>
#include <sys/wait.h>

#include <boost/test/unit_test.hpp>

#include "support/other_user.h"
#include "support/raw_peer.h"
#include "support/with_broker.h"

using namespace kavri::tests;
namespace wire = kavri::wire;

namespace {

struct Setting : WithBroker {
    explicit Setting(const std::string& config = {}) : WithBroker({.config = config}) {}

    RawPeer bystander{address, "initiator"};

    void expectOthersUnharmed() { BOOST_CHECK_NO_THROW(bystander.ping()); }
    RawPeer subscriber() const { return subscriberOf(address, "news"); }
    RawPeer responder(std::string_view category) const { return responderFor(address, category); }
    // So many of them, each with a part of a request whose payload is so long.
    std::vector<RawPeer> hoarders(int count, std::size_t payloadBytes,
                                  std::size_t partBytes) const {
        const std::string request = encode(makeFrame(
            FrameType::request, 1, {"nobody", "do", "0", std::string(payloadBytes, 'x')}));
        std::vector<RawPeer> peers;
        for (int i = 0; i < count; ++i) {
            peers.emplace_back(address, "initiator").write(request.substr(0, partBytes));
        }
        return peers;
    }
    std::size_t residentBytes() const {
        std::ifstream file("/proc/" + std::to_string(broker.pid()) + "/statm");
        std::size_t pages = 0;
        file >> pages >> pages;
        return pages * 4096;
    }
};

Frame requestFor(std::string_view category, std::string_view payload = "x") {
    return makeFrame(FrameType::request, 1, {category, "do", "0", payload});
}

// Events of about 64 KiB together, ready to be written.
std::string manyEvents() {
    const std::string event =
        encode(makeFrame(FrameType::publish, 0, {"news", "e", {}, std::string(220, 'x')}));
    std::string events;
    while (events.size() + event.size() <= 64 * wire::kibibyte) {
        events += event;
    }
    return events;
}

// Reads at this rate until it has got so much, or the broker closes it.
std::size_t readAt(RawPeer& peer, double bytesPerSecond, std::size_t total) {
    const auto begin = std::chrono::steady_clock::now();
    std::size_t got = 0;
    std::vector<char> chunk(
        std::max<std::size_t>(1024, static_cast<std::size_t>(bytesPerSecond / 100)));
    while (got < total) {
        std::this_thread::sleep_until(
            begin + std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::duration<double>(static_cast<double>(got) / bytesPerSecond)));
        const std::size_t count = peer.readUpTo(chunk);
        if (count == 0) {
            break;
        }
        got += count;
    }
    return got;
}

}  // namespace

BOOST_AUTO_TEST_CASE(aSteadyReaderGetsEveryEventWhateverItsRate) {
    for (const double rate : {2e6, 10e6, 20e6, 40e6}) {
        BOOST_TEST_CONTEXT(rate) {
            // A quarter of the default queue, that it is filled in a short time.
            Setting setting("[limits]\nsend_queue_bytes = 2000000\n");
            RawPeer reader = setting.subscriber();
            RawPeer publisher = setting.responder("news");
            const std::string events = manyEvents();
            const std::size_t bursts = static_cast<std::size_t>(7e6 + rate / 4) / events.size();
            BlockedCall publish([&] {
                for (std::size_t i = 0; i < bursts; ++i) {
                    publisher.write(events);
                }
            });
            BOOST_TEST(readAt(reader, rate, bursts * events.size()) == bursts * events.size());
            publish.join();
            setting.expectOthersUnharmed();
        }
    }
}

BOOST_AUTO_TEST_CASE(aReaderBelowTheDrainRateIsClosedAndCostsNobodyAnything) {
    Setting setting("[limits]\nsend_queue_bytes = 2000000\n");
    RawPeer slow = setting.subscriber();
    RawPeer quick = setting.subscriber();
    RawPeer publisher = setting.responder("news");
    std::atomic<bool> ended{false};
    BlockedCall reading([&] {
        std::vector<char> tenthOfASecond(1000);
        while (!ended && slow.readUpTo(tenthOfASecond) > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    const std::string events = manyEvents();
    constexpr std::size_t bursts = 400;
    BlockedCall publish([&] {
        for (std::size_t i = 0; i < bursts; ++i) {
            publisher.write(events);
        }
    });
    // At ten thousand bytes a second this would take the best part of an hour.
    BOOST_TEST(readAt(quick, 1e9, bursts * events.size()) == bursts * events.size());
    BOOST_TEST(setting.broker.logs("its send queue is full"));
    ended = true;
    reading.join();
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aLargeRequestGetsThroughBesideManySmallOnes) {
    Setting setting;
    RawPeer responder = setting.responder("work");
    std::vector<RawPeer> flooders;
    for (int i = 0; i < 2; ++i) {
        flooders.emplace_back(setting.address, "initiator");
    }
    const std::string small = encode(requestFor("work", std::string(4096, 's')));
    RawPeer sender(setting.address, "initiator");
    // The queue is long before the large one comes, and stays so.
    std::vector<std::string> unsent(flooders.size());
    const auto flood = [&] {
        for (std::size_t i = 0; i < flooders.size(); ++i) {
            if (unsent[i].empty()) {
                for (int n = 0; n < 64; ++n) {
                    unsent[i] += small;
                }
            }
            unsent[i].erase(0, flooders[i].writeSome(unsent[i]));
        }
    };
    for (int i = 0; i < 200; ++i) {
        flood();
    }
    sender.send(requestFor("work", std::string(20'000, 'l')));
    bool isThrough = false;
    for (int i = 0; i < 20'000 && !isThrough; ++i) {
        flood();
        const RawFrame got = responder.expect(FrameType::request);
        isThrough = got.values[Field::payload].size() == 20'000;
    }
    BOOST_TEST(isThrough);
}

BOOST_AUTO_TEST_CASE(aStoppedResponderHoldsUpRequestsForOthersForAShortTimeOnly) {
    Setting setting("[limits]\nsend_queue_bytes = 1000000\n");
    RawPeer deaf = setting.responder("deaf");
    RawPeer working = setting.responder("working");
    RawPeer sender(setting.address, "initiator");
    const std::string large = encode(requestFor("deaf", std::string(100'000, 'x')));
    BlockedCall send([&] {
        for (int i = 0; i < 150; ++i) {
            sender.write(large);
        }
        sender.send(requestFor("working"));
    });
    // The requests in front of it are refused at last, and not waited for.
    working.expect(FrameType::request);
    send.join();
    BOOST_TEST(sender.expect(FrameType::notice).values.status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
}

BOOST_AUTO_TEST_CASE(subscriptionsAreRefusedWhereTheShareIsUsedUpAndTheirMemoryReturns) {
    Setting setting("[limits]\nbytes_per_user = 8388608\n");
    [[maybe_unused]] const std::size_t before = setting.residentBytes();
    {
        std::vector<RawPeer> greedy;
        int granted = 0;
        bool refused = false;
        for (int i = 0; !refused; ++i) {
            BOOST_TEST_REQUIRE(i < 1000);
            if (i % 100 == 0) {
                greedy.emplace_back(setting.address, "initiator");
            }
            std::string name = std::to_string(i);
            name.resize(wire::fieldLimitBytes, 'n');
            greedy.back().send(makeFrame(FrameType::subscribe, 1, {.category = name}));
            const auto status = greedy.back().expect(FrameType::acknowledgement).values.status;
            refused = status == KAVRI_CORE_STATUS_IPC_OVERLOADED;
            granted += status == good ? 1 : 0;
        }
        BOOST_TEST(granted > 100);
#if !defined(KAVRI_SANITIZED)  // whose own memory would count
        BOOST_TEST(setting.residentBytes() < before + 3 * 8 * wire::mebibyte);
#endif
        setting.expectOthersUnharmed();
    }
    // The share is there again, and the memory with the next pause.
    BOOST_TEST(eventually([&] {
        RawPeer peer(setting.address, "initiator");
        const std::string name(wire::fieldLimitBytes, 'n');
        peer.send(makeFrame(FrameType::subscribe, 1, {.category = name}));
        return peer.expect(FrameType::acknowledgement).values.status == 0;
    }));
#if !defined(KAVRI_SANITIZED)
    BOOST_TEST(eventually([&] { return setting.residentBytes() < before + 2 * wire::mebibyte; }));
#endif
}

BOOST_AUTO_TEST_CASE(inputForWhichThereIsNoRoomIsClosed) {
    Setting setting("[limits]\nbytes_per_user = 2097152\n");
    const auto hoarders = setting.hoarders(5, 900'000, 500'000);
    BOOST_TEST(setting.broker.logs("has used up bytes_per_user"));
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aFrameThatStaysIncompleteIsClosed) {
    Setting setting("[limits]\nprogress_ms = 50\n");
    const std::string small = encode(requestFor("nobody"));
    const std::string large = encode(requestFor("nobody", std::string(100'000, 'x')));
    for (const std::string& frame : {small, large}) {
        RawPeer peer(setting.address, "initiator");
        peer.write(frame.substr(0, frame.size() - 1));
        BOOST_TEST(peer.closing() == "status 14: left a frame incomplete for too long");
    }
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aHelloThatIsTooLongIsClosedAtItsHeader) {
    Setting setting;
    RawPeer peer(setting.address);
    peer.write(encode(helloFrame(std::string(5000, 'r'))).substr(0, wire::headerBytes));
    BOOST_TEST(peer.closing() == "status 9: malformed: its first frame is not a hello");
}

BOOST_AUTO_TEST_CASE(requestsOfInitiatorsThatLeftAreNotCounted) {
    Setting setting("[limits]\nopen_requests_per_responder = 10\n");
    RawPeer responder = setting.responder("work");
    std::vector<std::uint64_t> abandoned;
    for (int round = 0; round < 3; ++round) {
        RawPeer leaver(setting.address, "initiator");
        for (int i = 0; i < 10; ++i) {
            leaver.send(requestFor("work"));
            abandoned.push_back(responder.expect(FrameType::request).values.token);
        }
        const std::size_t descriptors = setting.broker.descriptors();
        leaver.close();
        BOOST_TEST(eventually([&] { return setting.broker.descriptors() < descriptors; }));
    }
    setting.bystander.send(requestFor("work"));
    const std::uint64_t token = responder.expect(FrameType::request).values.token;
    for (const std::uint64_t late : abandoned) {
        responder.send(makeFrame(FrameType::completion, late));
    }
    responder.send(makeFrame(FrameType::completion, token));
    setting.bystander.expect(FrameType::completion);
    BOOST_TEST(setting.broker.log().find("is not pending") == std::string::npos);
}

// The sanitizers need more addresses than any limit leaves them.
#if !defined(KAVRI_SANITIZED)
BOOST_AUTO_TEST_CASE(runningOutOfMemoryCostsOneConnection) {
    Setting setting("[limits]\nbytes_per_user = 1000000000\n");
    std::size_t pages = 0;
    std::ifstream("/proc/" + std::to_string(setting.broker.pid()) + "/statm") >> pages;
    const rlim_t bytes = pages * 4096 + 20 * wire::mebibyte;
    const rlimit limit{bytes, bytes};
    BOOST_REQUIRE(::prlimit(setting.broker.pid(), RLIMIT_AS, &limit, nullptr) == 0);
    auto hoarders = setting.hoarders(40, 1'000'000, 900'000);
    BOOST_TEST(setting.broker.logs("the broker has no memory for what it sends"));
    setting.expectOthersUnharmed();
    hoarders.clear();
    RawPeer later(setting.address, "initiator");
    later.write(encode(requestFor("nobody", std::string(1'000'000, 'x'))));
    later.expect(FrameType::notice);
}
#endif

// Two users, which takes root to arrange.
BOOST_AUTO_TEST_CASE(anotherUsersShareIsNotTouched) {
    if (!canActAsOthers()) {
        return;
    }
    constexpr uid_t otherUser = 4321;
    Setting setting("[limits]\nbytes_per_user = 2097152\n[access]\nconnect = [4321]\n");
    openFolder(setting.folder.path());
    const pid_t child = ::fork();
    if (child == 0) {
        // Fills its own user's share, and says so by its exit status.
        int status = 1;
        try {
            if (::setresuid(otherUser, otherUser, otherUser) == 0) {
                const auto hoarders = setting.hoarders(2, 900'000, 800'000);
                setting.hoarders(1, 900'000, 800'000).front().expect(FrameType::goodbye);
                status = 0;
                ::pause();
            }
        } catch (const std::exception&) {
        }
        ::_exit(status);
    }
    BOOST_TEST(setting.broker.logs("has used up bytes_per_user"));
    BOOST_TEST(setting.broker.log().find("of user 4321") != std::string::npos);
    setting.bystander.write(encode(requestFor("nobody", std::string(1'000'000, 'x'))));
    setting.bystander.expect(FrameType::notice);
    setting.expectOthersUnharmed();
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}
