// The service for category "test", free of any transport: what it answers to
// each command, and the repeat counter that it keeps.
//
//     echo               the request's payload
//     static_response    "my static payload"
//     get_repeat_count   the counter, in decimal
//     clr_repeat_count   no answer; the counter becomes 0
//     inc_repeat_count   no answer; the counter rises by 1
//     event              no answer; one event is published
//     anything else      an empty payload; logged the first time
#ifndef KAVRI_TEST_SERVICE_TEST_SERVICE_H
#define KAVRI_TEST_SERVICE_TEST_SERVICE_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>

namespace kavri::test_service {

// What it serves, and what its events are called.
inline constexpr std::string_view category = "test";
inline constexpr std::string_view eventIdentifier = "event";

class TestService {
  public:
    // Called with the identifier of a command that it does not know, in a form
    // fit for a log; once each.
    using UnknownCommand = std::function<void(std::string_view identifier)>;

    struct Reaction {
        bool answers = false;
        bool publishes = false;  // an event with the request's payload
        // Of the answer; valid until the next call, and NUL-terminated where the
        // request's payload is.
        std::string_view payload;
    };

    explicit TestService(UnknownCommand onUnknown) : onUnknown_(std::move(onUnknown)) {}

    Reaction handle(std::string_view identifier, std::string_view payload);

  private:
    void noteUnknown(std::string_view identifier);

    std::uint64_t repeatCount_ = 0;
    std::string countText_;
    std::set<std::string, std::less<>> unknownNoted_;
    UnknownCommand onUnknown_;
};

}  // namespace kavri::test_service

#endif
