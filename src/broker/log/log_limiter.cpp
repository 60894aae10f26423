// How often messages may be logged; see log_limiter.h.
#include "broker/log/log_limiter.h"

#include <algorithm>
#include <array>

namespace kavri::broker {

namespace {

const std::string otherKinds = "messages of other kinds";

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The characters of the message's kind, without the cost of a string.
template <typename Take>
void forEachOfKind(std::string_view message, const Take& take) {
    const std::size_t quoted = std::min(message.find('"'), message.size());
    const std::size_t last = message.rfind('"');
    bool inNumber = false;
    for (std::size_t i = 0; i < message.size(); ++i) {
        if (i == quoted) {
            for (const char c : std::string_view("\"...\"")) {
                take(c);
            }
            i = last;
        } else if (!isDigit(message[i])) {
            take(message[i]);
        } else if (!inNumber) {
            take('#');
        }
        inNumber = isDigit(message[i]);
    }
}

// FNV-1a.
std::uint64_t hashOfKind(std::string_view message) {
    std::uint64_t hash = 14695981039346656037U;
    forEachOfKind(message, [&hash](char c) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    });
    return hash;
}

}  // namespace

std::string kindOfMessage(std::string_view message) {
    std::string kind;
    forEachOfKind(message, [&kind](char c) { kind += c; });
    return kind;
}

std::string printable(std::string_view text) {
    constexpr std::array digits = {'0', '1', '2', '3', '4', '5', '6', '7',
                                   '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
    std::string printed;
    for (const char c : text) {
        if (printed.size() >= longestPrintedBytes) {
            return printed + "...";
        }
        if (c >= ' ' && c <= '~') {
            printed += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            printed += "\\x";
            printed += digits[byte >> 4U];
            printed += digits[byte & 15U];
        }
    }
    return printed;
}

bool LogLimiter::admit(std::string_view message, Clock::time_point now) {
    Kind& kind = kindOf(message, now);
    // A kind with a summary to come stays closed until it was written.
    if (kind.counted > 0 || kind.admitted >= messagesOfAKind || admittedInAll() >= messagesInAll) {
        ++kind.counted;
        return false;
    }
    ++kind.admitted;
    return true;
}

LogLimiter::Kind& LogLimiter::kindOf(std::string_view message, Clock::time_point now) {
    std::erase_if(kinds_, [now](const auto& kind) {
        return kind.second.counted == 0 && kind.second.begin + period <= now;
    });
    if (const auto known = kinds_.find(hashOfKind(message)); known != kinds_.end()) {
        return known->second;
    }
    const bool isOther = kinds_.size() >= kindsInAll;
    const std::string name = isOther ? otherKinds : printable(kindOfMessage(message));
    return kinds_.try_emplace(hashOfKind(isOther ? name : message), Kind{name, now}).first->second;
}

std::size_t LogLimiter::admittedInAll() const {
    std::size_t sum = 0;
    for (const auto& [hash, kind] : kinds_) {
        sum += kind.admitted;
    }
    return sum;
}

std::optional<LogLimiter::Clock::time_point> LogLimiter::nextSummary() const {
    std::optional<Clock::time_point> next;
    for (const auto& [hash, kind] : kinds_) {
        if (kind.counted > 0 && (!next || kind.begin + period < *next)) {
            next = kind.begin + period;
        }
    }
    return next;
}

std::vector<std::string> LogLimiter::takeSummaries(Clock::time_point now) {
    return takeSummariesUntil(now, now);
}

std::vector<std::string> LogLimiter::takeAllSummaries(Clock::time_point now) {
    return takeSummariesUntil(Clock::time_point::max(), now);
}

std::vector<std::string> LogLimiter::takeSummariesUntil(Clock::time_point due,
                                                        Clock::time_point now) {
    std::vector<std::string> lines;
    std::erase_if(kinds_, [&](const auto& entry) {
        const Kind& kind = entry.second;
        if (kind.counted == 0 || kind.begin + period > due) {
            return false;
        }
        const auto time = std::chrono::ceil<std::chrono::seconds>(now - kind.begin);
        lines.push_back("... and " + std::to_string(kind.counted) + " more in " +
                        std::to_string(time.count()) + " s: " + kind.name);
        return true;
    });
    return lines;
}

}  // namespace kavri::broker
