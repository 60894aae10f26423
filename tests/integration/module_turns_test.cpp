// The conformance module is free of races of its own, whenever and on whichever thread
// a library calls back.
//
// The module runs against the stand-in core library, which is asked to deliver in one of
// the ways in which a library may. Every check must be counted and logged, run after run.
// Without turns, about one run in fifty loses a log entry where deliveries come at once,
// and the thread sanitizer reports the first.
#define BOOST_TEST_MODULE moduleTurns
#include <boost/test/unit_test.hpp>
#include <string>
#include <string_view>

#include "process/child_process.h"

namespace {

constexpr std::chrono::seconds limit(120);
#ifdef KAVRI_SANITIZED
constexpr int runs = 10;
#else
constexpr int runs = 100;
#endif

int countOf(std::string_view part, std::string_view text) {
    int count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

void expectEveryCheckToCount(const std::string& delivery) {
    for (int run = 0; run < runs; ++run) {
        kavri::process::ChildSpawn spawn;
        spawn.program = KAVRI_BIN_DIR "/test_ipc_initiator";
        spawn.arguments = {"--log_level=all", "--report_level=short", "--color_output=no"};
        spawn.environment = {{"LD_LIBRARY_PATH", KAVRI_STAND_IN_DIR},
                             {"STAND_IN_DELIVERY", delivery}};
        kavri::process::ChildProcess module(spawn);
        const auto exit = module.wait(limit);
        BOOST_REQUIRE_MESSAGE(exit, "run " << run << " hangs");
        BOOST_REQUIRE_MESSAGE(exit->succeeded(), "run " << run << " failed:\n" << module.error());
        BOOST_REQUIRE_EQUAL(countOf(" has passed\n", module.output()), 294);
        BOOST_REQUIRE_EQUAL(countOf("294 assertions out of 294 passed", module.error()), 1);
    }
}

}  // namespace

BOOST_AUTO_TEST_CASE(deliveriesAtOnceOnAThreadOfTheLibrary) {
    expectEveryCheckToCount("atOnce");
}

BOOST_AUTO_TEST_CASE(deliveriesThatTheSendWaitsFor) {
    expectEveryCheckToCount("beforeReturn");
}

BOOST_AUTO_TEST_CASE(deliveriesOnTheSendersThread) {
    expectEveryCheckToCount("inSend");
}

BOOST_AUTO_TEST_CASE(deliveriesUnderALockThatASendNeeds) {
    expectEveryCheckToCount("underLock");
}
