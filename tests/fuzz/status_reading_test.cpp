// What `kavri status` makes of what a broker sends, right or wrong: a row of reports with
// mistakes in them over a real socket, whose other end then closes. There is a snapshot that
// every form can show, or a Failure with one line; never anything else, and nothing in it that
// a terminal would act on. The same every time.
#define BOOST_TEST_MODULE statusReading

#include <algorithm>
#include <boost/test/unit_test.hpp>

#include "fuzz/mistakes.h"
#include "management/json_form.h"
#include "management/prometheus_form.h"
#include "management/text_form.h"
#include "process/temporary_folder.h"
#include "support/fake_broker.h"

using namespace kavri::tests;
using namespace kavri::management;

namespace {

#ifdef KAVRI_SANITIZED
constexpr int rounds = 200;
#else
constexpr int rounds = 1000;
#endif

std::string report(std::string_view kind, std::string_view payload, std::string_view category) {
    Frame frame = makeFrame(FrameType::report, 1, {.identifier = kind, .payload = payload});
    if (!category.empty()) {
        frame[Field::category] = category;
    }
    return encode(frame);
}

// What a broker may well answer: the beginning and the end, and between them what there is.
std::string answer(Random& random) {
    static constexpr std::array kinds = {"limits", "connections", "traffic",
                                         "user",   "connection",  "category"};
    static constexpr std::array payloads = {
        "connections=4096\nbytes_per_user=67108864\n",
        "present=3\naccepted=4\nclosed_malformed=1\n",
        "requests=7\nnotices_overloaded=18446744073709551615\n",
        "user=0\nconnections=3\nbytes=4096\n",
        "connection=4294967296\nuser=0\nprocess=1\nrole=initiator\nwaits_for=4294967296\n",
        "name_bytes=5\nserved_by=responder\nconnection=4294967296\nsubscribers=2\n"};
    std::string bytes = encode(FakeBroker::welcomeFrame("payload_bytes=1048576\n")) +
                        report("broker", "format=1\nversion=1.0.0\nprocess=1\nuptime_ms=5\n", "");
    for (auto count = random() % 30; count > 0; --count) {
        const std::size_t kind = random() % kinds.size();
        std::string name = kind >= 4 && random() % 2 == 0 ? noise(random, 300) : "";
        std::erase(name, '\0');
        bytes += report(kinds[kind], payloads[kind], name);
    }
    return bytes + encode(makeFrame(FrameType::acknowledgement, 1));
}

bool isHarmless(std::string_view text) {
    return std::ranges::none_of(text, [](char byte) {
        const auto value = static_cast<unsigned char>(byte);
        return (value < 0x20 && byte != '\n' && byte != '\t') || value == 0x7f;
    });
}

void checkForms(const Snapshot& snapshot, const std::string& socket) {
    Names names;
    const kavri::base::DisplayStyle narrow{.terminal = true, .columns = 60};
    for (const bool all : {false, true}) {
        BOOST_TEST(isHarmless(textForm(snapshot, &snapshot, {socket, all, narrow}, names)));
    }
    BOOST_TEST(isHarmless(prometheusForm(snapshot, names)));
    BOOST_TEST(isHarmless(jsonForm(snapshot, socket, "now", names).dump()));  // throws: no UTF-8
}

// Asks a broker that answers so, and then closes. Whether there was a snapshot.
bool isSnapshotOf(const std::string& bytes) {
    const kavri::process::TemporaryFolder folder;
    FakeBroker broker(folder / "s");
    const auto answered = std::async(std::launch::async, [&] {
        RawPeer peer = broker.accept();
        peer.expect(FrameType::hello);
        peer.write(bytes);
        peer.endSending();
        peer.expectEnd();
    });
    try {
        const auto deadline = Clock::now() + patience;
        Connection connection(folder / "s", deadline);
        checkForms(takeSnapshot(connection, deadline), folder / "s");
        return true;
    } catch (const Failure& failure) {
        BOOST_TEST(isHarmless(failure.what()));
        BOOST_TEST(std::string_view(failure.what()).find('\n') == std::string_view::npos);
        BOOST_TEST((failure.kind() != FailureKind::silent));
        return false;
    }
}

int snapshotsOf(int count, bool withMistakes) {
    Random random(1);  // NOLINT(cert-msc51-cpp): the same every time
    int snapshots = 0;
    for (int round = 0; round < count; ++round) {
        std::string bytes = answer(random);
        if (withMistakes) {
            mutate(bytes, random);
        }
        snapshots += isSnapshotOf(bytes) ? 1 : 0;
    }
    return snapshots;
}

}  // namespace

BOOST_AUTO_TEST_CASE(sensibleReportsAreAllTaken) {
    BOOST_TEST(snapshotsOf(rounds / 10, false) == rounds / 10);
}

BOOST_AUTO_TEST_CASE(mistakesAreToldAndBreakNothing) {
    const int snapshots = snapshotsOf(rounds, true);
    BOOST_TEST(snapshots > rounds / 10);
    BOOST_TEST(snapshots < rounds);
}
