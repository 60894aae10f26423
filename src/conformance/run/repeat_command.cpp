// From the plan to its options; see repeat_command.h.
//
// Left out is what decides neither what the case does nor how it is judged: reports, known
// failures, and which other cases there were.
#include "conformance/run/repeat_command.h"

#include <fmt/format.h>

#include <vector>

#include "base/shell_words.h"
#include "conformance/run/run_plan.h"

namespace kavri::conformance {

std::string repeatCommand(const RunPlan& plan, const std::optional<std::string>& library,
                          const std::string& caseName) {
    const RunPlan byDefault;
    std::vector<std::string> words = {plan.program, "conformance"};
    const auto add = [&words](const char* option, const auto& value) {
        words.emplace_back(option);
        words.push_back(fmt::format("{}", value));
    };
    if (library) {
        add("--library", *library);
    }
    if (plan.socket) {
        add("--socket", *plan.socket);
    }
    if (plan.ownBroker) {
        words.emplace_back("--own-broker");
    }
    if (!plan.serviceRecord.empty()) {
        add("--service-record", plan.serviceRecord);
    }
    if (plan.strict) {
        words.emplace_back("--strict");
    }
    if (!plan.fault.empty()) {
        add("--fault", plan.fault);
    }
    if (plan.level != byDefault.level) {
        add("--level", levelText(plan.level));
    }
    if (plan.timeoutSeconds) {
        add("--timeout", *plan.timeoutSeconds);
    }
    if (plan.callTimeoutSeconds != byDefault.callTimeoutSeconds) {
        add("--call-timeout", plan.callTimeoutSeconds);
    }
    if (plan.timeScale != byDefault.timeScale) {
        add("--time-scale", plan.timeScale);
    }
    if (plan.repeat) {
        // What fails once in many runs is not seen in one.
        add("--repeat", *plan.repeat);
        words.emplace_back("--until-fail");
        if (plan.failsOnLeaks) {
            words.emplace_back("--fail-on-leaks");
        }
    }
    if (plan.jobs != byDefault.jobs && plan.repeat) {
        add("--jobs", plan.jobs);
    }
    add("--case", caseName);
    if (!plan.moduleArguments.empty()) {
        words.emplace_back("--");
        words.insert(words.end(), plan.moduleArguments.begin(), plan.moduleArguments.end());
    }
    return base::shellCommand(words);
}

}  // namespace kavri::conformance
