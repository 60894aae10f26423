// Proves what the conformance module does and how it reacts to each kind of broken
// library or service.
//
// Each case here runs the real module against the stand-in core library with one
// defect, and compares everything that happened, in its order: each call with its
// arguments and result, each delivery, release and pause (which the stand-in
// records) and each check with its verdict and values (which the module logs).
// Both write to one pipe, so the order is that of the events.
//
// What is expected is written out: a script for a healthy run of each case, and
// for each defect the places in which its run differs. A line of a script is
//
//   a call or pause           kavri_core_init() = 0
//   what a receive stored     store response1("test", "echo", "0", "CLIENT:echo 0")
//   what a callback is given  deliver event1("test", "event", "text") 0x12345678
//   a released string         release response1 payload
//   a check                   passed uuid == ruuid
//                             failed uuid == ruuid [0 != 7]
//                             fatal c != __null
//
// A check that stands on one of the lines that readers of the log know has the line
// number in front. In scripts, "OK" is short for KAVRI_CORE_STATUS_NO_ERROR, and an
// indented line continues the one before it.
#define BOOST_TEST_MODULE moduleReaction
#include <algorithm>
#include <array>
#include <boost/test/unit_test.hpp>
#include <chrono>
#include <csignal>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "process/child_process.h"

namespace {

// -------------------------------------------------------------------- scripts

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

// <n> stands for the number of a repetition, from 0; <m> for the same from 1.
std::string numbered(std::string text, int n) {
    replaceAll(text, "<n>", std::to_string(n));
    replaceAll(text, "<m>", std::to_string(n + 1));
    return text;
}

// Which of the lines that fit are meant, counted from 0. None named: all of them.
using Which = std::vector<int>;

class Script {
  public:
    Script() = default;

    Script(const char* text) {
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            if (line.starts_with("    ")) {
                lines_.back() += line.substr(4);
            } else if (!line.empty()) {
                replaceAll(line, " OK ==", " KAVRI_CORE_STATUS_NO_ERROR ==");
                lines_.push_back(line);
            }
        }
    }

    const std::vector<std::string>& lines() const { return lines_; }

    Script& operator+=(const Script& more) {
        lines_.insert(lines_.end(), more.lines_.begin(), more.lines_.end());
        return *this;
    }

    // This text for each number, <n> and <m> filled in.
    static Script forEach(const std::vector<int>& numbers, const Script& text) {
        Script result;
        for (const int n : numbers) {
            for (const std::string& line : text.lines_) {
                result.lines_.push_back(numbered(line, n));
            }
        }
        return result;
    }

    // In the lines that contain `fragment`.
    Script& change(const std::string& fragment, const std::string& from, const std::string& to,
                   const Which& which = {}) {
        for (const auto& [place, ignored] : places(fragment, which)) {
            replaceAll(lines_[place], from, to);
        }
        return *this;
    }

    // The check with this text fails, with these values.
    Script& fail(std::string check, const std::string& values, const Which& which = {}) {
        replaceAll(check, "OK ==", "KAVRI_CORE_STATUS_NO_ERROR ==");
        for (const auto& [place, n] : places("passed " + check, which)) {
            replaceAll(lines_[place], "passed ", "failed ");
            lines_[place] += values.empty() ? "" : " " + numbered(values, n);
        }
        return *this;
    }

    // The call gives this status instead.
    Script& refuse(const std::string& function, int status, const Which& which = {}) {
        return change("^" + function + "(", ") = 0", ") = " + std::to_string(status), which);
    }

    Script& remove(const std::string& fragment, const Which& which = {}) {
        const auto found = places(fragment, which);
        for (auto entry = found.rbegin(); entry != found.rend(); ++entry) {
            lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(entry->first));
        }
        return *this;
    }

    Script& insertAfter(const std::string& fragment, const Script& more, const Which& which = {}) {
        const auto found = places(fragment, which);
        for (auto entry = found.rbegin(); entry != found.rend(); ++entry) {
            const Script filled = forEach({entry->second}, more);
            lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(entry->first) + 1,
                          filled.lines_.begin(), filled.lines_.end());
        }
        return *this;
    }

    // Nothing comes after the line.
    Script& endAfter(const std::string& fragment) {
        lines_.resize(places(fragment, {0}).front().first + 1);
        return *this;
    }

    // In a run of several cases each has objects of its own.
    Script& asCaseNumber(int number) {
        for (std::string& line : lines_) {
            replaceAll(line, "logging1", "logging" + std::to_string(number));
            replaceAll(line, "initiator1", "initiator" + std::to_string(number));
        }
        return *this;
    }

    int linesWith(const std::string& fragment) const {
        return static_cast<int>(places(fragment, {}).size());
    }

    // How many checks have this verdict.
    int count(const std::string& verdict) const {
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& line) {
            return line.substr(0, 12).find(verdict + " ") != std::string::npos;
        }));
    }

  private:
    static bool fits(const std::string& line, const std::string& fragment) {
        return fragment.starts_with("^") ? line.starts_with(fragment.substr(1))
                                         : line.find(fragment) != std::string::npos;
    }

    // The places of the lines that contain the fragment, or begin with it if it begins
    // with "^"; each with its number among them. A script that does not have them is a
    // mistake in this file.
    std::vector<std::pair<size_t, int>> places(const std::string& fragment,
                                               const Which& which) const {
        std::vector<std::pair<size_t, int>> result;
        int n = 0;
        for (size_t i = 0; i < lines_.size(); ++i) {
            if (!fits(lines_[i], fragment)) {
                continue;
            }
            if (which.empty() || std::find(which.begin(), which.end(), n) != which.end()) {
                result.emplace_back(i, n);
            }
            ++n;
        }
        if (result.empty() || (!which.empty() && result.size() != which.size())) {
            throw std::logic_error("no such line in the script: " + fragment);
        }
        return result;
    }

    std::vector<std::string> lines_;
};

Script operator+(Script first, const Script& second) {
    return first += second;
}

const std::vector<int> kTen = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

Script tenTimes(const Script& text) {
    return Script::forEach(kTen, text);
}

// --------------------------------------------- a healthy run of each case

Script whole(const std::string& name, const Script& body) {
    Script result(("case " + name).c_str());
    result += R"(
kavri_core_init() = 0
passed OK == kavri_core_init()
kavri_core_logging_init("ipcInitiatorTest", [null]) = 0 logging1
passed OK == kavri_core_logging_init("ipcInitiatorTest", &logCookie)
kavri_core_ipc_initiator_init(logging1, null, [null]) = 0 initiator1
passed OK == kavri_core_ipc_initiator_init(logCookie, __null, &c)
passed c != __null
)";
    result += body;
    result += R"(
kavri_core_ipc_deinit(initiator1) = 0
kavri_core_logging_deinit(logging1) = 0
kavri_core_deinit() = 0
)";
    return result;
}

const Script kReleases = R"(
release response<m> targetCategory
release response<m> targetIdentifier
release response<m> uuid
release response<m> payload
)";

