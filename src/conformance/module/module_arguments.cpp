// Tables of options, and what follows from them; see module_arguments.h.
#include "conformance/module/module_arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "base/environment.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

// An option of the framework.
struct Option {
    std::string_view name;      // without the dashes
    char letter;                // of the short form; 0: there is none
    std::string_view variable;  // empty: there is none
};

struct Reserved {
    Option option;
    std::string_view instead;  // what the user can do
};

constexpr std::string_view runsCases = "run test_ipc_initiator on its own for that";

constexpr std::array reserved = {
    Reserved{{"run_test", 't', "BOOST_TEST_RUN_FILTERS"}, "select cases with --case"},
    Reserved{{"result_code", 'c', "BOOST_TEST_RESULT_CODE"},
             "the exit status of kavri conformance is always the verdict"},
    Reserved{{"catch_system_errors", 's', "BOOST_TEST_CATCH_SYSTEM_ERRORS"},
             "kavri conformance reports crashes itself"},
    Reserved{{"list_content", 0, "BOOST_TEST_LIST_CONTENT"}, runsCases},
    Reserved{{"list_labels", 0, "BOOST_TEST_LIST_LABELS"}, runsCases},
    Reserved{{"help", 'h', ""}, runsCases},
    Reserved{{"usage", '?', ""}, runsCases},
    Reserved{{"version", 0, ""}, runsCases},
};

// The framework's own log and report add nothing to the tool's, and are silent unless the
// user asks for one.
constexpr std::array logOptions = {Option{"log_level", 'l', "BOOST_TEST_LOG_LEVEL"},
                                   Option{"log_format", 'f', "BOOST_TEST_LOG_FORMAT"},
                                   Option{"log_sink", 'k', "BOOST_TEST_LOG_SINK"},
                                   Option{"logger", 0, "BOOST_TEST_LOGGER"},
                                   Option{"output_format", 'o', "BOOST_TEST_OUTPUT_FORMAT"}};
constexpr std::array reportOptions = {Option{"report_level", 'r', "BOOST_TEST_REPORT_LEVEL"}};
constexpr std::array colourOptions = {Option{"color_output", 'x', "BOOST_TEST_COLOR_OUTPUT"}};

// The framework takes any unambiguous beginning of a long name.
bool means(const std::string& argument, const Option& option) {
    if (argument.starts_with("--") && argument.size() > 2) {
        return option.name.starts_with(argument.substr(2, argument.find('=') - 2));
    }
    return argument.size() > 1 && argument[0] == '-' && argument[1] == option.letter;
}

bool isAnyChosen(std::span<const Option> options, const std::vector<std::string>& userArguments) {
    return std::ranges::any_of(options, [&](const Option& option) {
        return !base::environmentVariable(std::string(option.variable).c_str()).empty() ||
               std::ranges::any_of(userArguments, [&](const std::string& argument) {
                   return means(argument, option);
               });
    });
}

}  // namespace

void checkModuleArguments(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "--") {
            return;  // what follows is no argument of the framework
        }
        for (const Reserved& entry : reserved) {
            if (means(argument, entry.option)) {
                throw process::CommandFailure(
                    process::ExitStatus::usage,
                    fmt::format("'{}' after '--': {}", argument, entry.instead));
            }
        }
    }
}

std::vector<std::string> reservedVariables() {
    std::vector<std::string> variables;
    for (const Reserved& entry : reserved) {
        if (!entry.option.variable.empty()) {
            variables.emplace_back(entry.option.variable);
        }
    }
    return variables;
}

std::vector<std::string> moduleCommandLine(const std::vector<std::string>& cases,
                                           const std::vector<std::string>& userArguments) {
    // A crash is to end the module by its signal, and not by a handler that
    // goes on in a process that is no longer sound.
    std::vector<std::string> arguments = {"--catch_system_errors=no"};
    for (const std::string& name : cases) {
        arguments.push_back("--run_test=" + name);
    }
    const auto addUnlessChosen = [&](std::span<const Option> options, const char* argument) {
        if (!isAnyChosen(options, userArguments)) {
            arguments.emplace_back(argument);
        }
    };
    addUnlessChosen(logOptions, "--log_level=nothing");
    addUnlessChosen(reportOptions, "--report_level=no");
    addUnlessChosen(colourOptions, "--color_output=no");
    arguments.insert(arguments.end(), userArguments.begin(), userArguments.end());
    return arguments;
}

}  // namespace kavri::conformance
