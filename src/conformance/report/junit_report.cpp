// From cases to elements; see junit_report.h.
//
// Readers accept one outcome per test case, so all that is wrong with a case goes
// into one element: its message is one line, its text has everything. A failure
// is what a check found, an error what kept the case from its end, or from being run:
// a build server that skips what was not run would show a run of nothing in green.
#include "conformance/report/junit_report.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <pugixml.hpp>
#include <sstream>

#include "base/text_scanner.h"

namespace kavri::conformance {

namespace {

// Of the record of a case, the last; what led to a failure is there.
constexpr size_t callsShown = 200;
// Of the failed checks of a case, the first.
constexpr size_t failuresShown = 50;

// XML cannot hold every byte, not even escaped. What is no UTF-8 becomes U+FFFD,
// as the JSON writer does it; a control character its number.
std::string xmlText(std::string_view text) {
    using nlohmann::json;
    const std::string unicode =
        json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
    std::string result;
    for (size_t i = 0; i < unicode.size(); ++i) {
        const auto byte = static_cast<unsigned char>(unicode[i]);
        const std::string_view rest = std::string_view(unicode).substr(i);
        if (byte < 0x20 && byte != '\n' && byte != '\t') {
            result += fmt::format("\\x{:02x}", byte);
        } else if (rest.starts_with("\xef\xbf\xbe") || rest.starts_with("\xef\xbf\xbf")) {
            result += "\xef\xbf\xbd";
            i += 2;
        } else {
            result += unicode[i];
        }
    }
    return result;
}

void set(pugi::xml_node node, const char* name, std::string_view value) {
    node.append_attribute(name).set_value(xmlText(value).c_str());
}

void setSeconds(pugi::xml_node node, double seconds) {
    set(node, "time", fmt::format("{:.6f}", seconds));
}

pugi::xml_node appendOutcome(pugi::xml_node testCase, const char* kind, std::string_view message) {
    pugi::xml_node outcome = testCase.append_child(kind);
    set(outcome, "message", message);
    return outcome;
}

void setText(pugi::xml_node node, std::string_view text) {
    node.append_child(pugi::node_pcdata).set_value(xmlText(text).c_str());
}

struct Totals {
    unsigned tests = 0;
    unsigned failures = 0;
    unsigned errors = 0;
    unsigned skipped = 0;
    double seconds = 0;

    void count(pugi::xml_node testCase) {
        ++tests;
        failures += testCase.child("failure") ? 1U : 0U;
        errors += testCase.child("error") ? 1U : 0U;
        skipped += testCase.child("skipped") ? 1U : 0U;
        seconds += testCase.attribute("time").as_double();
    }