// The query for the counter, answered with <n>.
const Script kCountQuery = R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "get_repeat_count", "0", " ") = 0
passed OK == kavri_core_ipc_initiator_command_send(c, "test", "get_repeat_count", "0", " ")
store response1("test", "get_repeat_count", "0", "<n>")
kavri_core_ipc_initiator_response_receive(initiator1, -1, [null], [null], [null], [null]) = 0
passed OK == kavri_core_ipc_initiator_response_receive(c, -1, &rcat, &rident, &ruuid, &rpayload)
release response1 targetCategory
release response1 targetIdentifier
release response1 uuid
release response1 payload
)";

Script sendPass() {
    return whole("initiatorSendPass", Script(R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "initiator", "0",
     "this is my payload") = 0
passed OK == send(ident.c_str())
)") + Script::forEach({0}, kCountQuery));
}

Script sendRepeat() {
    Script clear = R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "clr_repeat_count", "0", " ") = 0
passed OK == kavri_core_ipc_initiator_command_send(c, "test", "clr_repeat_count", "0", " ")
)";
    Script increments = tenTimes(R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "inc_repeat_count", "0",
     "this is my payload") = 0
passed OK == send("inc_repeat_count")
)");
    Script last = Script::forEach({10}, kCountQuery);
    for (const char* line : {"store", "release"}) {
        last.change(line, "response1", "response2");
    }
    return whole("initiatorSendRepeat",
                 clear + Script::forEach({0}, kCountQuery) + "passed 0 == getBrokerRepeatCount()" +
                     increments + last +
                     "passed static_cast<int>(limit) == getBrokerRepeatCount()");
}

Script staticResponse() {
    return whole("initiatorRepeatStaticResponse", tenTimes(Script(R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "static_response", "<n>",
     "this is my payload") = 0
passed OK == send("static_response")
store response<m>("test", "static_response", "<n>", "my static payload")
kavri_core_ipc_initiator_response_receive(initiator1, -1, [null], [null], [null], [null]) = 0
passed OK == recv()
passed string("my static payload") == rpayload
passed uuid == ruuid
)") + kReleases));
}

Script echo() {
    return whole("initiatorRepeatEcho", tenTimes(Script(R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "echo", "<n>", "CLIENT:echo <n>") = 0
passed OK == send("echo")
store response<m>("test", "echo", "<n>", "CLIENT:echo <n>")
kavri_core_ipc_initiator_response_receive(initiator1, -1, [null], [null], [null], [null]) = 0
passed OK == recv()
passed payload == rpayload
passed uuid == ruuid
)") + kReleases));
}

const Script kEchoSent = R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "echo", "<n>", "CLIENT:echo <n>") = 0
passed OK == send("echo")
)";

const Script kEchoTaken = Script(R"(
usleep(10000)
store response<m>("test", "echo", "<n>", "CLIENT:echo <n>")
kavri_core_ipc_initiator_response_receive(initiator1, 0, [null], [null], [null], [null]) = 0
passed payload == rpayload
passed uuid == ruuid
)") + kReleases;

// A try that finds nothing yet.
const Script kTry = R"(
usleep(10000)
kavri_core_ipc_initiator_response_receive(initiator1, 0, [null], [null], [null], [null]) = 5
)";

Script nonBlocking(const Script& iterations = tenTimes(kEchoSent + kEchoTaken)) {
    return whole("initiatorRepeatEchoNonBlocking", iterations);
}

Script fiveTriesInVain() {
    return kTry + kTry + kTry + kTry + kTry + "failed jj != 0";
}

const Script kDelivered = Script(R"(
deliver response<m>("test", "static_response", "<n>", "my static payload") 0x87654321
passed targetCategory
passed targetIdentifier
passed uuid
passed payload
passed context == (void*)0x87654321
passed callbackCounter == u
)") + kReleases;

Script callback(const Script& deliveries = tenTimes(kDelivered)) {
    const Script before = Script(R"(
kavri_core_ipc_initiator_response_receive_callback(initiator1, function1, 0x87654321) = 0
265 passed OK == kavri_core_ipc_initiator_response_receive_callback(
    c, dummyInitiatorReceiveCallback, (void*)0x87654321)
)") + tenTimes(R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "static_response", "<n>",
     "this is my payload") = 0
268 passed OK == send("static_response")
)") + "sleep(1)";
    return whole("initiatorRepeatCallback", before + deliveries + R"(
kavri_core_ipc_initiator_response_receive_callback(initiator1, null, 0x0) = 0
278 passed OK == kavri_core_ipc_initiator_response_receive_callback(c, __null, __null)
279 passed limit == callbackCounter
)");
}

Script failReceive() {
    return whole("initiatorFailReceiveWithCallback", R"(
kavri_core_ipc_initiator_response_receive_callback(initiator1, function1, 0x87654321) = 0
passed OK == kavri_core_ipc_initiator_response_receive_callback(
    c, dummyInitiatorReceiveCallback, (void*)0x87654321)
kavri_core_ipc_initiator_response_receive(initiator1, -1, [null], [null], [null], [null]) = 4
passed KAVRI_CORE_STATUS_IPC_FAILED == recv()
kavri_core_ipc_initiator_response_receive(initiator1, 0, [null], [null], [null], [null]) = 4
passed KAVRI_CORE_STATUS_IPC_FAILED == recv(0)
kavri_core_ipc_initiator_response_receive_callback(initiator1, null, 0x0) = 0
passed OK == kavri_core_ipc_initiator_response_receive_callback(c, __null, __null)
)");
}

const Script kEventDelivered = R"(
deliver event<m>("test", "event", "this is my payload") 0x12345678
passed targetCategory
passed targetIdentifier
passed payload
passed context == (void*)0x12345678
release event<m> targetCategory
release event<m> targetIdentifier
release event<m> payload
)";

Script event(const Script& deliveries = tenTimes(kEventDelivered)) {
    const Script before = Script(R"(
kavri_core_ipc_initiator_event_subscribe(initiator1, "test") = 0
usleep(10000)
316 passed OK == eventSubscribe("test")
kavri_core_ipc_initiator_event_receive_callback(initiator1, function1, 0x12345678) = 0
319 passed OK == kavri_core_ipc_initiator_event_receive_callback(
    c, dummyInitiatorEventReceiveCallback, (void*)0x12345678)
)") + tenTimes(R"(
kavri_core_ipc_initiator_command_send(initiator1, "test", "event", "<n>", "this is my payload") = 0
322 passed OK == send("event")
)") + "sleep(1)";
    return whole("initiatorRepeatEventCallback", before + deliveries + R"(
kavri_core_ipc_initiator_event_receive_callback(initiator1, null, 0x0) = 0
332 passed OK == kavri_core_ipc_initiator_event_receive_callback(c, __null, __null)
333 passed limit == eventCounter
kavri_core_ipc_initiator_event_unsubscribe(initiator1, "test") = 0
335 passed OK == eventUnsubscribe("test")
)");
}

// ---------------------------------------------------------------- running it

struct Run {
    std::vector<std::string> lines;  // as in a script
    std::string report;
    kavri::process::ExitState exit;
};

