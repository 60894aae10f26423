// The report of a run, as one value: the display, the JSON and JUnit files and the page
// are made from it.
//
// Times are nanoseconds of the monotonic clock, as the probe and the observer
// read it within the module.
#ifndef KAVRI_CONFORMANCE_REPORT_REPORT_H
#define KAVRI_CONFORMANCE_REPORT_REPORT_H

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/latencies.h"
#include "conformance/report/baseline_comparison.h"

namespace kavri::conformance {

// From best to worst. A library or a run is *incomplete* where some of what was selected
// has no verdict; one of which nothing has a verdict is *not run*.
enum class Verdict { pass, fail, harnessError, timeout, crash, notRun, incomplete };
std::string_view verdictText(Verdict verdict);  // "pass", "not run", …

struct CheckReport {
    std::string text;   // "payload == rpayload", or the one expression
    std::string place;  // "test_ipc_initiator.cpp(199)"
    bool passed = false;
    std::string left;  // the two values, where it compares
    std::string right;
    std::string message;  // of a failed one, as the framework words it: "error: check …"
    std::int64_t atNs = 0;
    int thread = 0;
};

// "test_ipc_initiator.cpp(199): error: check …"
std::string failureLine(const CheckReport& check);

// A call of one of the twelve functions, or of a callback by the library.
struct CallReport {
    enum class Kind { call, delivery };
    Kind kind = Kind::call;
    unsigned number = 0;   // as the probe counted it
    std::string function;  // or "response", "event": the callback
    int thread = 0;
    std::int64_t beginNs = 0;
    std::optional<std::int64_t> endNs;  // none: it did not return
    nlohmann::json arguments = nlohmann::json::object();
    nlohmann::json result = nlohmann::json::object();
};

// The probe injected the chosen fault.
struct FaultFired {
    std::string name;
    std::int64_t atNs = 0;
    std::string did;
};

// A call that did not return, or a case that did not end.
struct HangReport {
    std::string call;       // the function; empty: no call was under way
    std::string arguments;  // as text
    double seconds = 0;
    std::string lastPassed;  // the last check that passed, text and place; or empty
    std::string stacks;      // of all threads; empty where no debugger is there
};

// "; the last check that passed: …"; "; no check had passed" where it is empty.
std::string lastPassedClause(const std::string& lastPassed);

// Something that the public headers forbid and the record shows, though no check failed.
struct WarningReport {
    std::string rule;  // its short name
    std::string text;  // what the library did
    std::string header;
    std::string sentence;  // of the header, word for word
    unsigned times = 1;    // that it did so in the case

    // "warning: …, 3 times; ipc.h: \"…\""
    std::string line() const;
};

struct CaseReport {
    std::string name;   // "suite/case"
    std::string level;  // how much the interface demands of what it looks at: "must", …
    Verdict verdict = Verdict::notRun;
    std::int64_t beginNs = 0;
    std::int64_t endNs = 0;
    std::vector<CheckReport> checks;
    std::vector<CallReport> calls;
    std::vector<FaultFired> faults;
    std::vector<std::string> missing;  // why it is no pass although no check failed
    std::vector<std::string> remarks;  // no failures, but worth knowing
    std::vector<WarningReport> warnings;
    std::optional<HangReport> hang;
    std::string crash;  // "was ended by SIGSEGV, in …", or "the library called exit(0) in …"
    std::string crashStack;  // of the thread that did so, a frame each line; or empty
    std::string output;      // of the module, see case_output.h; lines
    std::string known;       // the reason, where its failure is expected
    std::string repeat;      // the command line that runs it again

    double seconds() const { return static_cast<double>(endNs - beginNs) / 1e9; }
    unsigned checksFailed() const;
    bool hasFailed() const;                         // by fault of the library
    std::vector<std::string> failedChecks() const;  // their texts, each once
    std::vector<std::string> failureLines() const;  // of the failed checks
};

// How many of the cases have warnings.
std::size_t casesWithWarnings(const std::vector<CaseReport>& cases);

// The worst verdict; known failures count as passes.
Verdict worstOf(const std::vector<CaseReport>& cases);

// How long the calls of each function took.
using LatenciesByFunction = std::map<std::string, base::Latencies>;
void addLatencies(const std::vector<CaseReport>& cases, LatenciesByFunction& latencies);

// Many runs of the same.
struct RepeatReport {
    unsigned runs = 0;
    unsigned passed = 0;
    // What a process, or the broker beside it, held after each of its runs. Of several
    // processes that which grew the most.
    struct Growth {
        std::string what;  // "module, descriptors"
        double first = 0;
        double last = 0;
        double most = 0;
        std::optional<double> slope{};  // for each run; none where there were too few
        bool grows = false;             // counts as growth; see growth.h

        // "grows by 1.0 with each run: …"; empty where it does not.
        std::string remark() const;
    };
    std::vector<Growth> growth;
    LatenciesByFunction latencies{};  // of all runs
    bool failsOnGrowth = false;

    // Whether every run passed, and nothing grew that must not.
    bool isGood() const;
};

struct LibraryReport {
    std::string name;
    std::string core;  // the file
    std::string broker;
    double seconds = 0;
    // All that were selected, in the order of the module; empty until that is known.
    std::vector<CaseReport> cases;
    // Why not all cases have a verdict; empty: all have.
    std::string reason;
    bool unconfirmed = false;  // nothing shows that the requests reached a service
    std::optional<RepeatReport> repeats;

    Verdict verdict() const;
};

// Of a library whose cases pass by what was recorded in its own process alone.
inline constexpr std::string_view notConfirmedText = "not confirmed by the other side";
// The worst of its cases and its repeats; of a pass also whether the other side confirms it.
std::string verdictText(const LibraryReport& library);

// One fault of the kill matrix.
struct FaultReport {
    std::string name;
    std::string description;
    std::string clause;
    std::string unnoticedBecause;  // empty: some case must detect it
    bool fired = false;
    double seconds = 0;
    std::vector<CaseReport> cases;
    std::vector<std::string> wrong;  // what differed from the catalogue

    bool asExpected() const { return wrong.empty(); }
    // Every case passed, and some with a warning.
    bool isDetectedByWarnings() const;
};

// A check of the module, and what turned it red.
struct CheckKilled {
    std::string caseName;
    std::string check;
    std::vector<std::string> faults;
};

struct MatrixReport {
    // Whether all faults were as expected, and every check turned red.
    bool isProven() const;

    std::vector<FaultReport> faults;
    std::vector<CheckKilled> checks;
    double seconds = 0;
};

struct Report {
    std::string command;
    std::string date;  // "2026-11-20T12:00:00Z"
    std::string tool;
    double seconds = 0;
    std::vector<LibraryReport> libraries;
    std::optional<MatrixReport> matrix;
    // Why there is something that was not run; empty: there is nothing.
    std::string reason;
    nlohmann::json requirements = nlohmann::json::array();  // the levels of cases and checks
    std::vector<std::string> complaints;  // about known failures that are no longer true
    std::optional<BaselineComparison> baseline;
};

// Of all that was to be run. Never a pass or failure where the report has a reason: what
// is written while the run goes on is true, too, of a run that is killed at that moment.
Verdict verdictOn(const Report& report);
std::string verdictText(const Report& report);

// The documented form; see docs/conformance.md.
nlohmann::json toJson(const Report& report);

}  // namespace kavri::conformance

#endif
