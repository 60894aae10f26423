// What is said of a module that crashed, hangs or was killed.
#define BOOST_TEST_MODULE postMortem

#include "conformance/module/post_mortem.h"

#include <boost/test/unit_test.hpp>

#include "told_run.h"

using kavri::conformance::crashStack;
using kavri::conformance::crashText;
using kavri::conformance::HangReport;
using kavri::conformance::hangReport;
using kavri::conformance::placeUnderWay;
using Kind = kavri::conformance::ModuleEvent::Kind;

namespace {

constexpr int caller = 7;
constexpr int another = 8;

const std::string noCheck = "; no check had passed";

struct Run : kavri::tests::ToldRun {
    Run() { tell(Kind::began, "s/c"); }

    void tellOn(int whose, Kind kind, const std::string& text = "", unsigned number = 0,
                const nlohmann::json& data = nlohmann::json::object()) {
        thread = whose;
        tell(kind, text, number, data);
    }

    void endCase() { tell(Kind::ended, "s/c"); }

    // As the kernel tells it.
    std::string textOf(int code, int signal = 0) const {
        return crashText(record, {.code = code, .signal = signal});
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(crashes, Run)

BOOST_AUTO_TEST_CASE(theInnermostCallOfTheThreadIsNamed) {
    tellOn(caller, Kind::call, "outer", 1, {{"a", 1}});
    tellOn(caller, Kind::deliver, "event", 2);
    tellOn(another, Kind::call, "elsewhere", 3);
    tellOn(caller, Kind::crash, "", 11);
    BOOST_TEST(textOf(0, 11) ==
               "the module was ended by SIGSEGV, in a call of the event callback on thread 7, the "
               "caller's" +
                   noCheck);
    BOOST_TEST(crashStack(record).empty());
}

BOOST_AUTO_TEST_CASE(aThreadBetweenItsCallsIsAfterTheLastOne) {
    tellOn(caller, Kind::call, "first", 1);
    tellOn(caller, Kind::returned, "", 1);
    tellOn(another, Kind::deliver, "response", 2);
    tellOn(another, Kind::delivered, "", 2);
    tellOn(another, Kind::crash, "", 6);
    BOOST_TEST(textOf(0, 6) ==
               "the module was ended by SIGABRT, after a call of the response callback had "
               "returned, on thread 8, the library's own" +
                   noCheck);
}

BOOST_AUTO_TEST_CASE(aThreadWithoutCallsIsTheLibrarysOwn) {
    tellOn(caller, Kind::call, "f", 1, {{"timeout", -1}});
    tellOn(caller, Kind::passed, "t.cpp(1)", 0, {{"check", "a == b"}});
    tellOn(another, Kind::crash, "", 11);
    BOOST_TEST(textOf(0, 11) ==
               "the module was ended by SIGSEGV on thread 8, which is the library's own, in f with "
               "{\"timeout\":-1}; the last check that passed: a == b, at t.cpp(1)");
}

BOOST_AUTO_TEST_CASE(aCallThatEndsTheProcessIsNamed) {
    tellOn(caller, Kind::call, "f", 1);
    tellOn(caller, Kind::exit, "", 3, {{"function", "_exit"}});
    BOOST_TEST(textOf(3) ==
               "the library called _exit(3) in f with {} on thread 7, the caller's" + noCheck);
}

BOOST_AUTO_TEST_CASE(itMayBeCalledOutsideOfEveryCallToo) {
    tellOn(another, Kind::exit, "", 3, {{"function", "_exit"}});
    BOOST_TEST(textOf(3) ==
               "the library called _exit(3) on thread 8, which is the library's own, outside of "
               "any call" +
                   noCheck);
    endCase();
    BOOST_TEST(textOf(3) == "the library called _exit(3) after the case");
}

BOOST_AUTO_TEST_CASE(anEndWithoutLastWordsIsToldAsTheKernelDoes) {
    tell(Kind::call, "f", 1);
    tell(Kind::call, "g", 2);
    BOOST_TEST(textOf(0, 9) ==
               "the module was ended by SIGKILL, in f with {} and in g with {}" + noCheck);
    endCase();
    BOOST_TEST(textOf(5) == "the module ended with status 5 after the case");
}

BOOST_AUTO_TEST_CASE(aCrashAfterTheCaseIsInNoCall) {
    endCase();
    tell(Kind::crash, "", 11);
    tell(Kind::stack, "", 0, {{"frames", {"/no/such/file.so+0x1"}}});
    BOOST_TEST(textOf(0, 11) == "the module was ended by SIGSEGV after the case");
    BOOST_TEST(crashStack(record).find("file.so+0x1") != std::string::npos);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(hangs, Run)

BOOST_AUTO_TEST_CASE(theCallThatDoesNotReturnIsToBlame) {
    tell(Kind::passed, "t.cpp(1)", 0, {{"check", "a == b"}});
    tell(Kind::call, "f", 1, {{"timeout", -1}});
    const std::int64_t beginNs = nowNs;
    tell(Kind::passed, "t.cpp(2)", 0, {{"check", "c == d"}});
    tell(Kind::failed, "t.cpp(3)", 0, {{"check", "e == f"}});
    const HangReport hang = hangReport(record, beginNs + 2'000'000'000);
    BOOST_TEST(hang.call == "f");
    BOOST_TEST(hang.arguments == R"({"timeout":-1})");
    BOOST_TEST(hang.seconds == 2.0);
    BOOST_TEST(hang.lastPassed == "c == d, at t.cpp(2)");
    BOOST_TEST(placeUnderWay(record) ==
               ", in f with {\"timeout\":-1}; the last check that passed: c == d, at t.cpp(2)");
}

BOOST_AUTO_TEST_CASE(withoutACallItHangsSinceTheLastEvent) {
    tell(Kind::call, "f", 1);
    tell(Kind::returned, "", 1);
    const HangReport hang = hangReport(record, nowNs + 500'000'000);
    BOOST_TEST(hang.call.empty());
    BOOST_TEST(hang.seconds == 0.5);
    BOOST_TEST(hang.lastPassed.empty());
    BOOST_TEST(placeUnderWay(record) == ", outside of any call" + noCheck);
}

BOOST_AUTO_TEST_CASE(theProbesOwnCallIsToldToo) {
    tell(Kind::call, "f", 0);
    BOOST_TEST(placeUnderWay(record) == ", in f with {}" + noCheck);
}

BOOST_AUTO_TEST_SUITE_END()
