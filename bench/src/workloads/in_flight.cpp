// Throughput: one client keeps a window of requests under way.
//
// One call sends one message and follows each response; batched, half a window
// is sent in one call when half a window has come back.
#include <algorithm>
#include <utility>

#include "figures.h"
#include "session.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr double warmUpShare = 0.2;
constexpr std::uint64_t messagesPerLook = 64;  // at the clock, at most

class Stream {
  public:
    Stream(CheckedClient& client, const Session& session)
        : client_(client),
          window_(session.options().window),
          isBatched_(session.transport().isBatched()) {
        send(window_);
    }

    // How many came back within the time, and the time it took.
    std::pair<std::uint64_t, double> runFor(double seconds) {
        const Clock::time_point begin = Clock::now();
        const Clock::time_point end = after(seconds);
        const std::uint64_t already = client_.received();
        Clock::time_point now = begin;
        while (now < end) {
            const std::size_t count = isBatched_ ? window_ / 2 : std::min(window_, lookEvery_);
            for (std::size_t i = 0; i < count; ++i) {
                client_.receive();
                if (!isBatched_) {
                    client_.send();
                }
            }
            if (isBatched_) {
                client_.sendBatch(count);
            }
            now = Clock::now();
        }
        return {client_.received() - already, secondsBetween(begin, now)};
    }

    void drain() {
        while (client_.received() < client_.sent()) {
            client_.receive();
        }
    }

  private:
    void send(std::size_t count) {
        if (isBatched_) {
            client_.sendBatch(count);
            return;
        }
        for (std::size_t i = 0; i < count; ++i) {
            client_.send();
        }
    }

    CheckedClient& client_;
    const std::size_t window_;
    const bool isBatched_;
    const std::size_t lookEvery_ = messagesPerLook;
};

}  // namespace

nlohmann::json measureInFlight(const Options& options) {
    Session session(options, true);
    const auto idle = session.connectIdle(options.idleClients);
    const std::unique_ptr<CheckedClient> client = session.connect(options.payloadBytes);
    Stream stream(*client, session);
    stream.runFor(options.seconds * warmUpShare);
    const auto [count, seconds] = stream.runFor(options.seconds);
    stream.drain();
    const double perSecond = static_cast<double>(count) / seconds;
    return {{"messagesPerSecond", perSecond},
            {"bytesPerSecond", perSecond * static_cast<double>(options.payloadBytes)},
            {"messages", client->received()}};
}

}  // namespace kavri::bench