kavri::process::ChildProcess startModule(const std::string& defect,
                                         const std::vector<std::string>& arguments) {
    kavri::process::ChildSpawn spawn{.program = KAVRI_BIN_DIR "/test_ipc_initiator",
                                     .arguments = arguments,
                                     .environment = {{"LD_LIBRARY_PATH", KAVRI_STAND_IN_DIR},
                                                     {"STAND_IN_DEFECT", defect},
                                                     {"STAND_IN_RECORD", "/dev/stdout"}}};
#ifdef __SANITIZE_THREAD__
    // The sanitizer puts its own `sleep` before all others and calls the next one
    // from there with its eyes shut: the stand-in's must be the first, or the
    // hand-over to its thread is not seen.
    spawn.environment["LD_PRELOAD"] = KAVRI_STAND_IN_DIR "/libkavri-core-test.so";
#endif
    return kavri::process::ChildProcess(spawn);
}

std::string suiteOf(const std::string& name) {
    return name == "initiatorRepeatEventCallback" ? "initiatorEvent" : "initiatorSend";
}

// The lines of the log on which the checks of the callback cases are known to be.
bool lineIsKnown(const std::string& line) {
    constexpr std::array<const char*, 10> known = {"265", "268", "278", "279", "316",
                                                   "319", "322", "332", "333", "335"};
    return std::find(known.begin(), known.end(), line) != known.end();
}

// What stands between two texts, and nothing where they do not both stand.
std::optional<std::string> between(const std::string& line, const std::string& before,
                                   const std::string& after) {
    const size_t start = line.find(before);
    const size_t end = start == std::string::npos ? start : line.rfind(after);
    if (end == std::string::npos || end < start + before.size()) {
        return std::nullopt;
    }
    return line.substr(start + before.size(), end - start - before.size());
}

// A check as the framework logs it, as a script has it:
//
//   FILE(LINE): info: check TEXT has passed
//   FILE(LINE): error: in "SUITE/CASE": check TEXT has failed VALUES
//   FILE(LINE): fatal error: in "SUITE/CASE": critical check TEXT has failed
std::optional<std::string> checkAsScript(const std::string& logged,
                                         const std::string& runningCase) {
    const std::optional<std::string> sourceLine =
        between(logged.substr(0, logged.find("): ") + 1), "test_ipc_initiator.cpp(", ")");
    if (!sourceLine) {
        return std::nullopt;
    }
    const std::string place = lineIsKnown(*sourceLine) ? *sourceLine + " " : "";
    if (const auto text = between(logged, "): info: check ", " has passed")) {
        return place + "passed " + *text;
    }
    const std::string in = "error: in \"" + suiteOf(runningCase) + "/" + runningCase + "\": ";
    if (const auto text = between(logged, "): fatal " + in + "critical check ", " has failed")) {
        return place + "fatal " + *text;
    }
    if (const auto text = between(logged, "): " + in + "check ", " has failed")) {
        return place + "failed " + *text + logged.substr(logged.rfind(" has failed") + 11);
    }
    return std::nullopt;
}

bool isRecord(const std::string& line) {
    constexpr std::array<const char*, 6> starts = {"kavri_core_", "store ", "deliver ",
                                                   "release ",    "sleep(", "usleep("};
    return std::any_of(starts.begin(), starts.end(),
                       [&](const char* start) { return line.starts_with(start); });
}

std::vector<std::string> asScript(std::string output) {
    // A value that ends in a newline breaks the line it is printed on.
    replaceAll(output, "\n]\n", "\\n]\n");
    std::vector<std::string> result;
    std::string runningCase;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (const auto entered = between(line, "Entering test case \"", "\"")) {
            runningCase = *entered;
            result.push_back("case " + runningCase);
        } else if (isRecord(line)) {
            result.push_back(line);
        } else if (const auto check = checkAsScript(line, runningCase)) {
            result.push_back(*check);
        } else if (line.find(": error: ") != std::string::npos) {
            result.push_back(line);  // in no script: makes the comparison fail
        }
    }
    return result;
}

Run runModule(const std::string& cases, const std::string& defect) {
    kavri::process::ChildProcess module =
        startModule(defect, {"--run_test=" + cases, "--log_level=all", "--report_level=detailed",
                             "--color_output=no", "--catch_system_errors=no"});
    const auto exit = module.wait(std::chrono::seconds(30));
    BOOST_REQUIRE_MESSAGE(exit, "the module hangs");
    return {asScript(module.output()), module.error(), *exit};
}

// ------------------------------------------------------------------ comparing

// Where the sanitizers' own `free` is in force, the stand-in cannot see releases;
// there it is the leak check that finds one missing or one too many.
std::vector<std::string> visibleLines(const Script& script) {
    std::vector<std::string> lines = script.lines();
#ifdef KAVRI_SANITIZED
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("release "); });
#endif
    return lines;
}

void compareLines(const Script& expected, const Run& run) {
    const std::vector<std::string> lines = visibleLines(expected);
    BOOST_CHECK_EQUAL_COLLECTIONS(run.lines.begin(), run.lines.end(), lines.begin(), lines.end());
}

std::string assertions(int number, int of, const char* verdict) {
    return "      " + std::to_string(number) + (number == 1 ? " assertion" : " assertions") +
           " out of " + std::to_string(of) + " " + verdict + "\n";
}

// The framework's report on the case.
void checkReport(const Run& run, const std::string& name, const Script& expected) {
    const int passed = expected.count("passed");
    const int failed = expected.count("failed") + expected.count("fatal");
    const char* outcome = expected.count("fatal") != 0 ? "was aborted"
                          : failed != 0                ? "has failed"
                                                       : "has passed";
    std::string text =
        "/" + name + "\" " + outcome + " with:\n" + assertions(passed, passed + failed, "passed");
    if (failed != 0) {
        text += assertions(failed, passed + failed, "failed");
    }
    BOOST_CHECK_MESSAGE(run.report.find(text) != std::string::npos, "not reported: " << text
                                                                                     << "but:\n"
                                                                                     << run.report);
}

constexpr int kExitTestsFailed = 201;

std::string nameOf(const Script& script) {
    return script.lines().front().substr(std::string("case ").size());
}

// Runs one case against the defect, to its end.
void expectRun(const std::string& defect, const Script& expected) {
    BOOST_TEST_CONTEXT("defect " << defect) {
        const std::string name = nameOf(expected);
        const Run run = runModule("*/" + name, defect);
        compareLines(expected, run);
        checkReport(run, name, expected);
        const bool fails = expected.count("failed") + expected.count("fatal") != 0;
        BOOST_CHECK_EQUAL(run.exit.signal, 0);
        BOOST_CHECK_EQUAL(run.exit.code, fails ? kExitTestsFailed : 0);
    }
}

// Runs one case against a defect that the module does not survive.
void expectCrash(const std::string& defect, const Script& expected) {
    BOOST_TEST_CONTEXT("defect " << defect) {
        const Run run = runModule("*/" + nameOf(expected), defect);
        compareLines(expected, run);
        BOOST_CHECK_EQUAL(run.report.find("Test module"), std::string::npos);
#ifdef KAVRI_SANITIZED
        BOOST_CHECK_MESSAGE(!run.exit.succeeded(), "the module survives");
#else
        BOOST_CHECK_EQUAL(run.exit.signal, SIGSEGV);
#endif
    }
}

// The run in which response <m> carries this instead of its own payload or uuid.
Script withPayload(Script script, const std::string& own, const std::string& payload) {
    for (const int n : kTen) {
        script.change(numbered("store response<m>(", n), numbered(own, n), payload);
    }
    return script;
}

