// Which arguments reach the module's test framework, and which are the tool's.
#define BOOST_TEST_MODULE moduleArguments

#include "cli/module_arguments.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>

#include "cli/exit_status.h"
#include "support/environment_variable.h"

using kavri::cli::checkModuleArguments;
using kavri::cli::CommandFailure;
using kavri::cli::ExitStatus;
using kavri::cli::moduleCommandLine;
using kavri::tests::EnvironmentVariable;

namespace {

using Arguments = std::vector<std::string>;

bool has(const Arguments& arguments, const std::string& one) {
    return std::ranges::find(arguments, one) != arguments.end();
}

}  // namespace

BOOST_AUTO_TEST_CASE(argumentsThatTheToolSetsItselfAreRefused) {
    for (const std::string argument : {"--log_level=all",
                                       "--log_level",
                                       "--log_l=all",
                                       "--log",
                                       "-l",
                                       "-lall",
                                       "--log_sink=x",
                                       "-k",
                                       "--logger=HRF",
                                       "--log_format=XML",
                                       "-f",
                                       "--output_format=XML",
                                       "-o",
                                       "--run_test=x",
                                       "-t",
                                       "--result_code=no",
                                       "-c",
                                       "--catch_system_errors",
                                       "-s",
                                       "--color_output",
                                       "-x",
                                       "--list_content",
                                       "--help",
                                       "--help=log_level",
                                       "--version"}) {
        BOOST_CHECK_EXCEPTION(checkModuleArguments({"--random", argument}), CommandFailure,
                              [&](const CommandFailure& failure) {
                                  return failure.status() == ExitStatus::usage &&
                                         std::string(failure.what()).find("'" + argument + "'") !=
                                             std::string::npos;
                              });
    }
}

BOOST_AUTO_TEST_CASE(otherArgumentsAreTheUsersOwn) {
    BOOST_CHECK_NO_THROW(checkModuleArguments({"--report_level=detailed", "-r", "short",
                                               "--random=7", "--show_progress", "--build_info", "-",
                                               "x", "", "--", "--log_level=all"}));
}

BOOST_AUTO_TEST_CASE(theVariablesOfWhatTheToolSetsAreReserved) {
    const Arguments variables = kavri::cli::reservedVariables();
    for (const char* name :
         {"BOOST_TEST_LOG_LEVEL", "BOOST_TEST_LOG_FORMAT", "BOOST_TEST_LOG_SINK",
          "BOOST_TEST_LOGGER", "BOOST_TEST_RUN_FILTERS", "BOOST_TEST_COLOR_OUTPUT",
          "BOOST_TEST_RESULT_CODE", "BOOST_TEST_CATCH_SYSTEM_ERRORS"}) {
        BOOST_TEST(has(variables, name), name);
    }
    BOOST_TEST(!has(variables, "BOOST_TEST_REPORT_LEVEL"));
    BOOST_TEST(!has(variables, ""));
}

BOOST_AUTO_TEST_CASE(theCommandLineSelectsTheCasesAndTheLog) {
    const EnvironmentVariable none("BOOST_TEST_REPORT_LEVEL", std::nullopt);
    const Arguments expected = {
        "--log_level=error", "--log_format=HRF",         "--log_sink=/dev/fd/7",
        "--color_output=no", "--catch_system_errors=no", "--run_test=a/b",
        "--run_test=c/d",    "--report_level=no",        "--random=1"};
    BOOST_TEST(moduleCommandLine({"a/b", "c/d"}, 7, {"--random=1"}) == expected,
               boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(theReportIsLeftToTheUserWhoAsksForOne) {
    for (const std::string argument : {"--report_level=short", "--report_l=short", "-rshort"}) {
        const Arguments arguments = moduleCommandLine({}, 7, {argument});
        BOOST_TEST(!has(arguments, "--report_level=no"));
        BOOST_TEST(arguments.back() == argument);
    }
    const EnvironmentVariable set("BOOST_TEST_REPORT_LEVEL", "detailed");
    BOOST_TEST(!has(moduleCommandLine({}, 7, {}), "--report_level=no"));
}
