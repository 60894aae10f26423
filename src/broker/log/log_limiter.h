// How often messages may be logged, so that no peer can fill the disk. No I/O.
//
// Messages of one kind differ only in numbers and in quoted text: whatever a peer
// chose must be one of the two. Each kind may be logged so many times in a period,
// and all kinds together so many times. Further messages are counted, and summed
// up in one line for each kind when its period ends.
#ifndef KAVRI_BROKER_LOG_LOG_LIMITER_H
#define KAVRI_BROKER_LOG_LOG_LIMITER_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kavri::broker {

class LogLimiter {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds period{10};
    static constexpr std::size_t messagesOfAKind = 10;
    static constexpr std::size_t messagesInAll = 100;
    // Further kinds share one.
    static constexpr std::size_t kindsInAll = 64;

    // Whether this message may be logged; otherwise it has been counted.
    bool admit(std::string_view message, Clock::time_point now);

    // When the next summary is due: nothing while no message waits to be summed up.
    std::optional<Clock::time_point> nextSummary() const;
    // One line for each kind whose summary is due.
    std::vector<std::string> takeSummaries(Clock::time_point now);
    // Those that are not due yet as well.
    std::vector<std::string> takeAllSummaries(Clock::time_point now);

  private:
    struct Kind {
        std::string name;
        Clock::time_point begin;
        std::size_t admitted = 0;
        std::size_t counted = 0;
    };
    Kind& kindOf(std::string_view message, Clock::time_point now);
    std::size_t admittedInAll() const;
    std::vector<std::string> takeSummariesUntil(Clock::time_point due, Clock::time_point now);

    std::unordered_map<std::uint64_t, Kind> kinds_;  // by a hash of their names
};

// The message with each number as "#", and all from the first quotation mark to
// the last as "...".
std::string kindOfMessage(std::string_view message);

// The text made safe for a log line, also where a peer chose it: anything but
// printable ASCII is written as \xNN, and what is too long is cut off.
std::string printable(std::string_view text);
inline constexpr std::size_t longestPrintedBytes = 1000;

}  // namespace kavri::broker

#endif
