// Attacks a broker of its own and prints what a bystander notices: the figures in
// docs/reliability.md.
//
//     attack [--broker PROGRAM] ATTACK...
//
// Without the name of an attack: all of them, one after the other.
#include "support/attack.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

#include "cli/child_process.h"
#include "cli/temporary_folder.h"

using namespace kavri::tests;
using kavri::cli::ChildProcess;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t pingsBefore = 5000;
constexpr std::size_t leastPings = 100;
constexpr std::chrono::seconds attackTime{5};

std::string brokerProgram = KAVRI_BIN_DIR "/kavri-broker";

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A broker whose log goes to a file, in a folder that any user may enter.
struct Target {
    kavri::cli::TemporaryFolder folder;
    const std::string socket = folder / "broker.sock";
    const std::string log = folder / "log";
    ChildProcess process;

    explicit Target(const std::string& config, bool logIsRead = true)
        : process(start(*this, config, logIsRead)) {
        ::chmod(folder.path().c_str(), 0755);
        if (!eventually([this] { return canConnect(); })) {
            throw std::runtime_error("the broker does not start");
        }
    }

    // exec'd by a shell, since a child's error is a pipe or this process' own.
    static kavri::cli::ChildSpawn start(const Target& target, const std::string& config,
                                        bool logIsRead) {
        std::ofstream(target.folder / "broker.toml") << config;
        std::string command = "exec \"$0\" --socket \"$1\" --config \"$2\"";
        command += logIsRead ? " 2> \"$3\"" : "";
        return {.program = "/bin/sh",
                .arguments = {"-c", command, brokerProgram, target.socket,
                              target.folder / "broker.toml", target.log}};
    }
    bool canConnect() const {
        try {
            RawPeer peer(socket, "initiator");
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }
    double logMegabytes() const {
        std::error_code none;
        const auto bytes = std::filesystem::file_size(log, none);
        return none ? 0 : static_cast<double>(bytes) / 1e6;
    }
};

// Pings until there are enough and the attack has lasted, or one takes too long.
void watch(Target& target, const std::function<std::vector<Attacker>()>& attack) {
    Bystander bystander(target.socket);
    RoundTrips quiet = bystander.pings(pingsBefore);
    const double before = quiet.medianUs();
    const std::vector<Attacker> attackers = attack();
    const Clock::time_point begin = Clock::now();
    RoundTrips trips;
    bool answered = true;
    while (answered && (Clock::now() - begin < attackTime || trips.times.size() < leastPings)) {
        try {
            trips.times.push_back(bystander.ping());
        } catch (const std::exception&) {
            answered = false;
        }
    }
    const double logged = target.logMegabytes() / secondsSince(begin);
    std::printf("  undisturbed: median %.1f us, longest %.1f ms\n", before, quiet.longestMs());
    if (trips.times.empty()) {
        std::printf("  attacked:    no pong in %.0f s\n", secondsSince(begin));
    } else {
        std::printf("  attacked:    median %.1f us, longest %.1f ms, %zu pings%s\n",
                    trips.medianUs(), trips.longestMs(), trips.times.size(),
                    answered ? "" : ", then no pong");
    }
    std::printf("  log:         %.2f MB/s\n", logged);
    const Clock::time_point asked = Clock::now();
    target.process.signal(SIGTERM);
    const auto exit = target.process.wait(std::chrono::seconds(15));
    if (exit) {
        std::printf("  SIGTERM:     obeyed in %.3f s\n", secondsSince(asked));
    } else {
        std::printf("  SIGTERM:     not obeyed in %.0f s\n", secondsSince(asked));
    }
    std::fflush(stdout);
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

void stormOf(std::optional<uid_t> user, const std::string& config) {
    Target target(config);
    watch(target, [&] {
        return several(
            3, [&] { return Attacker([path = target.socket] { connectAndClose(path); }, user); });
    });
}

void floodOf(int processes, int connections, const std::string& role, const std::string& bytes) {
    Target target("[limits]\nconnections_per_user = 4000\n");
    watch(target, [&] {
        return several(processes, [&] {
            return Attacker([&, floods = std::vector<Flood>()]() mutable {
                while (floods.size() < static_cast<std::size_t>(connections)) {
                    floods.emplace_back(target.socket, role, bytes);
                }
                goOn(floods);
            });
        });
    });
}

// A responder whose events go to many, and of which no two stand behind one another.
void fanOut() {
    Target target("[limits]\nconnections_per_user = 4000\n");
    const std::string bytes = encode(makeFrame(FrameType::publish, 0, {"news", "x", {}, "x"})) +
                              encode(makeFrame(FrameType::ping, 1));
    watch(target, [&] {
        return several(1, [&] {
            return Attacker([&, floods = std::vector<Flood>()]() mutable {
                while (floods.size() < 1000) {
                    RawPeer peer(target.socket, "initiator");
                    peer.send(makeFrame(FrameType::subscribe, 1, {.category = "news"}));
                    peer.expect(FrameType::acknowledgement);
                    floods.emplace_back(std::move(peer), std::string());
                }
                if (floods.size() == 1000) {
                    RawPeer peer(target.socket, "responder");
                    peer.send(makeFrame(FrameType::registration, 1, {.category = "news"}));
                    peer.expect(FrameType::acknowledgement);
                    floods.emplace_back(std::move(peer), repeated(bytes, 2000));
                }
                for (Flood& flood : floods) {
                    flood.go();
                }
            });
        });
    });
}

// Nobody reads what the broker logs, and a responder gives it much to log.
void unreadLog() {
    Target target("", false);
    RawPeer responder(target.socket, "responder");
    Bystander bystander(target.socket);
    const std::string completion = encode(makeFrame(FrameType::completion, 99));
    int sent = 0;
    try {
        for (; sent < 3000; ++sent) {
            responder.send(makeFrame(FrameType::completion, 99));
            bystander.ping();
        }
        std::printf("  %d bogus frames, and the broker still answers\n", sent);
    } catch (const std::exception&) {
        std::printf("  no pong after %d bogus frames\n", sent);
    }
}

// Clients that connected and said hello while the broker was stopped for longer
// than the time to say hello in.
void stopped() {
    Target target("[limits]\nconnections_per_user = 1000\nhandshake_ms = 1000\n");
    std::vector<RawPeer> peers;
    for (int i = 0; i < 600; ++i) {
        peers.emplace_back(target.socket);
    }
    RawPeer(target.socket, "initiator");  // when this is welcomed, the others are accepted
    target.process.signal(SIGSTOP);
    for (RawPeer& peer : peers) {
        peer.send(helloFrame("initiator"));
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    target.process.signal(SIGCONT);
    int closed = 0;
    for (RawPeer& peer : peers) {
        closed += peer.receive().values.type == FrameType::goodbye ? 1 : 0;
    }
    std::printf("  closed: %d of %zu\n", closed, peers.size());
}

struct Named {
    const char* name;
    std::function<void()> run;
};

const std::vector<Named> attacks = {
    {"storm-refused", [] { stormOf(nobody, someoneElseMayConnect); }},
    {"storm-admitted", [] { stormOf(std::nullopt, ""); }},
    {"completions",
     [] {
         floodOf(1, 1, "responder", repeated(encode(makeFrame(FrameType::completion, 99)), 4096));
     }},
    {"one-flood",
     [] { floodOf(1, 1, "initiator", repeated(encode(makeFrame(FrameType::ping, 99)), 4096)); }},
    {"pings",
     [] { floodOf(3, 85, "initiator", repeated(encode(makeFrame(FrameType::ping, 99)), 4096)); }},
    {"many-pings",
     [] { floodOf(2, 900, "initiator", repeated(encode(makeFrame(FrameType::ping, 99)), 4096)); }},
    {"fan-out", fanOut},
    {"unread-log", unreadLog},
    {"stopped", stopped},
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> names(argv + 1, argv + argc);
    if (names.size() >= 2 && names[0] == "--broker") {
        brokerProgram = names[1];
        names.erase(names.begin(), names.begin() + 2);
    }
    try {
        for (const Named& attack : attacks) {
            if (names.empty() || std::ranges::count(names, attack.name) > 0) {
                std::printf("%s\n", attack.name);
                std::fflush(stdout);
                attack.run();
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "attack: %s\n", error.what());
        return 1;
    }
    return 0;
}
