// Attacks on the broker's event loop: a bystander pings without a pause meanwhile.
#include <cstdio>

#include "attacks.h"
#include "target.h"

namespace kavri::tests {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t pingsBefore = 5000;
constexpr std::size_t leastPings = 100;
constexpr std::chrono::seconds attackTime{5};

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

struct AttackedPings {
    RoundTrips trips;
    bool areAllAnswered = true;
};

// Pings until there are enough and the attack has lasted, or a pong fails to come.
AttackedPings pingDuringAttack(Bystander& bystander, Clock::time_point begin) {
    AttackedPings pings;
    std::vector<std::chrono::nanoseconds>& times = pings.trips.times;
    try {
        while (Clock::now() - begin < attackTime || times.size() < leastPings) {
            times.push_back(bystander.ping());
        }
    } catch (const std::exception&) {
        pings.areAllAnswered = false;
    }
    return pings;
}

void watch(Target& target, const std::function<std::vector<Attacker>()>& attack) {
    Bystander bystander(target.socket());
    RoundTrips quiet = bystander.pings(pingsBefore);
    const std::vector<Attacker> attackers = attack();
    const Clock::time_point begin = Clock::now();
    AttackedPings attacked = pingDuringAttack(bystander, begin);
    const double seconds = secondsSince(begin);
    printPings("undisturbed", quiet, false);
    printPings("attacked", attacked.trips, !attacked.areAllAnswered);
    std::printf("  log          %.2f MB/s\n", target.logMegabytes() / seconds);
    if (const auto stopped = target.stopSeconds()) {
        std::printf("  SIGTERM      obeyed in %.3f s\n", *stopped);
    } else {
        std::printf("  SIGTERM      not obeyed\n");
    }
}

template <typename Make>
std::vector<Attacker> several(int count, const Make& make) {
    std::vector<Attacker> attackers;
    for (int i = 0; i < count; ++i) {
        attackers.push_back(make());
    }
    return attackers;
}

// The socket file is open to all, since another user may connect; nobody may not.
const std::string someoneElseMayConnect = "[access]\nconnect = [1]\n";

void storm(const std::string& broker, std::optional<uid_t> user, const std::string& config) {
    Target target(broker, config);
    watch(target, [&] {
        return several(
            3, [&] { return Attacker([path = target.socket()] { connectAndClose(path); }, user); });
    });
}

const std::string manyConnections = "[limits]\nconnections_per_user = 4000\n";

struct FloodShape {
    int processes;
    std::size_t connectionsEach;
    const char* role;
    FrameType type;
};

void flood(const std::string& broker, const FloodShape& shape) {
    Target target(broker, manyConnections);
    const std::string bytes = repeated(encode(makeFrame(shape.type, 99)), 4096);
    watch(target, [&] {
        return several(shape.processes, [&] {
            return floodingAttacker(target.socket(), shape.connectionsEach, shape.role, bytes);
        });
    });
}

// A responder whose events go to many. A ping between any two keeps them from being
// delivered together.
void fanOut(const std::string& broker) {
    constexpr std::size_t subscribers = 1000;
    Target target(broker, manyConnections);
    const std::string bytes = encode(makeFrame(FrameType::publish, 0, {"news", "x", {}, "x"})) +
                              encode(makeFrame(FrameType::ping, 1));
    watch(target, [&] {
        return several(1, [&] {
            return Attacker([&, floods = std::vector<Flood>()]() mutable {
                while (floods.size() < subscribers) {
                    floods.emplace_back(subscriberOf(target.socket(), "news"), std::string());
                }
                if (floods.size() == subscribers) {
                    floods.emplace_back(responderFor(target.socket(), "news"),
                                        repeated(bytes, 2000));
                }
                for (Flood& each : floods) {
                    each.go();
                }
            });
        });
    });
}

// Nobody reads what the broker logs, and a responder gives it much to log.
void unreadLog(const std::string& broker) {
    constexpr int bogusFrames = 3000;
    Target target(broker, "", false);
    RawPeer responder(target.socket(), "responder");
    Bystander bystander(target.socket());
    int sent = 0;
    try {
        for (; sent < bogusFrames; ++sent) {
            responder.send(makeFrame(FrameType::completion, 99));
            bystander.ping();
        }
        std::printf("  %d bogus frames, and the broker still answers\n", sent);
    } catch (const std::exception&) {
        std::printf("  no pong after %d bogus frames\n", sent);
    }
}

// Clients connect, and send their hello while the broker is stopped for longer than
// the time for the handshake.
void stopped(const std::string& broker) {
    constexpr std::size_t clients = 600;
    Target target(broker, "[limits]\nconnections_per_user = 1000\nhandshake_ms = 1000\n");
    std::vector<RawPeer> peers;
    while (peers.size() < clients) {
        peers.emplace_back(target.socket());
    }
    RawPeer(target.socket(), "initiator");  // once this is welcomed, the others are accepted
    target.signal(SIGSTOP);
    for (RawPeer& peer : peers) {
        peer.send(helloFrame("initiator"));
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    target.signal(SIGCONT);
    const auto closed = std::ranges::count_if(
        peers, [](RawPeer& peer) { return peer.receive().values.type == FrameType::goodbye; });
    std::printf("  closed       %td of %zu\n", closed, peers.size());
}

// Connections, each of which subscribes to some categories that nobody else knows: what a
// report takes long to tell.
std::vector<RawPeer> muchToReport(const std::string& socket) {
    std::vector<RawPeer> peers;
    while (peers.size() < 1000) {
        RawPeer& peer = peers.emplace_back(socket, "initiator");
        for (int i = 0; i < 10; ++i) {
            const std::string name = std::to_string(peers.size()) + "." + std::to_string(i);
            peer.send(makeFrame(FrameType::subscribe, 1, {.category = name}));
            peer.receive();
        }
    }
    return peers;
}

// Managers that ask for one report after the other.
void queries(const std::string& broker) {
    Target target(broker, manyConnections);
    const std::vector<RawPeer> others = muchToReport(target.socket());
    const std::string bytes = repeated(encode(makeFrame(FrameType::query, 99)), 64);
    watch(target, [&] {
        return several(3, [&] { return floodingAttacker(target.socket(), 85, "manager", bytes); });
    });
}

// A manager that asks without end and never reads, and comes back when it is closed.
void unreadQueries(const std::string& broker) {
    Target target(broker, manyConnections + "progress_ms = 1000\n");
    const std::vector<RawPeer> others = muchToReport(target.socket());
    const std::string bytes = repeated(encode(makeFrame(FrameType::query, 99)), 64);
    watch(target, [&] {
        return several(3, [&] {
            return Attacker([&] {
                RawPeer peer(target.socket(), "manager");
                pollfd closed{peer.descriptor(), POLLRDHUP, 0};
                do {
                    peer.writeSome(bytes);
                } while (::poll(&closed, 1, 1) == 0);
            });
        });
    });
}

void refusedManagers(const std::string& broker) {
    Target target(broker, "[access]\nconnect = [65534]\n");
    watch(target, [&] {
        return several(3, [&] {
            return Attacker(
                [&] {
                    RawPeer peer(target.socket());
                    peer.send(helloFrame("manager"));
                    peer.expect(FrameType::goodbye);
                },
                nobody);
        });
    });
}

// A report that never ends, while 4,000 connections come and go.
void churn(const std::string& broker) {
    Target target(broker, "[limits]\nconnections = 5000\nconnections_per_user = 5000\n");
    watch(target, [&] {
        std::vector<Attacker> attackers = several(2, [&] {
            return Attacker([&, peers = std::vector<RawPeer>(), next = std::size_t{0}]() mutable {
                if (peers.size() < 2000) {
                    peers.emplace_back(target.socket(), "initiator");
                } else {
                    peers[next++ % peers.size()] = RawPeer(target.socket(), "initiator");
                }
            });
        });
        attackers.push_back(floodingAttacker(target.socket(), 1, "manager",
                                             encode(makeFrame(FrameType::query, 99))));
        return attackers;
    });
}

Attack plainAttack(const char* name, const char* description, void (*run)(const std::string&)) {
    return {name, description, std::nullopt,
            [run](const std::string& broker, double) { run(broker); }};
}

Attack floodAttack(const char* name, const char* description, const FloodShape& shape) {
    return {name, description, std::nullopt,
            [shape](const std::string& broker, double) { flood(broker, shape); }};
}

}  // namespace

std::vector<Attack> eventLoopAttacks() {
    return {
        {"storm-refused", "three processes connect and close, of a user who may not", std::nullopt,
         [](const std::string& broker, double) { storm(broker, nobody, someoneElseMayConnect); }},
        {"storm-admitted", "three processes connect and close", std::nullopt,
         [](const std::string& broker, double) { storm(broker, std::nullopt, ""); }},
        floodAttack("completions", "a responder ends requests that it never got",
                    {1, 1, "responder", FrameType::completion}),
        floodAttack("one-flood", "one connection pings without end",
                    {1, 1, "initiator", FrameType::ping}),
        floodAttack("pings", "255 connections do", {3, 85, "initiator", FrameType::ping}),
        floodAttack("many-pings", "1,800 connections do", {2, 900, "initiator", FrameType::ping}),
        {"fan-out", "events to 1,000 subscribers", std::nullopt,
         [](const std::string& broker, double) { fanOut(broker); }},
        {"unread-log", "nobody reads the log", std::nullopt,
         [](const std::string& broker, double) { unreadLog(broker); }},
        plainAttack("queries", "255 managers ask for one report after the other", queries),
        plainAttack("unread-queries", "three managers ask without end, and never read",
                    unreadQueries),
        plainAttack("refused-managers", "three processes of a user who may not ask, but asks",
                    refusedManagers),
        plainAttack("churn", "a report without end, while 4,000 connections come and go", churn),
        {"stopped", "600 clients send their hello to a stopped broker", std::nullopt,
         [](const std::string& broker, double) { stopped(broker); }},
    };
}

}  // namespace kavri::tests
