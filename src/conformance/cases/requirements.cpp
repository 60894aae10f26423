// The table; see requirements.h. docs/conformance.md says why each level is what it is.
#include "conformance/cases/requirements.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "conformance/faults/module_checks.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

constexpr std::array levelTexts = {std::pair{Level::may, "may"}, std::pair{Level::should, "should"},
                                   std::pair{Level::must, "must"}};

// Of every case: bringing the library up.
const std::vector<CheckRequirement> bringingUp = {
    {isUp}, {isLogging, Level::may}, {isInitiatorMade}, {isInitiatorThere}};

CaseRequirement ofCase(std::string_view name, Level level, std::vector<CheckRequirement> own) {
    std::vector<CheckRequirement> checks = bringingUp;
    std::ranges::move(own, std::back_inserter(checks));
    return {name, level, std::move(checks)};
}

const std::array table = {
    ofCase(sendPass, Level::must, {{isSent}, {isQuerySent}, {isCountReceived}}),
    ofCase(sendRepeat, Level::must,
           {{isClearSent},
            {isQuerySent},
            {isCountReceived},
            {isCountZero},
            {isIncrementSent},
            {isCountLimit}}),
    ofCase(staticResponse, Level::must,
           {{isStaticSent}, {isReceived}, {isStaticPayload}, {isSameUuid}}),
    ofCase(echo, Level::must, {{isEchoSent}, {isReceived}, {isSamePayload}, {isSameUuid}}),
    // A response that is late is taken for that of the next round.
    ofCase(echoPolled, Level::should,
           {{isEchoSent},
            {isFoundInTime, Level::should},
            {isSamePayload, Level::should},
            {isSameUuid, Level::should}}),
    ofCase(callback, Level::must,
           {{isCallbackInstalled},
            {isStaticSent},
            {hasCategory},
            {hasIdentifier},
            {hasUuid},
            {hasPayload},
            {isResponseContext},
            {isNextInOrder},
            {isCallbackRemoved},
            {areAllDelivered}}),
    ofCase(refusal, Level::must,
           {{isCallbackInstalled}, {isWaitRefused}, {isPollRefused}, {isCallbackRemoved}}),
    ofCase(events, Level::must,
           {{isSubscribed},
            {isEventCallbackInstalled},
            {isEventSent},
            {hasCategory},
            {hasIdentifier},
            {hasPayload},
            {isEventContext},
            {isEventCallbackRemoved},
            {areAllEventsDelivered},
            {isUnsubscribed, Level::should}}),
};

const CaseRequirement* findCase(std::string_view name) {
    const auto* const found = std::ranges::find(table, name, &CaseRequirement::name);
    return found == table.end() ? nullptr : found;
}

}  // namespace

std::string_view levelText(Level level) {
    return std::ranges::find(levelTexts, level, &decltype(levelTexts)::value_type::first)->second;
}

std::optional<Level> levelNamed(std::string_view text) {
    const auto* const found = std::ranges::find_if(
        levelTexts, [text](const auto& known) { return known.second == text; });
    return found == levelTexts.end() ? std::nullopt : std::optional(found->first);
}

std::span<const CaseRequirement> requirements() {
    return table;
}

std::span<const CheckRequirement> checksOf(std::string_view caseName) {
    const CaseRequirement* found = findCase(caseName);
    return found == nullptr ? std::span<const CheckRequirement>() : found->checks;
}

Level levelOf(std::string_view caseName) {
    const CaseRequirement* found = findCase(caseName);
    return found == nullptr ? Level::must : found->level;
}

Level levelOf(std::string_view caseName, std::string_view check) {
    const auto checks = checksOf(caseName);
    const auto found = std::ranges::find(checks, check, &CheckRequirement::text);
    return found == checks.end() ? Level::must : found->level;
}

std::vector<std::string> atLevel(const std::vector<std::string>& names, Level level) {
    std::vector<std::string> selected;
    std::ranges::copy_if(names, std::back_inserter(selected),
                         [level](const std::string& name) { return levelOf(name) >= level; });
    if (selected.empty()) {
        throw process::CommandFailure(
            process::ExitStatus::usage,
            fmt::format("no case of level {} is selected; leave out --level, or select others than "
                        "{}",
                        levelText(level), fmt::join(names, ", ")));
    }
    return selected;
}

nlohmann::json requirementsJson() {
    nlohmann::json all = nlohmann::json::array();
    for (const CaseRequirement& one : table) {
        nlohmann::json checks = nlohmann::json::array();
        for (const CheckRequirement& check : one.checks) {
            checks.push_back({{"text", check.text}, {"level", levelText(check.level)}});
        }
        all.push_back({{"name", one.name}, {"level", levelText(one.level)}, {"checks", checks}});
    }
    return all;
}

}  // namespace kavri::conformance