    void writeTo(pugi::xml_node node) const {
        node.append_attribute("tests").set_value(tests);
        node.append_attribute("failures").set_value(failures);
        node.append_attribute("errors").set_value(errors);
        node.append_attribute("skipped").set_value(skipped);
        setSeconds(node, seconds);
    }
};

std::string compared(const CheckReport& check) {
    return check.left.empty() && check.right.empty()
               ? ""
               : fmt::format("\n    left:  {}\n    right: {}", check.left, check.right);
}

// Where the first failed check is: from "test_ipc_initiator.cpp(199)".
void setPlace(pugi::xml_node testCase, const CaseReport& report) {
    const auto failed = std::ranges::find(report.checks, false, &CheckReport::passed);
    if (failed == report.checks.end()) {
        return;
    }
    std::string_view file = failed->place;
    const size_t bracket = file.rfind('(');
    if (base::takeSuffix(file, ")") && bracket < file.size()) {
        set(testCase, "file", file.substr(0, bracket));
        set(testCase, "line", file.substr(bracket + 1));
    }
}

// All that is known about what is wrong, a paragraph each.
std::string failureText(const CaseReport& report) {
    std::vector<std::string> paragraphs;
    for (const CheckReport& check : report.checks) {
        if (!check.passed && paragraphs.size() < failuresShown) {
            paragraphs.push_back(failureLine(check) + compared(check));
        }
    }
    if (report.checksFailed() > failuresShown) {
        paragraphs.push_back(fmt::format("and {} more", report.checksFailed() - failuresShown));
    }
    paragraphs.insert(paragraphs.end(), report.missing.begin(), report.missing.end());
    for (const WarningReport& warning : report.warnings) {
        paragraphs.push_back(warning.line());
    }
    if (!report.crashStack.empty()) {
        paragraphs.push_back(report.crashStack);
    }
    if (report.hang && !report.hang->lastPassed.empty()) {
        paragraphs.push_back("the last check that passed: " + report.hang->lastPassed);
    }
    if (report.hang && !report.hang->stacks.empty()) {
        paragraphs.push_back(report.hang->stacks);
    }
    return fmt::format("{}", fmt::join(paragraphs, "\n"));
}

std::string firstOf(const std::vector<std::string>& lines, std::string_view otherwise) {
    return lines.empty() ? std::string(otherwise) : lines.front();
}

std::string failureMessage(const CaseReport& report) {
    const auto first = std::ranges::find(report.checks, false, &CheckReport::passed);
    if (first == report.checks.end()) {
        return report.missing.empty() && !report.warnings.empty()
                   ? report.warnings.front().line()
                   : firstOf(report.missing, "failed");
    }
    const unsigned others = report.checksFailed() - 1;
    return fmt::format("{}, at {}{}", first->text, first->place,
                       others > 0 ? fmt::format(", and {} more", others) : "");
}

std::string hangMessage(const HangReport& hang) {
    return hang.call.empty()
               ? fmt::format("not ended after {:.1f} s; no call was under way", hang.seconds)
               : fmt::format("{} {} did not return within {:.1f} s", hang.call, hang.arguments,
                             hang.seconds);
}

std::string errorMessage(const CaseReport& report) {
    if (report.verdict == Verdict::timeout && report.hang) {
        return hangMessage(*report.hang);
    }
    return report.crash.empty() ? failureMessage(report) : report.crash;
}

// `reason`: that of the library.
void appendNotRun(pugi::xml_node testCase, std::string_view reason) {
    set(appendOutcome(testCase, "error", reason), "type", verdictText(Verdict::notRun));
}

void appendVerdict(pugi::xml_node testCase, const CaseReport& report, std::string_view reason) {
    if (report.verdict == Verdict::pass) {
        return;
    }
    if (report.verdict == Verdict::notRun) {
        appendNotRun(testCase, firstOf(report.missing, reason));
    } else if (!report.known.empty()) {
        appendOutcome(testCase, "skipped", "known failure: " + report.known);
    } else {
        const bool failed = report.verdict == Verdict::fail;
        pugi::xml_node outcome =
            appendOutcome(testCase, failed ? "failure" : "error",
                          failed ? failureMessage(report) : errorMessage(report));
        set(outcome, "type", verdictText(report.verdict));
        setText(outcome, failureText(report));
    }
}

std::string jsonText(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// "12.345 ms  kavri_core_init {} returned {"status":0}".
std::string callLine(const CallReport& call, std::int64_t originNs) {
    const bool isDelivery = call.kind == CallReport::Kind::delivery;
    const std::string end = !call.endNs  ? "did not return"
                            : isDelivery ? "returned"
                                         : "returned " + jsonText(call.result);
    return fmt::format("{:10.3f} ms  {}{} {} {}\n",
                       static_cast<double>(call.beginNs - originNs) / 1e6, call.function,
                       isDelivery ? " callback" : "", jsonText(call.arguments), end);
}

std::string recordText(const CaseReport& report) {
    std::string text =
        fmt::format("checks: {}, failed: {}\n", report.checks.size(), report.checksFailed());
    for (const std::string& remark : report.remarks) {
        text += "remark: " + remark + "\n";
    }
    for (const WarningReport& warning : report.warnings) {
        text += warning.line() + "\n";
    }
    const size_t leftOut = report.calls.size() - std::min(report.calls.size(), callsShown);
    if (leftOut > 0) {
        text += fmt::format("{} earlier calls are left out\n", leftOut);
    }
    for (size_t i = leftOut; i < report.calls.size(); ++i) {
        text += callLine(report.calls[i], report.beginNs);
    }
    for (const FaultFired& fault : report.faults) {
        text += fmt::format("fault {}: {}\n", fault.name, fault.did);
    }
    return report.repeat.empty() ? text : text + "again: " + report.repeat + "\n";
}

pugi::xml_node appendTestCase(pugi::xml_node suite, std::string_view className,
                              std::string_view name, double seconds) {
    pugi::xml_node testCase = suite.append_child("testcase");
    set(testCase, "classname", className);
    set(testCase, "name", name);
    setSeconds(testCase, seconds);
    return testCase;
}

// The cases of one suite, as one element. The class name distinguishes the suites of
// several libraries.
class SuiteElement {
  public:
    SuiteElement(pugi::xml_node root, std::string name, const std::string& date)
        : element_(root.append_child("testsuite")), className_(std::move(name)) {
        set(element_, "name", className_);
        // The form has no time zone.
        std::string_view timestamp = date;
        base::takeSuffix(timestamp, "Z");
        set(element_, "timestamp", timestamp);
        properties_ = element_.append_child("properties");
    }

    void add(const CaseReport& report, std::string_view bareName, const LibraryReport& library) {
        pugi::xml_node testCase = appendTestCase(element_, className_, bareName, report.seconds());
        setPlace(testCase, report);
        appendVerdict(testCase, report, library.reason);
        appendLevel(report, bareName);
        const std::string remark = report.verdict == Verdict::pass && library.unconfirmed
                                       ? fmt::format("pass, {}\n", notConfirmedText)
                                       : "";
        setText(testCase.append_child("system-out"), remark + recordText(report));
        if (!report.output.empty()) {
            setText(testCase.append_child("system-err"), report.output);
        }
    }

    void add(const FaultReport& fault) {
        pugi::xml_node testCase = appendTestCase(element_, className_, fault.name, fault.seconds);
        if (!fault.asExpected()) {
            setText(appendOutcome(testCase, "failure", fault.wrong.front()),
                    fmt::format("{}\n{}", fault.description, fmt::join(fault.wrong, "\n")));
        }
    }

    // About an entry of the known failures.
    void add(const std::string& complaint) {
        pugi::xml_node testCase = appendTestCase(element_, className_, complaint, 0);
        appendOutcome(testCase, "failure", "the known failures are no longer true");
    }

    // What a process held after its runs.
    void add(const RepeatReport::Growth& growth, bool fails) {
        pugi::xml_node testCase = appendTestCase(element_, className_, growth.what, 0);
        if (growth.grows && fails) {
            appendOutcome(testCase, "failure", growth.remark());
        }
        const std::string slope = growth.slope ? fmt::format(", {:+.1f} each run", *growth.slope)
                                               : ", too few runs in one process to judge it";
        setText(testCase.append_child("system-out"),
                fmt::format("{} after the first run, {} after the last, {} at most{}\n{}",
                            growth.first, growth.last, growth.most, slope,
                            growth.grows ? "remark: " + growth.remark() + "\n" : ""));
    }

    // A library or a run of which not even the cases are known.
    void addNotRun(std::string_view reason) {
        appendNotRun(appendTestCase(element_, className_, "all cases", 0), reason);
    }

    // The numbers of its cases, in it and in those of all.
    void finish(Totals& all) {
        if (!properties_.first_child()) {
            element_.remove_child(properties_);
        }
        Totals own;
        for (pugi::xml_node testCase : element_.children("testcase")) {
            own.count(testCase);
            all.count(testCase);
        }
        own.writeTo(element_);
    }

  private:
    // Readers allow properties of a suite only.
    void appendLevel(const CaseReport& report, std::string_view bareName) {
        if (!report.level.empty()) {
            pugi::xml_node property = properties_.append_child("property");
            set(property, "name", fmt::format("level.{}", bareName));
            set(property, "value", report.level);
        }
    }

    pugi::xml_node element_;
    pugi::xml_node properties_;
    std::string className_;
};

}  // namespace

std::string junitReport(const Report& report) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("testsuites");
    set(root, "name", "kavri conformance");
    std::vector<SuiteElement> suites;
    for (const LibraryReport& library : report.libraries) {
        if (library.cases.empty()) {
            suites.emplace_back(root, library.name, report.date).addNotRun(library.reason);
        }
        std::string_view current;
        for (const CaseReport& one : library.cases) {
            std::string_view name = one.name;
            const std::string_view suite = base::takeUntil(name, "/").value_or("");
            if (&one == &library.cases.front() || suite != current) {
                suites.emplace_back(root, fmt::format("{}.{}", library.name, suite), report.date);
                current = suite;
            }
            suites.back().add(one, name, library);
        }
        if (library.repeats) {
            SuiteElement& growth = suites.emplace_back(root, library.name + ".growth", report.date);
            for (const RepeatReport::Growth& each : library.repeats->growth) {
                growth.add(each, library.repeats->failsOnGrowth);
            }
        }
    }
    if (report.matrix) {
        SuiteElement& faults = suites.emplace_back(root, "faults", report.date);
        for (const FaultReport& fault : report.matrix->faults) {
            faults.add(fault);
        }
    }
    if (!report.complaints.empty()) {
        SuiteElement& known = suites.emplace_back(root, "known failures", report.date);
        std::ranges::for_each(report.complaints, [&](const auto& line) { known.add(line); });
    }
    Totals all;
    for (SuiteElement& suite : suites) {
        suite.finish(all);
    }
    all.writeTo(root);
    std::ostringstream text;
    document.save(text, "  ");
    return text.str();
}

}  // namespace kavri::conformance
