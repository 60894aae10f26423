// Monitors that read nothing, stop, or die, beside traffic that must not notice.
#define BOOST_TEST_MODULE monitoredBroker

#include <boost/test/unit_test.hpp>

#include "support/other_user.h"
#include "support/with_broker.h"

using namespace kavri::tests;
using kavri::process::ChildProcess;

namespace {

#ifdef KAVRI_SANITIZED
constexpr std::size_t manyFrames = 100'000;
#else
constexpr std::size_t manyFrames = 1'000'000;
#endif

RawPeer monitorOf(const std::string& address, std::string_view category) {
    RawPeer monitor(address, "manager");
    monitor.send(makeFrame(FrameType::monitor, 1, {.category = category}));
    monitor.expect(FrameType::acknowledgement);
    return monitor;
}

// Requests to the test service and their responses: together `frames`, each response
// compared with what is due.
void exchange(RawPeer& initiator, std::size_t frames) {
    constexpr std::size_t batch = 500;
    BOOST_REQUIRE(frames % (2 * batch) == 0);
    std::string requests;
    std::string responses;
    for (std::size_t i = 0; i < batch; ++i) {
        const Fields fields = {"test", "echo", "u", "payload"};
        requests += encode(makeFrame(FrameType::request, i, fields));
        responses += encode(makeFrame(FrameType::response, i, fields));
    }
    std::vector<char> chunk(responses.size());
    for (std::size_t sent = 0; sent < frames; sent += 2 * batch) {
        initiator.write(requests);
        std::string heard;
        while (heard.size() < responses.size()) {
            const std::size_t count = initiator.readUpTo(chunk);
            BOOST_REQUIRE(count > 0);
            heard.append(chunk.data(), count);
        }
        BOOST_REQUIRE((heard == responses));
    }
}

struct Tally {
    std::uint64_t seen = 0;
    std::uint64_t lost = 0;
};

// Reads until `passed` are accounted for.
Tally readAll(RawPeer& monitor, std::uint64_t passed) {
    Tally tally;
    while (tally.seen + tally.lost < passed) {
        const RawFrame frame = monitor.expect(FrameType::observed);
        const std::string_view lines = frame.values[Field::payload];
        const std::size_t lost = lines.find("\nlost=");
        lost == std::string_view::npos
            ? ++tally.seen
            : tally.lost += std::stoull(std::string(lines.substr(lost + 6)));
    }
    return tally;
}

// The same of the command's lines of JSON.
Tally readLines(ChildProcess& monitor, std::uint64_t passed) {
    constexpr std::string_view lost = "\"lost\":";
    Tally tally;
    while (tally.seen + tally.lost < passed) {
        const auto line = monitor.waitForLine(patience);
        BOOST_REQUIRE(line);
        const std::size_t found = line->find(lost);
        found == std::string::npos ? ++tally.seen
                                   : tally.lost += std::stoull(line->substr(found + lost.size()));
    }
    return tally;
}

// Whether `kavri status` says so of the process.
bool isStalled(const ChildProcess& process, const std::string& address) {
    ChildProcess status(
        {.program = KAVRI_BIN_DIR "/kavri", .arguments = {"status", "--socket", address}});
    BOOST_REQUIRE(status.wait(patience));
    const std::string& shown = status.output();
    const std::size_t row = shown.find(" " + std::to_string(process.pid()) + "  kavri");
    BOOST_REQUIRE_MESSAGE(row != std::string::npos, shown + status.error());
    return shown.substr(row, shown.find('\n', row) - row).ends_with("  stalled");
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(oneThatReadsNothingLosesLinesAndDelaysNobody, WithBroker) {
    RawPeer monitor = monitorOf(address, "test");
    RawPeer initiator(address, "initiator");
    exchange(initiator, manyFrames);
    const Tally tally = readAll(monitor, manyFrames);
    BOOST_TEST(tally.seen + tally.lost == manyFrames);
    BOOST_TEST(tally.seen > 0U);
    BOOST_TEST(tally.lost > 0U);
    // Nothing else is due, and it goes on.
    initiator.send(makeFrame(FrameType::request, 1, {"test", "echo", "u", "payload"}));
    BOOST_TEST(readAll(monitor, 2).seen == 2U);
}

// A subscriber that reads as little is closed; it shows that the time is over.
struct Impatient : WithBroker {
    Impatient() : WithBroker({.testService = true, .config = "[limits]\nprogress_ms = 100\n"}) {}
};

BOOST_FIXTURE_TEST_CASE(oneThatIsStoppedForLongIsNotClosed, Impatient) {
    RawPeer monitor = monitorOf(address, "test");
    RawPeer initiator(address, "initiator");
    constexpr std::size_t frames = 50'000;
    exchange(initiator, frames);
    RawPeer subscriber = subscriberOf(address, "test");
    const std::string event(1 << 20, 'e');
    while (broker.log().find("made no progress for too long") == std::string::npos) {
        initiator.send(makeFrame(FrameType::request, 1, {"test", "event", "u", event}));
        initiator.expect(FrameType::completion);
    }
    monitor.makeNonBlocking();
    const Tally tally = readAll(monitor, frames);
    BOOST_TEST(tally.lost > 0U);
    monitor.ping();
}

BOOST_FIXTURE_TEST_CASE(oneThatIsStoppedIsShownAsStalledAndSaysLaterWhatItLost, WithBroker) {
    ChildProcess monitor(
        {.program = KAVRI_BIN_DIR "/kavri",
         .arguments = {"monitor", "--socket", address, "--category", "test", "--json"}});
    BOOST_REQUIRE(monitor.waitForError("shows what passes", patience));
    monitor.signal(SIGSTOP);
    RawPeer initiator(address, "initiator");
    std::uint64_t passed = 0;
    const auto pass = [&](std::size_t frames) {
        exchange(initiator, frames);
        passed += frames;
    };
    pass(50'000);
    BOOST_TEST(eventually([&] {
        pass(1'000);
        return isStalled(monitor, address);
    }));
    monitor.signal(SIGCONT);
    const Tally tally = readLines(monitor, passed);
    BOOST_TEST(tally.seen + tally.lost == passed);
    BOOST_TEST(tally.lost > 0U);
    BOOST_TEST(eventually([&] { return !isStalled(monitor, address); }));
    monitor.signal(SIGTERM);
    BOOST_REQUIRE(monitor.wait(patience));
    BOOST_TEST(monitor.error().ends_with("kavri monitor: " + std::to_string(tally.seen) +
                                         " seen, " + std::to_string(tally.lost) + " lost\n"),
               monitor.error());
}

BOOST_FIXTURE_TEST_CASE(oneThatIsKilledLeavesNothing, WithBroker) {
    const std::size_t before = broker.descriptors();
    RawPeer initiator(address, "initiator");
    {
        ChildProcess monitor(
            {.program = KAVRI_BIN_DIR "/kavri", .arguments = {"monitor", "--socket", address}});
        BOOST_REQUIRE(monitor.waitForError("shows what passes", patience));
        exchange(initiator, 10'000);
        monitor.signal(SIGKILL);
        exchange(initiator, 10'000);
        BOOST_REQUIRE(monitor.wait(patience));
    }
    BOOST_TEST(eventually([&] { return broker.descriptors() == before + 1; }));
    exchange(initiator, 1'000);
}

BOOST_AUTO_TEST_CASE(aUserWithoutTheRightIsRefused) {
    if (!canActAsOthers()) {
        return;
    }
    WithBroker setting({.testService = true, .config = "[access]\nconnect = [\"*\"]\n"});
    openFolder(setting.folder.path());
    RawPeer peer = connectAs(nobody, setting.address);
    peer.send(helloFrame("manager"));
    peer.send(makeFrame(FrameType::monitor, 1));
    BOOST_TEST(peer.closing() == "status 9: this user may not manage the broker");
    RawPeer initiator = connectAs(nobody, setting.address);
    initiator.send(helloFrame("initiator"));
    initiator.expect(FrameType::welcome);
    initiator.send(makeFrame(FrameType::monitor, 1));
    BOOST_TEST(initiator.closing() == "status 9: malformed: an initiator does not send this type");
}
