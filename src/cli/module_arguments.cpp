// One table of what is reserved, and what follows from it; see module_arguments.h.
#include "cli/module_arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "cli/environment.h"
#include "cli/exit_status.h"

namespace kavri::cli {

namespace {

struct Reserved {
    std::string_view name;      // without the dashes
    char letter;                // of the short form; 0: there is none
    std::string_view variable;  // empty: there is none
    std::string_view instead;   // what the user can do
};

constexpr std::string_view readsTheLog =
    "kavri conformance reads the module's log itself; run test_ipc_initiator on its own for "
    "another form of it";
constexpr std::string_view runsCases = "run test_ipc_initiator on its own for that";

constexpr std::array reserved = {
    Reserved{"log_level", 'l', "BOOST_TEST_LOG_LEVEL", readsTheLog},
    Reserved{"log_format", 'f', "BOOST_TEST_LOG_FORMAT", readsTheLog},
    Reserved{"log_sink", 'k', "BOOST_TEST_LOG_SINK", readsTheLog},
    Reserved{"logger", 0, "BOOST_TEST_LOGGER", readsTheLog},
    Reserved{"output_format", 'o', "BOOST_TEST_OUTPUT_FORMAT", readsTheLog},
    Reserved{"color_output", 'x', "BOOST_TEST_COLOR_OUTPUT", readsTheLog},
    Reserved{"run_test", 't', "BOOST_TEST_RUN_FILTERS", "select cases with --case"},
    Reserved{"result_code", 'c', "BOOST_TEST_RESULT_CODE",
             "the exit status of kavri conformance always tells the verdict"},
    Reserved{"catch_system_errors", 's', "BOOST_TEST_CATCH_SYSTEM_ERRORS",
             "kavri conformance reports crashes itself"},
    Reserved{"list_content", 0, "BOOST_TEST_LIST_CONTENT", runsCases},
    Reserved{"list_labels", 0, "BOOST_TEST_LIST_LABELS", runsCases},
    Reserved{"help", 'h', "", runsCases},
    Reserved{"usage", '?', "", runsCases},
    Reserved{"version", 0, "", runsCases},
};

// The framework takes any unambiguous beginning of a long name.
bool means(const std::string& argument, const Reserved& entry) {
    if (argument.starts_with("--") && argument.size() > 2) {
        return entry.name.starts_with(argument.substr(2, argument.find('=') - 2));
    }
    return argument.size() > 1 && argument[0] == '-' && argument[1] == entry.letter;
}

// The report that follows a run says nothing new, unless somebody asks for it.
bool isReportChosen(const std::vector<std::string>& userArguments) {
    return !environmentVariable("BOOST_TEST_REPORT_LEVEL").empty() ||
           std::ranges::any_of(userArguments, [](const std::string& argument) {
               return argument.starts_with("--report_l") || argument.starts_with("-r");
           });
}

}  // namespace

void checkModuleArguments(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "--") {
            return;  // what follows is no argument of the framework
        }
        for (const Reserved& entry : reserved) {
            if (means(argument, entry)) {
                throw CommandFailure(ExitStatus::usage,
                                     fmt::format("'{}' after '--': {}", argument, entry.instead));
            }
        }
    }
}

std::vector<std::string> reservedVariables() {
    std::vector<std::string> variables;
    for (const Reserved& entry : reserved) {
        if (!entry.variable.empty()) {
            variables.emplace_back(entry.variable);
        }
    }
    return variables;
}

std::vector<std::string> moduleCommandLine(const std::vector<std::string>& cases, int logDescriptor,
                                           const std::vector<std::string>& userArguments) {
    // A crash is to end the module by its signal, and not by a handler that
    // goes on in a process that is no longer sound.
    std::vector<std::string> arguments = {"--log_level=error", "--log_format=HRF",
                                          fmt::format("--log_sink=/dev/fd/{}", logDescriptor),
                                          "--color_output=no", "--catch_system_errors=no"};
    for (const std::string& name : cases) {
        arguments.push_back("--run_test=" + name);
    }
    if (!isReportChosen(userArguments)) {
        arguments.emplace_back("--report_level=no");
    }
    arguments.insert(arguments.end(), userArguments.begin(), userArguments.end());
    return arguments;
}

}  // namespace kavri::cli
