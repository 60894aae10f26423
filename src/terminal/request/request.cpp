// Sending requests, and waiting for what becomes of them; see request.h.
//
// Without a rate, each is sent once the one before has its outcome. With a rate, they are
// sent when they are due, whatever is pending, so that a service that does not keep up shows.
#include "terminal/request/request.h"

#include <fmt/format.h>
#include <poll.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <map>

#include "base/printable.h"
#include "base/text_scanner.h"
#include "process/stop_signals.h"
#include "terminal/latency_report.h"
#include "terminal/outcome.h"
#include "terminal/output.h"
#include "terminal/payload.h"
#include "terminal/request/request_tally.h"
#include "terminal/request/requester.h"

namespace kavri::terminal {

namespace {

using Clock = std::chrono::steady_clock;

Clock::duration inSeconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string newUuid() {
    uuid_t bytes;
    uuid_generate(bytes);
    std::array<char, UUID_STR_LEN> text{};
    uuid_unparse_lower(bytes, text.data());
    return text.data();
}

// One request with its outcome.
struct Done {
    std::string uuid;
    Arrival arrival;
    Clock::duration latency;

    Outcome outcome() const {
        return arrival.response ? Outcome::answered : outcomeOf(arrival.status);
    }
};

class RequestRun {
  public:
    explicit RequestRun(const RequestOptions& options)
        : options_(options),
          payload_(readPayload(options.payload)),
          timeout_(inSeconds(options.timeoutSeconds)),
          requester_(library_, options.socket,
                     std::chrono::ceil<std::chrono::milliseconds>(timeout_)) {}

    // Until all have their outcome, or `stop` is readable. `use` gets each that is done.
    template <typename Use>
    void run(int stop, const Use& use) {
        const std::size_t count = options_.count.value_or(1);
        begin_ = Clock::now();
        bool isStopped = false;
        while ((sent_ < count || !pending_.empty()) && !isStopped) {
            if (sent_ < count && Clock::now() >= nextSend()) {
                send(use);
            }
            isStopped = wait(stop, sent_ < count);
            for (Arrival& arrival : requester_.take()) {
                finish(std::move(arrival), use);
            }
            expire(use);
        }
    }

    std::chrono::duration<double> took() const { return Clock::now() - begin_; }

  private:
    struct Sent {
        std::string uuid;
        Clock::time_point when;
    };

    Clock::time_point nextSend() const {
        if (options_.perSecond) {
            return begin_ + inSeconds(static_cast<double>(sent_) / *options_.perSecond);
        }
        return pending_.empty() ? begin_ : Clock::time_point::max();
    }

    template <typename Use>
    void send(const Use& use) {
        ++sent_;
        const Sent& sent = order_.emplace_back(Sent{newUuid(), Clock::now()});
        pending_.emplace(sent.uuid, sent.when);
        const kavri_core_status status =
            requester_.send(options_.category, options_.command, sent.uuid, payload_);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            finish({.when = Clock::now(), .uuid = sent.uuid, .status = status, .response = {}},
                   use);
        }
    }

    // For an arrival, the next send or the next time-out; true where it is to stop.
    bool wait(int stop, bool hasMore) const {
        Clock::time_point until = Clock::now() + std::chrono::hours(1);
        if (hasMore) {
            until = std::min(until, nextSend());
        }
        if (!order_.empty()) {
            until = std::min(until, order_.front().when + timeout_);
        }
        const auto left = std::max(until - Clock::now(), Clock::duration(0));
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        const timespec limit = {seconds.count(), (left - seconds).count()};
        std::array sources = {pollfd{requester_.descriptor(), POLLIN, 0}, pollfd{stop, POLLIN, 0}};
        return ppoll(sources.data(), sources.size(), &limit, nullptr) > 0 &&
               sources[1].revents != 0;
    }

    // What comes after the time-out of its request is dropped.
    template <typename Use>
    void finish(Arrival arrival, const Use& use) {
        const auto found = pending_.find(arrival.uuid);
        if (found == pending_.end()) {
            return;
        }
        const Clock::duration latency = arrival.when - found->second;
        pending_.erase(found);
        while (!order_.empty() && !pending_.contains(order_.front().uuid)) {
            order_.pop_front();
        }
        use(Done{arrival.uuid, std::move(arrival), latency});
    }