Script withUuid(Script script, const std::string& uuid) {
    for (const int n : kTen) {
        script.change(numbered("store response<m>(", n), numbered(", \"<n>\", ", n),
                      numbered(", \"" + uuid + "\", ", n));
    }
    return script;
}

const Which kAllButTheEighth = {0, 1, 2, 3, 4, 5, 6, 8, 9};

const char* const kSend = "kavri_core_ipc_initiator_command_send";
const char* const kReceive = "kavri_core_ipc_initiator_response_receive";
const char* const kInstall = "kavri_core_ipc_initiator_response_receive_callback";
const char* const kInstallEvent = "kavri_core_ipc_initiator_event_receive_callback";

}  // namespace

// ---------------------------------------------------------------- healthy runs

BOOST_AUTO_TEST_SUITE(healthy)

BOOST_AUTO_TEST_CASE(allEightCasesRunInOrderAndPass) {
    const std::vector<std::pair<Script, int>> cases = {
        {sendPass(), 7},     {sendRepeat(), 21}, {staticResponse(), 44}, {echo(), 44},
        {nonBlocking(), 34}, {callback(), 77},   {failReceive(), 8},     {event(), 59}};
    const Run run = runModule("*", "");
    Script expected;
    int number = 0;
    for (const auto& [script, assertionCount] : cases) {
        BOOST_CHECK_EQUAL(script.count("passed"), assertionCount);
        checkReport(run, nameOf(script), script);
        expected += Script(script).asCaseNumber(++number);
    }
    // The event callback is another function than the one of the two cases before.
    expected.change("event_receive_callback(initiator8", "function1", "function2", {0});
    compareLines(expected, run);
    BOOST_CHECK_EQUAL(expected.count("passed"), 294);
    BOOST_CHECK(run.report.find("8 test cases out of 8 passed\n"
                                "  294 assertions out of 294 passed\n") != std::string::npos);
    BOOST_CHECK(run.exit.succeeded());
}

BOOST_AUTO_TEST_CASE(eachCasePassesAlone) {
    for (const Script& script : {sendPass(), sendRepeat(), staticResponse(), echo(), nonBlocking(),
                                 callback(), failReceive(), event()}) {
        expectRun("", script);
    }
}

BOOST_AUTO_TEST_CASE(theModuleListsItsSuitesAndCases) {
    kavri::process::ChildProcess module = startModule("", {"--list_content"});
    const auto exit = module.wait(std::chrono::seconds(30));
    BOOST_REQUIRE(exit);
    BOOST_CHECK_EQUAL(exit->code, 0);
    const std::string listed = module.error();
    BOOST_CHECK_EQUAL(listed.substr(listed.find("initiatorSend*")), R"(initiatorSend*
    initiatorSendPass*
    initiatorSendRepeat*
    initiatorRepeatStaticResponse*
    initiatorRepeatEcho*
    initiatorRepeatEchoNonBlocking*
    initiatorRepeatCallback*
    initiatorFailReceiveWithCallback*
initiatorEvent*
    initiatorRepeatEventCallback*
)");
}

BOOST_AUTO_TEST_CASE(theModuleIncludesNothingOfTheProjectButOneHeader) {
    std::ifstream source(KAVRI_SOURCE_DIR "/tests/test_ipc_initiator.cpp");
    std::vector<std::string> ofTheProject;
    for (std::string line; std::getline(source, line);) {
        if (line.starts_with("#include") && line.find_first_of("/\"") != std::string::npos &&
            line.find("<boost/test/unit_test.hpp>") == std::string::npos) {
            ofTheProject.push_back(line);
        }
    }
    BOOST_REQUIRE_EQUAL(ofTheProject.size(), 1);
    BOOST_CHECK_EQUAL(ofTheProject.front(), "#include <kavri/ipc.h>");
}

BOOST_AUTO_TEST_SUITE_END()

// ------------------------------------------------------------------- coming up

BOOST_AUTO_TEST_SUITE(comingUp)

BOOST_AUTO_TEST_CASE(aRefusedInitIsLoggedAndTheCaseGoesOn) {
    expectRun("initRefused=3",
              sendPass().refuse("kavri_core_init", 3).fail("OK == kavri_core_init()", "[0 != 3]"));
}

BOOST_AUTO_TEST_CASE(aRefusedLoggingIsLoggedAndTheCookieStaysNull) {
    expectRun("loggingInitRefused=3", sendPass()
                                          .change("logging_init(", " = 0 logging1", " = 3")
                                          .change("initiator_init(", "logging1", "null", {0})
                                          .change("logging_deinit(", "logging1", "null")
                                          .fail("OK == kavri_core_logging_init(", "[0 != 3]"));
}

BOOST_AUTO_TEST_CASE(aStatusIsPrintedAsItsNumber) {
    expectRun(
        "initRefused=15",
        sendPass().refuse("kavri_core_init", 15).fail("OK == kavri_core_init()", "[0 != 15]"));
}

BOOST_AUTO_TEST_CASE(anInitiatorThatIsThereInSpiteOfARefusalIsUsed) {
    expectRun("initiatorInitMisreported=6",
              sendPass()
                  .refuse("kavri_core_ipc_initiator_init", 6, {0})
                  .fail("OK == kavri_core_ipc_initiator_init(", "[0 != 6]"));
}

// Two cases: nothing is ended for the first, and the second has a fixture of its own.
void expectNoBodyWithoutInitiator(const std::string& defect, int status) {
    const auto failedCase = [&](const Script& healthy, int number) {
        Script script = Script(healthy).endAfter("passed c != __null");
        script.change("initiator_init(l", " = 0 initiator1", " = " + std::to_string(status));
        script.change("c != __null", "passed", "fatal");
        if (status != 0) {
            script.fail("OK == kavri_core_ipc_initiator_init(",
                        "[0 != " + std::to_string(status) + "]");
        }
        return script.asCaseNumber(number);
    };
    const Run run = runModule("*/initiatorSendPass,initiatorSendRepeat", defect);
    const Script first = failedCase(sendPass(), 1);
    const Script second = failedCase(sendRepeat(), 2);
    compareLines(first + second, run);
    checkReport(run, "initiatorSendPass", first);
    checkReport(run, "initiatorSendRepeat", second);
    BOOST_CHECK_EQUAL(run.exit.code, kExitTestsFailed);
}

BOOST_AUTO_TEST_CASE(withoutAnInitiatorTheCaseEndsBeforeItsBodyAndNothingIsEnded) {
    expectNoBodyWithoutInitiator("initiatorInitRefused=6", 6);
}

BOOST_AUTO_TEST_CASE(aNullInitiatorFromASuccessfulInitEndsTheCaseToo) {
    expectNoBodyWithoutInitiator("initiatorMissing", 0);
}

BOOST_AUTO_TEST_SUITE_END()

// -------------------------------------------------------------------- sendPass

BOOST_AUTO_TEST_SUITE(sendPassCase)

BOOST_AUTO_TEST_CASE(anAnswerToTheFirstRequestIsTakenForTheCount) {
    expectRun("initiatorAnswered", sendPass().change("store", R"("get_repeat_count", "0", "0")",
                                                     R"("initiator", "0", "unknown command")"));
}

BOOST_AUTO_TEST_CASE(anyCountWillDo) {
    expectRun("counterStart=5", sendPass().change("store", R"("0"))", R"("5"))"));
}

