// What the library makes of what a broker sends, right or wrong: an initiator
// over a real socket, whose other end says frames with mistakes in them and
// closes. It must hand out nothing but answers, and say that the connection is
// lost. The same every time.
#define BOOST_TEST_MODULE libraryReading

#include <kavri/ipc.h>

#include <boost/test/unit_test.hpp>
#include <cstdlib>
#include <optional>
#include <random>

#include "fuzz/mistakes.h"
#include "process/temporary_folder.h"
#include "support/fake_broker.h"

using namespace kavri::tests;

namespace {

#ifdef KAVRI_SANITIZED
constexpr int rounds = 200;
#else
constexpr int rounds = 1000;
#endif

constexpr std::uint64_t requests = 3;

struct Library {
    kavri::process::TemporaryFolder folder;
    const std::string path = folder / "broker.sock";

    Library() {
        setenv("KAVRI_LOG", "off", 1);  // what it says about mistakes is not looked at here
        kavri_core_init();
    }
    ~Library() { kavri_core_deinit(); }

    kavri_core_ipc_options options() const {
        kavri_core_ipc_options made{};
        made.sizeBytes = sizeof made;
        made.brokerAddress = path.c_str();
        return made;
    }
};

struct Strings {
    char* category = nullptr;
    char* identifier = nullptr;
    char* uuid = nullptr;
    char* payload = nullptr;

    Strings() = default;
    Strings(const Strings&) = delete;
    Strings& operator=(const Strings&) = delete;
    ~Strings() {
        for (char* text : {category, identifier, uuid, payload}) {
            std::free(text);
        }
    }
};

struct Initiator : Library {
    std::optional<FakeBroker> broker{path};
    kavri_core_ipc_initiator* initiator = nullptr;
    RawPeer peer = connect();

    ~Initiator() { kavri_core_ipc_deinit(initiator); }

    // Connected, and nobody listens for a second connection.
    RawPeer connect() {
        auto welcomed = broker->welcomeNext();
        kavri_core_ipc_options chosen = options();
        BOOST_REQUIRE(kavri_core_ipc_initiator_init(nullptr, &chosen, &initiator) ==
                      KAVRI_CORE_STATUS_NO_ERROR);
        RawPeer made = welcomed.get();
        broker.reset();
        return made;
    }

    void sendRequests() {
        for (std::uint64_t i = 0; i < requests; ++i) {
            BOOST_REQUIRE(kavri_core_ipc_initiator_command_send(initiator, "test", "echo", "u",
                                                                "p") == KAVRI_CORE_STATUS_NO_ERROR);
            peer.expect(FrameType::request);
        }
    }

    // Receives until the connection is lost; how many answers there were.
    std::uint64_t receiveAll() {
        std::uint64_t answers = 0;
        for (std::uint64_t turn = 0; turn <= 2 * requests; ++turn) {
            Strings strings;
            const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
                initiator, -1, &strings.category, &strings.identifier, &strings.uuid,
                &strings.payload);
            if (status == KAVRI_CORE_STATUS_NO_ERROR) {
                BOOST_TEST((strings.category && strings.identifier && strings.uuid));
                ++answers;
            } else if (status == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE) {
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
        Initiator initiator;
        initiator.sendRequests();
        std::string bytes = answers(random);
        if (random() % 2 == 0) {
            mutate(bytes, random);
        }
        initiator.peer.write(bytes);
        initiator.peer.close();
        received += initiator.receiveAll();
    }
    BOOST_TEST(received > static_cast<std::uint64_t>(rounds) / 3);
    BOOST_TEST(received < static_cast<std::uint64_t>(rounds) * requests);
}

BOOST_AUTO_TEST_CASE(framesCutAtAnyByteAreTheSame) {
    const std::string bytes =
        encode(makeFrame(FrameType::response, 1, {"test", "echo", "u", "one"})) +
        encode(makeFrame(FrameType::response, 2, {"test", "echo", "u", {}}));
    for (std::size_t cut = 0; cut <= bytes.size(); cut += 7) {
        Initiator initiator;
        initiator.sendRequests();
        initiator.peer.write(bytes.substr(0, cut));
        Strings first;
        const auto receive = [&initiator](Strings& strings, int timeoutMs) {
            return kavri_core_ipc_initiator_response_receive(initiator.initiator, timeoutMs,
                                                             &strings.category, &strings.identifier,
                                                             &strings.uuid, &strings.payload);
        };
        // What is there so far is taken in before the rest comes.
        const bool firstIsThere = receive(first, 0) == KAVRI_CORE_STATUS_NO_ERROR;
        initiator.peer.write(bytes.substr(cut));
        if (!firstIsThere) {
            BOOST_REQUIRE(receive(first, -1) == KAVRI_CORE_STATUS_NO_ERROR);
        }
        BOOST_TEST(std::string(first.payload) == "one");
        Strings second;
        BOOST_REQUIRE(receive(second, -1) == KAVRI_CORE_STATUS_NO_ERROR);
        BOOST_TEST((second.payload == nullptr));
    }
}

// Both may come in one read, before anybody has asked for a request.
BOOST_FIXTURE_TEST_CASE(aRequestRightBehindTheAcknowledgementIsReceived, Library) {
    FakeBroker broker(path);
    auto served = std::async(std::launch::async, [&broker] {
        RawPeer peer = broker.acceptAndWelcome();
        peer.expect(FrameType::registration);
        peer.write(encode(makeFrame(FrameType::acknowledgement, 0)) +
                   encode(makeFrame(FrameType::request, 5, {"test", "echo", "u", "early"})));
        return peer;
    });
    kavri_core_ipc_options chosen = options();
    kavri_core_ipc_responder* responder = nullptr;
    BOOST_REQUIRE(kavri_core_ipc_responder_init(nullptr, &chosen, "test", &responder) ==
                  KAVRI_CORE_STATUS_NO_ERROR);
    const RawPeer peer = served.get();
    kavri_core_ipc_request request{};
    Strings strings;
    const kavri_core_status status = kavri_core_ipc_responder_request_receive(
        responder, 0, &request, &strings.category, &strings.identifier, &strings.uuid,
        &strings.payload);
    BOOST_TEST(status == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(request.token == 5U);
    BOOST_TEST(std::string(strings.payload != nullptr ? strings.payload : "") == "early");
    kavri_core_ipc_responder_deinit(responder);
}
