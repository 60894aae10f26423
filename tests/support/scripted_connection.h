// The opening of tests in which the test takes the broker's place: an initiator of the real
// library, and the broker's end of its connection.
#ifndef KAVRI_TESTS_SUPPORT_SCRIPTED_CONNECTION_H
#define KAVRI_TESTS_SUPPORT_SCRIPTED_CONNECTION_H

#include <boost/test/unit_test.hpp>
#include <future>
#include <string>
#include <string_view>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/fake_broker.h"

namespace kavri::tests {

// A broker whose every word the test says, before anybody has connected.
struct WithFakeBroker {
    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    FakeBroker broker{address};
    Library library;
};

inline Frame responseFrame(std::uint64_t token, std::string_view uuid,
                           std::string_view payload = "payload") {
    return makeFrame(FrameType::response, token, {"test", "echo", uuid, payload});
}

// Answers the next frame, which must be of this type.
inline void acknowledge(RawPeer& peer, FrameType type = FrameType::subscribe) {
    peer.send(makeFrame(FrameType::acknowledgement, peer.expect(type).values.token));
}

struct ScriptedConnection : WithFakeBroker {
    explicit ScriptedConnection(const kavri_core_ipc_options& chosen = {})
        : initiator(address, chosen) {}

    std::future<RawPeer> welcomed = broker.welcomeNext();
    Initiator initiator;
    RawPeer peer = welcomed.get();

    // Has the initiator subscribe over the connection that there is.
    void subscribe(const std::string& category) {
        auto acknowledged = std::async(std::launch::async, [this] { acknowledge(peer); });
        BOOST_TEST(initiator.subscribe(category) == good);
        acknowledged.get();
    }
    // The broker's part in a connection with so many subscriptions restored.
    void restoreNext(std::size_t subscriptions) {
        peer = broker.acceptAndWelcome();
        for (std::size_t i = 0; i < subscriptions; ++i) {
            acknowledge(peer);
        }
    }
    // A request of the initiator's as it reaches the broker.
    std::uint64_t ask(const std::string& uuid = "0") {
        requireSuccess(initiator.echo(uuid), "not sent");
        return peer.expect(FrameType::request).values.token;
    }
};

}  // namespace kavri::tests

#endif