    template <typename Use>
    void expire(const Use& use) {
        const Clock::time_point now = Clock::now();
        while (!order_.empty() && order_.front().when + timeout_ <= now) {
            finish({.when = now,
                    .uuid = order_.front().uuid,
                    .status = KAVRI_CORE_STATUS_IPC_NO_MESSAGE,
                    .response = {}},
                   use);
        }
    }

    const RequestOptions& options_;
    const std::string payload_;
    const Clock::duration timeout_;
    const Library library_{"kavri request"};
    Requester requester_;
    Clock::time_point begin_;
    std::size_t sent_ = 0;
    std::map<std::string, Clock::time_point> pending_;
    std::deque<Sent> order_;  // from the oldest that is pending
};

std::string complaintOn(const Done& done, const RequestOptions& options) {
    const std::string category = base::printable(options.category);
    switch (done.outcome()) {
        case Outcome::unanswered:
            return fmt::format("\"{}\" ended the request without an answer", category);
        case Outcome::timedOut:
            return fmt::format("no answer from \"{}\" within {} s; it may still act on the request",
                               category, options.timeoutSeconds);
        case Outcome::unknown:
            return fmt::format("whether \"{}\" acted on the request is unknown: {}", category,
                               explained(done.arrival.status));
        default:
            return fmt::format("the request to \"{}\" was not delivered: {}", category,
                               explained(done.arrival.status));
    }
}

Json jsonOf(const Done& done) {
    Json json = {{"outcome", keyOf(done.outcome())}, {"uuid", done.uuid}};
    if (const auto& response = done.arrival.response) {
        json["latency_us"] = microseconds(done.latency);
        addField(json, "category", response->category);
        addField(json, "identifier", response->identifier);
        if (response->payload) {
            addField(json, "payload", *response->payload);
        } else {
            json["payload"] = nullptr;
        }
    } else if (done.arrival.status != KAVRI_CORE_STATUS_NO_ERROR) {
        json["reason"] = kavri_core_status_text(done.arrival.status);
    }
    return json;
}

// Line breaks stay. A terminal's next prompt is to stand on a line of its own.
std::string payloadText(const Output& output, std::string_view payload) {
    if (!output.isTerminal()) {
        return std::string(payload);
    }
    std::string text;
    while (const auto line = base::takeLine(payload)) {
        text += output.shown(*line) + "\n";
    }
    return text;
}

// The line of what went wrong comes after the JSON, which shows it too.
process::ExitStatus show(const Done& done, const RequestOptions& options) {
    const Output output;
    if (options.json) {
        output.writeLine(jsonOf(done));
    } else if (const auto& response = done.arrival.response) {
        output.write(payloadText(output, response->payload.value_or("")));
    }
    if (done.outcome() != Outcome::answered) {
        throw process::CommandFailure(exitStatusOf(done.outcome()), complaintOn(done, options));
    }
    return process::ExitStatus::passed;
}

process::ExitStatus runOne(const RequestOptions& options) {
    RequestRun run(options);
    process::ExitStatus status = process::ExitStatus::passed;
    run.run(-1, [&](const Done& done) { status = show(done, options); });
    return status;
}

// Where a signal ends it, what was counted until then is shown.
process::ExitStatus runMany(const RequestOptions& options) {
    RequestTally tally;
    std::optional<int> signal;
    {
        RequestRun run(options);
        process::StopSignals signals;
        run.run(signals.descriptor(), [&tally](const Done& done) {
            done.arrival.response ? tally.addAnswer(done.latency)
                                  : tally.addFailure(done.arrival.status);
        });
        const Output output;
        options.json ? output.writeLine(tally.json(run.took()))
                     : output.write(tally.text(run.took()));
        signal = signals.received();
    }
    if (signal) {
        process::dieBySignal(*signal);
    }
    return tally.worst();
}

}  // namespace

process::ExitStatus runRequest(const RequestOptions& options) {
    return options.count ? runMany(options) : runOne(options);
}

}  // namespace kavri::terminal
