// Attacks on the accounts: memory that the broker holds for somebody.
#include <cstdio>

#include "attacks.h"
#include "target.h"

namespace kavri::tests {

namespace {

struct NamesHeld {
    std::vector<RawPeer> peers;
    std::size_t subscriptions = 0;
};

// Connections that subscribe to 1024 names of 64 KiB each, or as many as are granted.
NamesHeld subscribeToNames(const std::string& socket, std::size_t connections) {
    constexpr std::size_t namesEach = 1024;
    NamesHeld held;
    for (std::size_t number = 0; number < connections; ++number) {
        try {
            RawPeer& peer = held.peers.emplace_back(socket, "initiator");
            for (std::size_t i = 0; i < namesEach; ++i) {
                std::string name = std::to_string(number) + "." + std::to_string(i) + ".";
                name.resize(65536, 'n');
                peer.send(makeFrame(FrameType::subscribe, 1, {.category = name}));
                held.subscriptions += peer.receive().values.status == 0 ? 1 : 0;
            }
        } catch (const std::exception&) {
            // The broker closed it, or ended.
        }
    }
    return held;
}

void names(const std::string& broker, double connections) {
    Target target(broker);
    watchAttack(target, [&] {
        NamesHeld held = subscribeToNames(target.socket(), static_cast<std::size_t>(connections));
        std::printf("  held         %zu subscriptions, %.0f MB resident\n", held.subscriptions,
                    target.residentMegabytes());
        return held;
    });
}

void starved(const std::string& broker, double megabytes) {
    Target target(broker);
    target.limitAddressSpace(static_cast<std::size_t>(megabytes) << 20);
    watchAttack(target, [&] {
        NamesHeld held = subscribeToNames(target.socket(), 8);
        std::printf("  held         %zu subscriptions\n", held.subscriptions);
        return held;
    });
}

void incompleteFrames(const std::string& broker, double connections) {
    Target target(broker);
    watchAttack(target, [&] {
        const std::string payload(1'000'000, 'p');
        std::string frame = encode(makeFrame(FrameType::request, 1, {"nobody", "", "", payload}));
        frame.pop_back();
        std::vector<RawPeer> peers;
        while (peers.size() < static_cast<std::size_t>(connections)) {
            peers.emplace_back(target.socket(), "initiator").write(frame);
        }
        const auto print = [&target](const char* when) {
            std::printf("  %-12s %.0f MB resident, %zu closed\n", when, target.residentMegabytes(),
                        target.closings().size());
        };
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        print("at once");
        std::this_thread::sleep_for(std::chrono::seconds(14));
        print("14 s later");
        return peers;
    });
}

// Initiators that leave while a responder has all of their requests, and answers none.
void leavers(const std::string& broker, double initiators) {
    constexpr int requestsEach = 60'000;
    Target target(broker);
    watchAttack(target, [&] {
        RawPeer deaf = responderFor(target.socket(), "work");
        std::jthread reading([&deaf] {
            std::vector<char> chunk(262'144);
            while (deaf.readUpTo(chunk) > 0) {
            }
        });
        const std::string request = encode(makeFrame(FrameType::request, 1, {"work", "", "", ""}));
        const std::string ping = encode(makeFrame(FrameType::ping, 1));
        for (int i = 0; i < static_cast<int>(initiators); ++i) {
            RawPeer peer(target.socket(), "initiator");
            peer.write(repeated(request, requestsEach));
            peer.write(ping);
            while (peer.receive().values.type != FrameType::pong) {
            }
        }
        RawPeer innocent(target.socket(), "initiator");
        innocent.write(request + ping);
        const bool isDelivered = innocent.receive().values.type == FrameType::pong;
        std::printf("  the next     initiator's request is %s; %.1f MB resident\n",
                    isDelivered ? "delivered" : "refused", target.residentMegabytes());
        deaf.endSending();
        return 0;
    });
}

}  // namespace

std::vector<Attack> accountAttacks() {
    return {
        {"names", "N connections that subscribe to 1024 names of 64 KiB each", 8, names},
        {"partial", "N connections that stay a byte short of a 1 MB frame", 250, incompleteFrames},
        {"leavers", "N initiators that leave while their requests are pending", 5, leavers},
        {"starved", "names of 8 connections, with N MiB of addresses", 60, starved},
    };
}

}  // namespace kavri::tests
