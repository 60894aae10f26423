// Attacks on flow control: receivers that read slowly, and large requests.
#include <cstdio>

#include "attacks.h"
#include "service.h"
#include "target.h"

namespace kavri::tests {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string requestOf(std::size_t payloadBytes) {
    const std::string payload(payloadBytes, 'x');
    return encode(makeFrame(FrameType::request, 1, {"work", "", "", payload}));
}

// What a subscriber got, and when it had it.
struct Received {
    std::size_t bytes = 0;
    double seconds = 0;
};

// Reads `total` bytes at no more than the given rate, or until no more come.
Received readSlowly(RawPeer& peer, std::size_t total, double bytesPerSecond,
                    const std::stop_token& stopped) {
    // A hundred reads a second, so that the rate is steady.
    std::vector<char> chunk(std::max<std::size_t>(
        4096, static_cast<std::size_t>(std::min(bytesPerSecond / 100, 262'144.0))));
    const Clock::time_point begin = Clock::now();
    Received received;
    while (received.bytes < total && !stopped.stop_requested()) {
        const std::chrono::duration<double> due(static_cast<double>(received.bytes) /
                                                bytesPerSecond);
        std::this_thread::sleep_until(begin + std::chrono::duration_cast<Clock::duration>(due));
        try {
            const std::size_t count = peer.readUpTo(chunk);
            if (count == 0) {
                break;
            }
            received.bytes += count;
        } catch (const std::exception&) {
            break;
        }
    }
    received.seconds = secondsSince(begin);
    return received;
}

// Two subscribers to one stream of events: a slow one, and one that reads all the time.
void slowReader(const std::string& broker, double megabytesPerSecond) {
    constexpr double unlimited = 1e12;
    Target target(broker);
    watchAttack(target, [&] {
        const double rate = megabytesPerSecond * 1e6;
        // A reader that is slower than any drain rate is not waited for to the end.
        const bool isReadToTheEnd = megabytesPerSecond >= 1;
        RawPeer slow = subscriberOf(target.socket(), "news");
        RawPeer quick = subscriberOf(target.socket(), "news");
        RawPeer publisher = responderFor(target.socket(), "news");
        const std::string payload(200, 'x');
        const std::string burst =
            repeated(encode(makeFrame(FrameType::publish, 0, {"news", "e", {}, payload})), 500);
        const double wanted = isReadToTheEnd ? std::max(4e6, rate * 5) : 60e6;
        const std::size_t bursts = static_cast<std::size_t>(wanted) / burst.size();
        const std::size_t total = bursts * burst.size();

        Received slowly;
        Received quickly;
        double publishedSeconds = 0;
        {
            std::jthread slowThread([&](const std::stop_token& stopped) {
                slowly = readSlowly(slow, total, rate, stopped);
            });
            std::jthread publishing([&] {
                const Clock::time_point begin = Clock::now();
                for (std::size_t i = 0; i < bursts; ++i) {
                    publisher.write(burst);
                }
                publishedSeconds = secondsSince(begin);
            });
            quickly = readSlowly(quick, total, unlimited, {});
            if (isReadToTheEnd) {
                slowThread.join();
            }
        }
        std::printf("  published    %.0f MB in %.2f s\n", static_cast<double>(total) / 1e6,
                    publishedSeconds);
        std::printf("  quick reader got %s after %.2f s\n",
                    quickly.bytes == total ? "everything" : "not everything", quickly.seconds);
        std::printf("  slow reader  got %.1f %%%s\n",
                    100.0 * static_cast<double>(slowly.bytes) / static_cast<double>(total),
                    isReadToTheEnd ? "" : " until then");
        for (const std::string& line : target.closings()) {
            std::printf("  log          %s\n", line.c_str());
        }
        return 0;
    });
}

// A request of 20 KB now and then, beside two senders of nothing but small requests.
void largeBesideSmall(const std::string& broker) {
    Target target(broker);
    watchAttack(target, [&] {
        const Service service(target.socket(), "work");
        const std::string small = repeated(requestOf(4096), 16);
        std::vector<Attacker> senders;
        senders.push_back(floodingAttacker(target.socket(), 1, "initiator", small));
        senders.push_back(floodingAttacker(target.socket(), 1, "initiator", small));
        std::this_thread::sleep_for(std::chrono::seconds(1));
        RawPeer peer(target.socket(), "initiator");
        const std::string large = requestOf(20'000);
        RoundTrips trips;
        for (int i = 0; i < 20; ++i) {
            const Clock::time_point begin = Clock::now();
            peer.write(large);
            peer.receive();
            trips.times.push_back(Clock::now() - begin);
        }
        std::printf("  20 KB        answered: median %.1f ms, longest %.1f ms\n",
                    trips.medianUs() / 1000, trips.longestMs());
        return senders;
    });
}

void largeRequests(const std::string& broker, double senders) {
    constexpr std::chrono::seconds settleTime{3};
    constexpr std::chrono::seconds measuredTime{5};
    Target target(broker);
    watchAttack(target, [&] {
        const Service service(target.socket(), "work");
        Attacker attacker = floodingAttacker(target.socket(), static_cast<std::size_t>(senders),
                                             "initiator", requestOf(1'000'000));
        std::this_thread::sleep_for(settleTime);
        const double processorBefore = target.processorSeconds();
        const std::size_t answeredBefore = service.answered();
        const Clock::time_point begin = Clock::now();
        std::this_thread::sleep_for(measuredTime);
        const double seconds = secondsSince(begin);
        const auto answered = static_cast<double>(service.answered() - answeredBefore);
        const double processor = target.processorSeconds() - processorBefore;
        std::printf("  answered     %.0f requests/s\n", answered / seconds);
        std::printf("  processor    %.0f %% of one, %.2f ms a request\n", 100 * processor / seconds,
                    1000 * processor / std::max(1.0, answered));
        std::printf("  resident     %.0f MB\n", target.residentMegabytes());
        std::printf("  closed       %zu\n", target.closings().size());
        return attacker;
    });
}

}  // namespace

std::vector<Attack> flowControlAttacks() {
    return {
        {"reader", "a subscriber that reads N MB/s, of events without a pause", 10, slowReader},
        {"large", "20 KB requests beside two senders of 4 KB requests", std::nullopt,
         [](const std::string& broker, double) { largeBesideSmall(broker); }},
        {"senders", "N senders of 1 MB requests to one responder", 200, largeRequests},
    };
}

}  // namespace kavri::tests
