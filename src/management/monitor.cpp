// Monitoring over one connection, and over the next where that is lost; see monitor.h.
#include "management/monitor.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iostream>

#include "management/connection.h"
#include "management/observed.h"
#include "process/stop_signals.h"
#include "wire/address.h"
#include "wire/limits.h"

namespace kavri::management {

namespace {

using process::ExitStatus;
using wire::Field;
using wire::Frame;
using wire::FrameType;

// For the handshake and the answer to the question.
constexpr std::chrono::seconds answerTime{5};
// Of those that have come, before the signals are looked at again.
constexpr int framesAtOnce = 1000;

template <typename Number>
std::string optionLine(const char* name, const std::optional<Number>& value) {
    return value ? fmt::format("{}={}\n", name, *value) : "";
}

class Monitor {
  public:
    explicit Monitor(const MonitorOptions& options)
        : options_(options), path_(wire::brokerAddress(options.socket)) {
        if (options.timeoutSeconds) {
            end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(*options.timeoutSeconds));
        }
    }

    ExitStatus run() {
        begin();
        note("shows what passes through the broker at " + path_);
        while (!isDone()) {
            if (!connection_) {
                beginAgain();
            } else {
                showSome();
            }
            std::cout << std::flush;
        }
        note(fmt::format("{} seen, {} lost", seen_, lost_));
        const bool isCutOff = options_.count && seen_ < *options_.count && isOver();
        return isCutOff ? ExitStatus::ended : ExitStatus::passed;
    }

  private:
    bool isOver() const { return end_ && *end_ <= Clock::now(); }
    bool hasEnough() const { return options_.count && seen_ >= *options_.count; }

    // Waits until there is something to do.
    bool isDone() {
        if (hasEnough() || !std::cout) {
            return true;
        }
        // An end of the output that nobody reads any more is reported in any case.
        std::array<pollfd, 3> waited{{{signals_.descriptor(), POLLIN, 0},
                                      {connection_ ? connection_->descriptor() : -1, POLLIN, 0},
                                      {STDOUT_FILENO, 0, 0}}};
        ::poll(waited.data(), waited.size(), millisecondsToWait());
        return signals_.received() || (waited[2].revents & POLLERR) != 0 || isOver();
    }

    int millisecondsToWait() const {
        Clock::time_point until = Clock::now() + std::chrono::hours(1);
        if (end_) {
            until = std::min(until, *end_);
        }
        if (!connection_) {
            until = std::min(until, nextTry_);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        return isBuffered_ ? 0 : static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }

    void begin() {
        const Clock::time_point deadline = Clock::now() + answerTime;
        Connection connection(path_, deadline);
        Frame asked;
        asked.type = FrameType::monitor;
        if (options_.category) {
            asked[Field::category] = *options_.category;
        }
        const std::string lines = optionLine("process", options_.process) +
                                  optionLine("user", options_.user) +
                                  optionLine("connection", options_.connection) +
                                  fmt::format("payload_bytes={}\n", options_.payloadBytes);
        asked[Field::payload] = lines;
        connection.send(asked);
        const Frame answer = connection.receive(deadline);
        if (answer.type != FrameType::acknowledgement) {
            connection.failAsNonsense();
        }
        if (answer.status != KAVRI_CORE_STATUS_NO_ERROR) {
            throw Failure(FailureKind::refused,
                          "broker at " + path_ +
                              ": it has as many monitors as it may, or has no room for this "
                              "user's: end one of them");
        }
        connection_.emplace(std::move(connection));
    }

    // A broker that is gone may come back; one that refuses will go on refusing.
    void beginAgain() {
        if (Clock::now() < nextTry_) {
            return;
        }
        try {
            begin();
        } catch (const Failure& failure) {
            if (failure.kind() == FailureKind::refused) {
                throw;
            }
            pause_ = std::min(2 * pause_, wire::lastReconnectPause);
            nextTry_ = Clock::now() + pause_;
            return;
        }
        note("connected again; what passed meanwhile was not seen");
        noteAsJson("connected");
    }

    void lose(const Failure& failure) {
        if (failure.kind() == FailureKind::refused) {
            throw failure;
        }
        connection_.reset();
        isBuffered_ = false;
        pause_ = wire::firstReconnectPause;
        nextTry_ = Clock::now() + pause_;
        note(std::string(failure.what()) + "; waiting for the next one");
        noteAsJson("lost");
    }

    void showSome() {
        try {
            for (int i = 0; i < framesAtOnce && !hasEnough(); ++i) {
                const auto frame = connection_->receiveNow();
                isBuffered_ = frame.has_value();
                if (!frame) {
                    return;
                }
                if (frame->type == FrameType::observed) {
                    show(readObserved(*frame));
                }
            }
        } catch (const Failure& failure) {
            lose(failure);
        }
    }

    void show(const Observed& observed) {
        std::cout << (options_.json ? jsonOf(observed) : textOf(observed)) << '\n';
        lost_ += observed.lost;
        seen_ += observed.lost == 0 ? 1 : 0;
    }

    static void note(const std::string& line) {
        std::cerr << "kavri monitor: " << line << std::endl;
    }
    void noteAsJson(const char* state) const {
        if (options_.json) {
            std::cout << jsonOfBroker(state) << '\n';
        }
    }

    const MonitorOptions& options_;
    const std::string path_;
    process::StopSignals signals_;
    std::optional<Clock::time_point> end_;
    std::optional<Connection> connection_;
    bool isBuffered_ = false;  // there may be frames that were read already
    std::chrono::milliseconds pause_ = wire::firstReconnectPause;
    Clock::time_point nextTry_;
    std::uint64_t seen_ = 0;
    std::uint64_t lost_ = 0;
};

}  // namespace

ExitStatus runMonitor(const MonitorOptions& options) {
    try {
        return Monitor(options).run();
    } catch (const Failure& failure) {
        throw asCommandFailure(failure);
    }
}

}  // namespace kavri::management