BOOST_AUTO_TEST_CASE(refusedSendsAreLoggedAndTheAnswerIsStillAskedFor) {
    expectRun("sendsRefused",
              sendPass()
                  .refuse(kSend, 13)
                  .refuse(kReceive, 5)
                  .remove("store")
                  .remove("release")
                  .fail("OK == send(", "[0 != 13]")
                  .fail("OK == kavri_core_ipc_initiator_command_send(", "[0 != 13]")
                  .fail("OK == kavri_core_ipc_initiator_response_receive(", "[0 != 5]"));
}

BOOST_AUTO_TEST_CASE(aRefusedReceiveIsLogged) {
    expectRun("receivesRefused",
              sendPass()
                  .refuse(kReceive, 12)
                  .remove("store")
                  .remove("release")
                  .fail("OK == kavri_core_ipc_initiator_response_receive(", "[0 != 12]"));
}

BOOST_AUTO_TEST_SUITE_END()

// ------------------------------------------------------------------ sendRepeat

BOOST_AUTO_TEST_SUITE(sendRepeatCase)

const char* const kFirstCount = "0 == getBrokerRepeatCount()";
const char* const kLastCount = "static_cast<int>(limit) == getBrokerRepeatCount()";

// The run in which the service reports these texts.
Script reporting(const std::string& first, const std::string& last) {
    return sendRepeat()
        .change("store response1", R"("0"))", "\"" + first + "\")")
        .change("store response2", R"("10"))", "\"" + last + "\")");
}

BOOST_AUTO_TEST_CASE(theCounterMayHaveStartedAnywhere) {
    expectRun("counterStart=5", sendRepeat());
}

BOOST_AUTO_TEST_CASE(aCounterThatIsNotClearedFailsBothCounts) {
    expectRun("counterKept=5",
              reporting("5", "15").fail(kFirstCount, "[0 != 5]").fail(kLastCount, "[10 != 15]"));
}

BOOST_AUTO_TEST_CASE(aCounterThatCountsDoubleFailsTheLastCount) {
    expectRun("counterStep=2", reporting("0", "20").fail(kLastCount, "[10 != 20]"));
}

BOOST_AUTO_TEST_CASE(aCountIsReadAsANumber) {
    expectRun("answerPayload=7",
              reporting("7", "7").fail(kFirstCount, "[0 != 7]").fail(kLastCount, "[10 != 7]"));
}

