// Waiting for events, and their form; see listen.h. Signals end the program as they end any
// other: there is nothing to clean up.
#include "terminal/listen.h"

#include <fmt/chrono.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>

#include "terminal/event_source.h"
#include "terminal/output.h"

namespace kavri::terminal {

namespace {

using Clock = std::chrono::steady_clock;

// "2026-11-20T12:30:00.123Z"
std::string timeText(std::chrono::system_clock::time_point when) {
    const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(when);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(milliseconds);
    return fmt::format("{:%FT%T}.{:03}Z",
                       fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)),
                       (milliseconds - seconds).count());
}

class Listener {
  public:
    explicit Listener(const ListenOptions& options)
        : options_(options), events_(library_, options.socket, options.categories) {
        if (options.timeoutSeconds) {
            deadline_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(*options.timeoutSeconds));
        }
    }

    process::ExitStatus run() {
        std::cerr << "kavri listen: listening" << std::endl;
        while (!isDone()) {
            if (deadline_ && Clock::now() >= *deadline_) {
                return options_.count ? process::ExitStatus::ended : process::ExitStatus::passed;
            }
            wait();
            handleMessages();
        }
        return process::ExitStatus::passed;
    }

  private:
    bool isDone() const {
        return hasReaderLeft_ || (options_.count && printed_ >= *options_.count);
    }

    // Until there is a message, the reader of the output leaves, or the time is over.
    void wait() {
        std::array sources = {pollfd{events_.descriptor(), POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
        int waitMs = -1;
        if (deadline_) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - Clock::now());
            waitMs = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
        }
        if (poll(sources.data(), sources.size(), waitMs) > 0 && sources[1].revents != 0) {
            hasReaderLeft_ = true;
        }
    }

    void handleMessages() {
        for (const EventSource::Message& message : events_.take()) {
            if (isDone()) {
                return;
            }
            std::visit([this](const auto& each) { handle(each); }, message);
        }
    }

    void handle(const Event& event) {
        ++printed_;
        hasReaderLeft_ =
            !(options_.json ? output_.writeLine(jsonOf(event)) : output_.write(lineOf(event)));
    }
    void handle(const ConnectionLost&) {
        std::cerr << "kavri listen: waiting for the broker to come back" << std::endl;
    }
    void handle(const ConnectionRestored& restored) {
        std::cerr << fmt::format(
                         "kavri listen: connected again after {:.1f} s; events in between were "
                         "missed",
                         std::chrono::duration<double>(restored.after).count())
                  << std::endl;
    }

    std::string lineOf(const Event& event) const {
        return fmt::format("{} {} {} {}\n", timeText(event.when), output_.shown(event.category),
                           output_.shown(event.identifier), output_.shown(event.payload));
    }
    static Json jsonOf(const Event& event) {
        Json json = {{"time", timeText(event.when)}};
        addField(json, "category", event.category);
        addField(json, "identifier", event.identifier);
        addField(json, "payload", event.payload);
        return json;
    }

    const ListenOptions& options_;
    const Output output_;
    const Library library_{"kavri listen"};
    EventSource events_;
    std::optional<Clock::time_point> deadline_;
    std::size_t printed_ = 0;
    bool hasReaderLeft_ = false;
};

}  // namespace

process::ExitStatus runListen(const ListenOptions& options) {
    return Listener(options).run();
}

}  // namespace kavri::terminal
