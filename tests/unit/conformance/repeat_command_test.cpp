// The command that runs a case again has what decides how it goes, and nothing else.
#define BOOST_TEST_MODULE repeatCommand

#include "conformance/run/repeat_command.h"

#include <boost/test/unit_test.hpp>

#include "conformance/run/run_plan.h"

using kavri::conformance::repeatCommand;
using kavri::conformance::RunPlan;

BOOST_AUTO_TEST_CASE(aPlainRunNeedsOnlyTheCase) {
    BOOST_TEST(repeatCommand({}, std::nullopt, "suite/case") ==
               "kavri conformance --case suite/case");
}

BOOST_AUTO_TEST_CASE(whatDecidesHowACaseGoesIsRepeated) {
    RunPlan plan;
    plan.program = "/opt/my tools/kavri";
    plan.socket = "/run/it's.sock";
    plan.serviceRecord = "the record";
    plan.strict = true;
    plan.fault = "send-lost";
    plan.level = kavri::conformance::Level::must;
    plan.timeoutSeconds = 90;
    plan.callTimeoutSeconds = 2.5;
    plan.timeScale = 3;
    plan.moduleArguments = {"--log_level=all", "--log_sink=a log"};
    BOOST_TEST(repeatCommand(plan, "/opt/other lib", "suite/case") ==
               "'/opt/my tools/kavri' conformance --library '/opt/other lib' "
               "--socket '/run/it'\\''s.sock' --service-record 'the record' --strict --fault "
               "send-lost --level must --timeout 90 "
               "--call-timeout 2.5 "
               "--time-scale 3 --case suite/case -- --log_level=all '--log_sink=a log'");
}

BOOST_AUTO_TEST_CASE(reportsAndOtherCasesAreLeftOut) {
    RunPlan plan;
    plan.reports.json = "r.json";
    plan.expectations = "known.txt";
    plan.casePatterns = {"*"};
    plan.libraries = {"a", "b"};
    BOOST_TEST(repeatCommand(plan, "b", "suite/case") ==
               "kavri conformance --library b --case suite/case");
}

BOOST_AUTO_TEST_CASE(whatFailsOnceInManyRunsIsRunManyTimes) {
    RunPlan plan;
    plan.repeat = 100;
    plan.jobs = 3;
    BOOST_TEST(repeatCommand(plan, std::nullopt, "suite/case") ==
               "kavri conformance --repeat 100 --until-fail --jobs 3 --case suite/case");
}
