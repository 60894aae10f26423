// The commands of the test service; see test_service.h.
#include "test_service/test_service.h"

#include <algorithm>

namespace kavri::test_service {

namespace {

// A peer that invents names must not fill the memory: further ones are answered
// all the same, and not logged.
constexpr std::size_t unknownNotedLimit = 100;

// As it may stand in one line of a log: nothing that breaks or fills it.
std::string printable(std::string_view identifier) {
    constexpr std::size_t shown = 64;
    std::string text(identifier.substr(0, shown));
    std::ranges::replace_if(
        text, [](unsigned char byte) { return byte < ' ' || byte > '~'; }, '?');
    return identifier.size() > shown ? text + "..." : text;
}

constexpr TestService::Reaction answer(std::string_view payload) {
    return {true, false, payload};
}
constexpr TestService::Reaction silence() {
    return {};
}
constexpr TestService::Reaction publication() {
    return {false, true, {}};
}

}  // namespace

TestService::Reaction TestService::handle(std::string_view identifier, std::string_view payload) {
    if (identifier == "echo") {
        return answer(payload);
    }
    if (identifier == "static_response") {
        return answer("my static payload");
    }
    if (identifier == "get_repeat_count") {
        countText_ = std::to_string(repeatCount_);
        return answer(countText_);
    }
    if (identifier == "clr_repeat_count") {
        repeatCount_ = 0;
        return silence();
    }
    if (identifier == "inc_repeat_count") {
        ++repeatCount_;
        return silence();
    }
    if (identifier == "event") {
        return publication();
    }
    noteUnknown(identifier);
    return answer("");
}

void TestService::noteUnknown(std::string_view identifier) {
    if (unknownNoted_.size() < unknownNotedLimit && !unknownNoted_.contains(identifier)) {
        unknownNoted_.emplace(identifier);
        onUnknown_(printable(identifier));
    }
}

}  // namespace kavri::test_service
