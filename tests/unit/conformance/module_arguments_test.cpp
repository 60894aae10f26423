// Which arguments reach the module's test framework, and which are the tool's.
#define BOOST_TEST_MODULE moduleArguments

#include "conformance/module/module_arguments.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <list>

#include "process/exit_status.h"
#include "support/environment_variable.h"

using kavri::conformance::checkModuleArguments;
using kavri::conformance::moduleCommandLine;
using kavri::process::CommandFailure;
using kavri::process::ExitStatus;
using kavri::tests::EnvironmentVariable;

namespace {

using Arguments = std::vector<std::string>;

bool has(const Arguments& arguments, const std::string& one) {
    return std::ranges::find(arguments, one) != arguments.end();
}

}  // namespace

BOOST_AUTO_TEST_CASE(argumentsThatTheToolSetsItselfAreRefused) {
    for (const std::string argument :
         {"--run_test=x", "--run_t=x", "--run", "-t", "-tx", "--result_code=no", "-c",
          "--catch_system_errors", "-s", "--list_content", "--list_labels", "--help",
          "--help=log_level", "-h", "--version"}) {
        BOOST_CHECK_EXCEPTION(checkModuleArguments({"--random", argument}), CommandFailure,
                              [&](const CommandFailure& failure) {
                                  return failure.status() == ExitStatus::usage &&
                                         std::string(failure.what()).find("'" + argument + "'") !=
                                             std::string::npos;
                              });
    }
}

BOOST_AUTO_TEST_CASE(otherArgumentsAreTheUsersOwn) {
    BOOST_CHECK_NO_THROW(checkModuleArguments(
        {"--report_level=detailed", "-r", "short", "--random=7", "--show_progress", "--build_info",
         "--log_level=all", "-lall", "--log_format=XML", "--log_sink=x", "--logger=HRF",
         "--output_format=XML", "--color_output", "-", "x", "", "--", "--run_test=x"}));
}

BOOST_AUTO_TEST_CASE(theVariablesOfWhatTheToolSetsAreReserved) {
    const Arguments variables = kavri::conformance::reservedVariables();
    for (const char* name : {"BOOST_TEST_RUN_FILTERS", "BOOST_TEST_RESULT_CODE",
                             "BOOST_TEST_CATCH_SYSTEM_ERRORS", "BOOST_TEST_LIST_CONTENT"}) {
        BOOST_TEST(has(variables, name), name);
    }
    BOOST_TEST(!has(variables, "BOOST_TEST_REPORT_LEVEL"));
    BOOST_TEST(!has(variables, "BOOST_TEST_LOG_LEVEL"));
    BOOST_TEST(!has(variables, ""));
}

// Without the variables by which log, report and colour could be chosen.
class NothingChosen {
  public:
    NothingChosen() {
        for (const char* name :
             {"BOOST_TEST_LOG_LEVEL", "BOOST_TEST_LOG_FORMAT", "BOOST_TEST_LOG_SINK",
              "BOOST_TEST_LOGGER", "BOOST_TEST_OUTPUT_FORMAT", "BOOST_TEST_REPORT_LEVEL",
              "BOOST_TEST_COLOR_OUTPUT"}) {
            unset_.emplace_back(name, std::nullopt);
        }
    }

  private:
    std::list<EnvironmentVariable> unset_;
};

BOOST_FIXTURE_TEST_CASE(theCommandLineSelectsTheCasesAndIsSilent, NothingChosen) {
    const Arguments expected = {
        "--catch_system_errors=no", "--run_test=a/b",    "--run_test=c/d", "--log_level=nothing",
        "--report_level=no",        "--color_output=no", "--random=1"};
    BOOST_TEST(moduleCommandLine({"a/b", "c/d"}, {"--random=1"}) == expected,
               boost::test_tools::per_element());
}

// What the tool leaves out where the user asks for something else.
BOOST_FIXTURE_TEST_CASE(logReportAndColourAreTheUsersWhereAskedFor, NothingChosen) {
    const std::string log = "--log_level=nothing";
    const std::string report = "--report_level=no";
    const std::string colour = "--color_output=no";
    const std::vector<std::pair<std::string, std::string>> choices = {
        {"--log_level=all", log},
        {"--log_l=all", log},
        {"-lall", log},
        {"--log_format=XML", log},
        {"-fXML", log},
        {"--log_sink=x", log},
        {"-kx", log},
        {"--logger=XML,all,x", log},
        {"--output_format=XML", log},
        {"-oXML", log},
        {"--report_level=short", report},
        {"--report_l=short", report},
        {"-rshort", report},
        {"--color_output=yes", colour},
        {"-x", colour}};
    for (const auto& [argument, left] : choices) {
        const Arguments arguments = moduleCommandLine({}, {argument});
        BOOST_TEST(arguments.back() == argument);
        for (const std::string& own : {log, report, colour}) {
            BOOST_TEST(has(arguments, own) == (own != left), argument << ", " << own);
        }
    }
}

BOOST_FIXTURE_TEST_CASE(logReportAndColourAreChosenByVariablesToo, NothingChosen) {
    const EnvironmentVariable sink("BOOST_TEST_LOG_SINK", "x");
    const EnvironmentVariable report("BOOST_TEST_REPORT_LEVEL", "detailed");
    const EnvironmentVariable colour("BOOST_TEST_COLOR_OUTPUT", "yes");
    const Arguments expected = {"--catch_system_errors=no"};
    BOOST_TEST(moduleCommandLine({}, {}) == expected, boost::test_tools::per_element());
}
