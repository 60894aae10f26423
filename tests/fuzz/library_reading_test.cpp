// What the library makes of what a broker sends, right or wrong: an initiator
// over a real socket, whose other end says frames with mistakes in them and
// closes. It must hand out nothing but answers, and say that the connection is
// lost. The same every time.
#define BOOST_TEST_MODULE libraryReading

#include <boost/test/unit_test.hpp>
#include <random>

#include "fuzz/mistakes.h"
#include "support/scripted_connection.h"

using namespace kavri::tests;

namespace {

#ifdef KAVRI_SANITIZED
constexpr int rounds = 200;
#else
constexpr int rounds = 1000;
#endif

constexpr std::uint64_t requests = 3;

// Connected, and nobody listens for a second connection.
struct Connected : ScriptedConnection {
    Connected() {
        broker.stopListening();
        for (std::uint64_t i = 0; i < requests; ++i) {
            ask();
        }
    }

    // Receives until the connection is lost; how many answers there were.
    std::uint64_t receiveAll() {
        std::uint64_t answers = 0;
        for (std::uint64_t turn = 0; turn <= 2 * requests; ++turn) {
            const Message received = initiator.receive(-1);
            if (received.status == good) {
                BOOST_TEST((received.category && received.identifier && received.uuid));
                ++answers;
            } else if (received.status == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE) {
                return answers;
            }
        }
        BOOST_ERROR("the loss of the connection was not told");
        return answers;
    }
};

// What a broker may well send to an initiator with its three requests.
std::string answers(Random& random) {
    std::string bytes;
    for (auto count = random() % 8; count > 0; --count) {
        const std::uint64_t token = random() % (requests + 2);
        static constexpr std::array types = {FrameType::response,   FrameType::response,
                                             FrameType::response,   FrameType::response,
                                             FrameType::completion, FrameType::notice,
                                             FrameType::event,      FrameType::acknowledgement,
                                             FrameType::pong,       FrameType::goodbye};
        Frame frame = smallestFrame(types[random() % types.size()], token);
        if (frame.type == FrameType::notice) {
            frame.status = KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
        }
        bytes += encode(frame);
    }
    return bytes;
}

}  // namespace

BOOST_AUTO_TEST_CASE(anInitiatorSurvivesWhateverABrokerSays) {
    Random random(6);  // NOLINT(cert-msc51-cpp): the same every time
    std::uint64_t received = 0;
    for (int round = 0; round < rounds; ++round) {
        Connected connected;
        std::string bytes = answers(random);
        if (random() % 2 == 0) {
            mutate(bytes, random);
        }
        connected.peer.write(bytes);
        connected.peer.close();
        received += connected.receiveAll();
    }
    BOOST_TEST(received > static_cast<std::uint64_t>(rounds) / 3);
    BOOST_TEST(received < static_cast<std::uint64_t>(rounds) * requests);
}

BOOST_AUTO_TEST_CASE(framesCutAtAnyByteAreTheSame) {
    const std::string bytes =
        encode(makeFrame(FrameType::response, 1, {"test", "echo", "u", "one"})) +
        encode(makeFrame(FrameType::response, 2, {"test", "echo", "u", {}}));
    for (std::size_t cut = 0; cut <= bytes.size(); cut += 7) {
        Connected connected;
        connected.peer.write(bytes.substr(0, cut));
        // What is there so far is taken in before the rest comes.
        const Message early = connected.initiator.receive(0);
        connected.peer.write(bytes.substr(cut));
        const bool isThere = early.status == good;
        const Message first = isThere ? early : connected.initiator.receive(-1);
        BOOST_TEST((first.payload == "one"));
        const Message second = connected.initiator.receive(-1);
        BOOST_TEST(second.status == good);
        BOOST_TEST(!second.payload.has_value());
    }
}