BOOST_AUTO_TEST_CASE(aTextWithoutANumberCountsAsZero) {
    expectRun("answerPayload=abc", reporting("abc", "abc").fail(kLastCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_CASE(ofATextThatBeginsWithDigitsTheDigitsCount) {
    expectRun("answerPayload=10abc", reporting("10abc", "10abc").fail(kFirstCount, "[0 != 10]"));
}

BOOST_AUTO_TEST_CASE(aMissingPayloadCountsAsMinusOneAndTheRestIsReleased) {
    expectRun("answerPayloadMissing", sendRepeat()
                                          .change("store response1", R"("0"))", "null)")
                                          .change("store response2", R"("10"))", "null)")
                                          .remove("release response1 payload")
                                          .remove("release response2 payload")
                                          .fail(kFirstCount, "[0 != -1]")
                                          .fail(kLastCount, "[10 != -1]"));
}

BOOST_AUTO_TEST_CASE(aRefusedReceiveCountsAsMinusOne) {
    expectRun("receivesRefused",
              sendRepeat()
                  .refuse(kReceive, 12)
                  .remove("store")
                  .remove("release")
                  .fail("OK == kavri_core_ipc_initiator_response_receive(", "[0 != 12]")
                  .fail(kFirstCount, "[0 != -1]")
                  .fail(kLastCount, "[10 != -1]"));
}

BOOST_AUTO_TEST_CASE(oneRefusedIncrementDoesNotEndTheLoopAndIsMissingAtTheEnd) {
    expectRun("sendRefused=5", reporting("0", "9")
                                   .refuse(kSend, 13, {4})
                                   .fail("OK == send(\"inc_repeat_count\")", "[0 != 13]", {2})
                                   .fail(kLastCount, "[10 != 9]"));
}

BOOST_AUTO_TEST_CASE(refusedSendsAreAllAttempted) {
    expectRun("sendsRefused",
              sendRepeat()
                  .refuse(kSend, 13)
                  .refuse(kReceive, 5)
                  .remove("store")
                  .remove("release")
                  .fail("OK == kavri_core_ipc_initiator_command_send(", "[0 != 13]")
                  .fail("OK == send(\"inc_repeat_count\")", "[0 != 13]")
                  .fail("OK == kavri_core_ipc_initiator_response_receive(", "[0 != 5]")
                  .fail(kFirstCount, "[0 != -1]")
                  .fail(kLastCount, "[10 != -1]"));
}

BOOST_AUTO_TEST_SUITE_END()

// -------------------------------------------------------------- staticResponse

BOOST_AUTO_TEST_SUITE(staticResponseCase)

void expectWrongPayload(const std::string& payload, const std::string& printed) {
    expectRun("answerPayload=" + payload, staticResponse()
                                              .change("store", "my static payload", printed)
                                              .fail(R"(string("my static payload") == rpayload)",
                                                    "[my static payload != " + printed + "]"));
}

BOOST_AUTO_TEST_CASE(aServiceThatEchoesFailsEveryPayload) {
    expectWrongPayload("this is my payload", "this is my payload");
}

BOOST_AUTO_TEST_CASE(thePayloadIsComparedByteForByte) {
    expectWrongPayload("My static payload", "My static payload");
    expectWrongPayload("my static payload ", "my static payload ");
    expectWrongPayload("my static payload\n", "my static payload\\n");
    expectWrongPayload("my static", "my static");
    expectWrongPayload("", "");
}

BOOST_AUTO_TEST_CASE(aConstantUuidIsRightOnce) {
    expectRun(
        "answerUuid=7",
        withUuid(staticResponse(), "7").fail("uuid == ruuid", "[<n> != 7]", kAllButTheEighth));
}

BOOST_AUTO_TEST_CASE(afterARefusedSendTheResponseIsStillTakenAndCompared) {
    expectRun("sendsMisreported",
              staticResponse().refuse(kSend, 13).fail("OK == send(", "[0 != 13]"));
}

BOOST_AUTO_TEST_CASE(afterARefusedReceiveWhatItStoredIsStillComparedAndReleased) {
    expectRun("receivesMisreported",
              staticResponse().refuse(kReceive, 12).fail("OK == recv()", "[0 != 12]"));
}

BOOST_AUTO_TEST_CASE(aReceiveThatStoresNothingIsLoggedBeforeTheComparisonEndsTheModule) {
    expectCrash("receivesRefused", staticResponse()
                                       .refuse(kReceive, 12, {0})
                                       .remove("store", {0})
                                       .fail("OK == recv()", "[0 != 12]", {0})
                                       .endAfter("failed KAVRI_CORE_STATUS_NO_ERROR == recv()"));
}

BOOST_AUTO_TEST_SUITE_END()

// ------------------------------------------------------------------------ echo

BOOST_AUTO_TEST_SUITE(echoCase)

BOOST_AUTO_TEST_CASE(aFixedPayloadFailsEveryPayloadAndNoUuid) {
    expectRun("answerPayload=fixed",
              withPayload(echo(), "CLIENT:echo <n>", "fixed")
                  .fail("payload == rpayload", "[CLIENT:echo <n> != fixed]"));
}

BOOST_AUTO_TEST_CASE(aConstantUuidIsRightOnce) {
    expectRun("answerUuid=7",
              withUuid(echo(), "7").fail("uuid == ruuid", "[<n> != 7]", kAllButTheEighth));
}

BOOST_AUTO_TEST_CASE(theUuidIsComparedAsAText) {
    expectRun("answerUuidPrefix=00",
              withUuid(echo(), "00<n>").fail("uuid == ruuid", "[<n> != 00<n>]"));
    expectRun("answerUuid=", withUuid(echo(), "").fail("uuid == ruuid", "[<n> != ]"));
    expectRun("answerUuid=x", withUuid(echo(), "x").fail("uuid == ruuid", "[<n> != x]"));
}

BOOST_AUTO_TEST_CASE(afterARefusedSendTheResponseIsStillTakenAndCompared) {
    expectRun("sendsMisreported", echo().refuse(kSend, 13).fail("OK == send(", "[0 != 13]"));
}

BOOST_AUTO_TEST_CASE(afterARefusedReceiveWhatItStoredIsStillComparedAndReleased) {
    expectRun("receivesMisreported", echo().refuse(kReceive, 12).fail("OK == recv()", "[0 != 12]"));
}

BOOST_AUTO_TEST_CASE(oneRefusedReceiveFailsItsIterationAlone) {
    expectRun("receiveMisreported=4",
              echo().refuse(kReceive, 12, {3}).fail("OK == recv()", "[0 != 12]", {3}));
}

BOOST_AUTO_TEST_CASE(aMissingPayloadEndsTheModule) {
    expectCrash("answerPayloadMissing",
                echo()
                    .change("store", "\"CLIENT:echo 0\"", "null", {0})
                    .endAfter("passed KAVRI_CORE_STATUS_NO_ERROR == recv()"));
}

BOOST_AUTO_TEST_CASE(aReceiveThatStoresNothingIsLoggedBeforeTheComparisonEndsTheModule) {
    expectCrash("receivesRefused", echo()
                                       .refuse(kReceive, 12, {0})
                                       .remove("store", {0})
                                       .fail("OK == recv()", "[0 != 12]", {0})
                                       .endAfter("failed KAVRI_CORE_STATUS_NO_ERROR == recv()"));
}

BOOST_AUTO_TEST_SUITE_END()

// ----------------------------------------------------------------- nonBlocking

BOOST_AUTO_TEST_SUITE(nonBlockingCase)

BOOST_AUTO_TEST_CASE(missingAnswersFailOneCheckEachAfterFiveTries) {
    const Script expected = nonBlocking(tenTimes(kEchoSent + fiveTriesInVain()));
    BOOST_CHECK_EQUAL(expected.linesWith("usleep(10000)"), 50);
    BOOST_CHECK_EQUAL(expected.linesWith("response_receive(initiator1, 0, "), 50);
    expectRun("answersMissing", expected);
}

BOOST_AUTO_TEST_CASE(aFailureOnATryOnlyUsesItUp) {
    expectRun(
        "receivesRefused",
        nonBlocking(tenTimes(kEchoSent + fiveTriesInVain())).change(kReceive, ") = 5", ") = 12"));
}

BOOST_AUTO_TEST_CASE(afterARefusedSendAllTriesAreMade) {
    expectRun("sendsRefused", nonBlocking(tenTimes(kEchoSent + fiveTriesInVain()))
                                  .refuse(kSend, 13)
                                  .fail("OK == send(\"echo\")", "[0 != 13]"));
}

BOOST_AUTO_TEST_CASE(afterASendReportedAsRefusedTheResponseIsTaken) {
    expectRun("sendsMisreported",
              nonBlocking().refuse(kSend, 13).fail("OK == send(\"echo\")", "[0 != 13]"));
}

// The third iteration finds its response after this many tries in vain.
Script thirdResponseAfter(const Script& tries) {
    return nonBlocking().insertAfter("passed KAVRI_CORE_STATUS_NO_ERROR == send(\"echo\")", tries,
                                     {2});
}

BOOST_AUTO_TEST_CASE(aResponseIsTakenOnAnyOfTheFiveTries) {
    expectRun("thirdAnswerAtTry=1", nonBlocking());
    expectRun("thirdAnswerAtTry=2", thirdResponseAfter(kTry));
    expectRun("thirdAnswerAtTry=4", thirdResponseAfter(kTry + kTry + kTry));
    expectRun("thirdAnswerAtTry=5", thirdResponseAfter(kTry + kTry + kTry + kTry));
}

// It stays in front of those that come after it: each iteration from then on takes
// the response to the one before.
BOOST_AUTO_TEST_CASE(aResponseThatMissesTheFifthTryIsFoundByTheNextIteration) {
    Script shifted = kEchoSent + kEchoTaken;
    shifted.change("store", "response<m>", "response<n>")
        .change("release", "response<m>", "response<n>");
    Script expected = Script::forEach({0, 1}, kEchoSent + kEchoTaken) +
                      Script::forEach({2}, kEchoSent + fiveTriesInVain());
    for (const int n : {3, 4, 5, 6, 7, 8, 9}) {
        const std::string before = std::to_string(n - 1);
        Script iteration = Script::forEach({n}, shifted);
        iteration.change("store", numbered(R"("<n>", "CLIENT:echo <n>")", n),
                         "\"" + before + "\", \"CLIENT:echo " + before + "\"");
        iteration.fail("payload == rpayload",
                       numbered("[CLIENT:echo <n> != CLIENT:echo ", n) + before + "]");
        iteration.fail("uuid == ruuid", numbered("[<n> != ", n) + before + "]");
        expected += iteration;
    }
    expectRun("thirdAnswerAtTry=6", nonBlocking(expected));
}

BOOST_AUTO_TEST_CASE(wrongTextsAreComparedAsWhenBlocking) {
    expectRun("answerPayload=fixed",
              withPayload(nonBlocking(), "CLIENT:echo <n>", "fixed")
                  .fail("payload == rpayload", "[CLIENT:echo <n> != fixed]"));
}

// What a failed try stored nevertheless is neither compared nor released by the
// case; the fixture's end releases it.
BOOST_AUTO_TEST_CASE(aResponseLeftByTheCaseIsReleasedAtItsEnd) {
    const Script inHand = R"(
usleep(10000)
kavri_core_ipc_initiator_response_receive(initiator1, 0, [held], [held], [held], [held]) = 5
)";
    const Script last = Script(R"(
usleep(10000)
store response10("test", "echo", "9", "CLIENT:echo 9")
kavri_core_ipc_initiator_response_receive(initiator1, 0, [null], [null], [null], [null]) = 12
)") + inHand + inHand + inHand +
                        inHand + "failed jj != 0";
    expectRun("receiveMisreported=10",
              nonBlocking(Script::forEach({0, 1, 2, 3, 4, 5, 6, 7, 8}, kEchoSent + kEchoTaken) +
                          Script::forEach({9}, kEchoSent) + last) +
                  Script::forEach({9}, kReleases));
}

BOOST_AUTO_TEST_SUITE_END()

// -------------------------------------------------------------------- callback

BOOST_AUTO_TEST_SUITE(callbackCase)

const char* const kCount = "limit == callbackCounter";
const char* const kSequence = "callbackCounter == u";

// Ten deliveries of which each has this uuid.
Script deliveredWithUuid(const std::string& uuid) {
    return Script(kDelivered).change("deliver", "\"<n>\"", "\"" + uuid + "\"");
}

// These deliveries, by the number of the answer from 1, in this order. Each fails
// its sequence check unless as many came before it as its uuid says.
Script deliveredInOrder(const std::vector<int>& answers) {
    Script result;
    int before = 0;
    for (const int number : answers) {
        Script delivery = Script::forEach({number - 1}, kDelivered);
        if (number - 1 != before) {
            delivery.fail(kSequence,
                          "[" + std::to_string(before) + " != " + std::to_string(number - 1) + "]");
        }
        result += delivery;
        ++before;
    }
    return result;
}

BOOST_AUTO_TEST_CASE(aUuidWithLeadingZerosIsTheSameNumber) {
    expectRun("answerUuidPrefix=00", callback(tenTimes(deliveredWithUuid("00<n>"))));
}

BOOST_AUTO_TEST_CASE(aUuidThatIsNoNumberIsZero) {
    const Which allButTheFirst = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    expectRun(
        "answerUuid=",
        callback(tenTimes(deliveredWithUuid(""))).fail(kSequence, "[<n> != 0]", allButTheFirst));
    expectRun("answerUuid=none", callback(tenTimes(deliveredWithUuid("none")))
                                     .fail(kSequence, "[<n> != 0]", allButTheFirst));
}

BOOST_AUTO_TEST_CASE(aConstantUuidIsRightOnce) {
    expectRun("answerUuid=3rd", callback(tenTimes(deliveredWithUuid("3rd")))
                                    .fail(kSequence, "[<n> != 3]", {0, 1, 2, 4, 5, 6, 7, 8, 9}));
}

BOOST_AUTO_TEST_CASE(oneWrongUuidFailsOnceAndIsCounted) {
    expectRun(
        "firstAnswerUuid=3",
        callback().change("deliver response1(", "\"0\"", "\"3\"").fail(kSequence, "[0 != 3]", {0}));
}

BOOST_AUTO_TEST_CASE(aLostResponseFailsEveryLaterOneAndTheCount) {
    expectRun("answerMissing=4",
              callback(deliveredInOrder({1, 2, 3, 5, 6, 7, 8, 9, 10})).fail(kCount, "[10 != 9]"));
}

BOOST_AUTO_TEST_CASE(aDoubledResponseFailsEveryLaterOneAndTheCount) {
    Script deliveries = deliveredInOrder({1, 2, 3, 3, 4, 5, 6, 7, 8, 9, 10});
    deliveries.change("deliver response3(", "response3", "response3again", {1});
    deliveries.change("release response3 ", "response3", "response3again", {4, 5, 6, 7});
    expectRun("answerDoubled=3", callback(deliveries).fail(kCount, "[10 != 11]"));
}

BOOST_AUTO_TEST_CASE(anOvertakenResponseFailsTheSequenceAlone) {
    expectRun("answerOvertaken=3", callback(deliveredInOrder({1, 2, 4, 3, 5, 6, 7, 8, 9, 10})));
}

BOOST_AUTO_TEST_CASE(withoutAnyResponseOnlyTheCountFails) {
    expectRun("answersMissing", callback({}).fail(kCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_CASE(responsesThatComeTooLateAreNotWaitedFor) {
    expectRun("deliveriesInTime=7",
              callback(deliveredInOrder({1, 2, 3, 4, 5, 6, 7})).fail(kCount, "[10 != 7]"));
}

BOOST_AUTO_TEST_CASE(aWrongContextFailsItsCheckAlone) {
    expectRun("deliveryContext=12345678", callback()
                                              .change("deliver", "0x87654321", "0x12345678")
                                              .fail("context == (void*)0x87654321", ""));
}

// The run up to a first delivery in which one argument is null: reported, and then
// followed all the same, up to its release at the latest.
Script upToNullArgument(const std::string& argument, const std::string& lastLine) {
    return callback().fail(argument, "", {0}).endAfter(lastLine);
}

BOOST_AUTO_TEST_CASE(aNullArgumentIsLoggedAndThenEndsTheModule) {
    expectCrash("deliveryArgumentMissing=targetCategory",
                upToNullArgument("targetCategory", kSequence));
    expectCrash("deliveryArgumentMissing=targetIdentifier",
                upToNullArgument("targetIdentifier", "release response1 targetCategory"));
    expectCrash("deliveryArgumentMissing=payload",
                upToNullArgument("payload", "release response1 uuid"));
    expectCrash("deliveryArgumentMissing=uuid",
                upToNullArgument("uuid", "passed context == (void*)0x87654321"));
}

BOOST_AUTO_TEST_CASE(aNullTextBehindAnArgumentIsFineExceptForTheUuid) {
    for (const std::string field : {"targetCategory", "targetIdentifier", "payload"}) {
        Script expected = callback();
        for (const int n : kTen) {
            expected.remove(numbered("release response<m> ", n) + field);
        }
        expectRun("deliveryTextMissing=" + field, expected);
    }
    expectCrash("deliveryTextMissing=uuid",
                callback().endAfter("passed context == (void*)0x87654321"));
}

BOOST_AUTO_TEST_CASE(aCallbackThatCannotBeInstalledFailsTheCountToo) {
    expectRun(
        "responseCallbackRefused=3",
        callback({})
            .refuse(kInstall, 3, {0})
            .fail("OK == kavri_core_ipc_initiator_response_receive_callback(c, dummy", "[0 != 3]")
            .fail(kCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_CASE(aCallbackThatCannotBeRemovedIsLogged) {
    expectRun("responseCallbackKept=3",
              callback()
                  .refuse(kInstall, 3, {1})
                  .fail("OK == kavri_core_ipc_initiator_response_receive_callback(c, __null",
                        "[0 != 3]"));
}

BOOST_AUTO_TEST_CASE(oneRefusedSendDoesNotEndTheLoop) {
    Script later = kDelivered;
    later.change("deliver", "\"<n>\"", "\"<m>\"");
    expectRun("sendRefused=4", callback(Script::forEach({0, 1, 2}, kDelivered) +
                                        Script::forEach({3, 4, 5, 6, 7, 8}, later))
                                   .refuse(kSend, 13, {3})
                                   .fail("OK == send(", "[0 != 13]", {3})
                                   .fail(kSequence, "[<n> != <m>]", {3, 4, 5, 6, 7, 8})
                                   .fail(kCount, "[10 != 9]"));
}

BOOST_AUTO_TEST_CASE(refusedSendsAreAllAttempted) {
    expectRun(
        "sendsRefused",
        callback({}).refuse(kSend, 13).fail("OK == send(", "[0 != 13]").fail(kCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_SUITE_END()

// ----------------------------------------------------------------- failReceive

BOOST_AUTO_TEST_SUITE(failReceiveCase)

const char* const kWaiting = "KAVRI_CORE_STATUS_IPC_FAILED == recv()";
const char* const kNotWaiting = "KAVRI_CORE_STATUS_IPC_FAILED == recv(0)";

BOOST_AUTO_TEST_CASE(aReceiveThatIsNotRefusedForEitherTimeOutIsLogged) {
    expectRun(
        "receiveNotRefused=-1",
        failReceive().change("receive(initiator1, -1", "= 4", "= 5").fail(kWaiting, "[4 != 5]"));
    expectRun(
        "receiveNotRefused=0",
        failReceive().change("receive(initiator1, 0", "= 4", "= 5").fail(kNotWaiting, "[4 != 5]"));
}

BOOST_AUTO_TEST_CASE(aReceiveRefusedWithAnotherStatusIsLogged) {
    for (const std::string status : {"9", "0"}) {
        const std::string values = "[4 != " + status + "]";
        expectRun("receivesRefusedWith=" + status, failReceive()
                                                       .change(kReceive, "= 4", "= " + status)
                                                       .fail(kWaiting, values)
                                                       .fail(kNotWaiting, values));
    }
}

const Script kUncalledFor = "store response0(\"test\", \"none\", \"0\", \"uncalled for\")";

BOOST_AUTO_TEST_CASE(whatARefusedReceiveStoredIsReleased) {
    expectRun("refusedReceiveStores=-1",
              Script(failReceive())
                  .insertAfter("callback(c, dummy", kUncalledFor)
                  .change("receive(initiator1, 0", "[null]", "[held]")
                  .insertAfter("callback(c, __null, __null)", Script::forEach({-1}, kReleases)));
    expectRun("refusedReceiveStores=0",
              Script(failReceive())
                  .insertAfter("== recv()", kUncalledFor)
                  .insertAfter("callback(c, __null, __null)", Script::forEach({-1}, kReleases)));
}

BOOST_AUTO_TEST_CASE(aCallbackThatCannotBeInstalledDoesNotEndTheCase) {
    expectRun(
        "responseCallbackRefused=3",
        failReceive()
            .refuse(kInstall, 3, {0})
            .change(kReceive, ") = 4", ") = 5")
            .fail("OK == kavri_core_ipc_initiator_response_receive_callback(c, dummy", "[0 != 3]")
            .fail(kWaiting, "[4 != 5]")
            .fail(kNotWaiting, "[4 != 5]"));
}

BOOST_AUTO_TEST_CASE(aCallbackThatCannotBeRemovedIsLogged) {
    expectRun("responseCallbackKept=3",
              failReceive()
                  .refuse(kInstall, 3, {1})
                  .fail("OK == kavri_core_ipc_initiator_response_receive_callback(c, __null",
                        "[0 != 3]"));
}

BOOST_AUTO_TEST_SUITE_END()

// ----------------------------------------------------------------------- event

BOOST_AUTO_TEST_SUITE(eventCase)

const char* const kCount = "limit == eventCounter";

Script delivered(const std::vector<int>& events) {
    return Script::forEach(events, kEventDelivered);
}

BOOST_AUTO_TEST_CASE(aLostEventFailsTheCount) {
    expectRun("eventLost=4",
              event(delivered({0, 1, 2, 4, 5, 6, 7, 8, 9})).fail(kCount, "[10 != 9]"));
}

BOOST_AUTO_TEST_CASE(aDoubledEventFailsTheCount) {
    Script again = Script::forEach({3}, kEventDelivered);
    again.change("event4", "event4", "event4again");
    expectRun("eventDoubled=4",
              event(delivered({0, 1, 2, 3}) + again + delivered({4, 5, 6, 7, 8, 9}))
                  .fail(kCount, "[10 != 11]"));
}

BOOST_AUTO_TEST_CASE(eventsThatComeTooLateAreNotWaitedFor) {
    expectRun("deliveriesInTime=7",
              event(delivered({0, 1, 2, 3, 4, 5, 6})).fail(kCount, "[10 != 7]"));
}

BOOST_AUTO_TEST_CASE(aWrongContextFailsItsCheckAlone) {
    expectRun("deliveryContext=87654321", event()
                                              .change("deliver", "0x12345678", "0x87654321")
                                              .fail("context == (void*)0x12345678", ""));
}

BOOST_AUTO_TEST_CASE(aNullArgumentIsLoggedAndThenEndsTheModule) {
    expectCrash("deliveryArgumentMissing=targetCategory",
                event().fail("targetCategory", "", {0}).endAfter("context == (void*)0x12345678"));
    expectCrash(
        "deliveryArgumentMissing=targetIdentifier",
        event().fail("targetIdentifier", "", {0}).endAfter("release event1 targetCategory"));
    expectCrash("deliveryArgumentMissing=payload",
                event().fail("payload", "", {0}).endAfter("release event1 targetIdentifier"));
}

BOOST_AUTO_TEST_CASE(aNullTextBehindAnArgumentIsFine) {
    Script expected = event();
    for (const int n : kTen) {
        expected.remove(numbered("release event<m> payload", n));
    }
    expectRun("deliveryTextMissing=payload", expected);
}

BOOST_AUTO_TEST_CASE(withoutASubscriptionNoEventComes) {
    expectRun("subscribeRefused=9", event({})
                                        .refuse("kavri_core_ipc_initiator_event_subscribe", 9)
                                        .fail("OK == eventSubscribe(\"test\")", "[0 != 9]")
                                        .fail(kCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_CASE(aSubscriptionThatCannotBeEndedIsLogged) {
    expectRun("unsubscribeRefused=11", event()
                                           .refuse("kavri_core_ipc_initiator_event_unsubscribe", 11)
                                           .fail("OK == eventUnsubscribe(\"test\")", "[0 != 11]"));
}

BOOST_AUTO_TEST_CASE(refusedRequestsAreAllAttempted) {
    expectRun("sendsRefused", event({})
                                  .refuse(kSend, 13)
                                  .fail("OK == send(\"event\")", "[0 != 13]")
                                  .fail(kCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_CASE(oneRefusedRequestIsMissingAtTheEnd) {
    expectRun("sendRefused=4", event(delivered({0, 1, 2, 3, 4, 5, 6, 7, 8}))
                                   .refuse(kSend, 13, {3})
                                   .fail("OK == send(\"event\")", "[0 != 13]", {3})
                                   .fail(kCount, "[10 != 9]"));
}

BOOST_AUTO_TEST_CASE(aCallbackThatCannotBeInstalledFailsTheCountToo) {
    expectRun(
        "eventCallbackRefused=3",
        event({})
            .refuse(kInstallEvent, 3, {0})
            .fail("OK == kavri_core_ipc_initiator_event_receive_callback(c, dummy", "[0 != 3]")
            .fail(kCount, "[10 != 0]"));
}

BOOST_AUTO_TEST_CASE(aCallbackThatCannotBeRemovedIsLogged) {
    expectRun(
        "eventCallbackKept=3",
        event()
            .refuse(kInstallEvent, 3, {1})
            .fail("OK == kavri_core_ipc_initiator_event_receive_callback(c, __null", "[0 != 3]"));
}

BOOST_AUTO_TEST_CASE(anAnswerToTheRequestIsLeftUnread) {
    expectRun("eventAnswered", event());
}

BOOST_AUTO_TEST_SUITE_END()
