// The record of one run of the module: a report on each case, made of the events of the
// observer and the probe.
#ifndef KAVRI_CONFORMANCE_MODULE_RUN_RECORD_H
#define KAVRI_CONFORMANCE_MODULE_RUN_RECORD_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "conformance/cases/requirements.h"
#include "conformance/module/module_events.h"
#include "conformance/report/report.h"

namespace kavri::conformance {

// The process ended, or was about to, as its last lines say.
struct ProcessEnd {
    enum class Kind { signal, call };
    Kind kind = Kind::signal;
    unsigned number = 0;   // the signal, or the exit status
    std::string function;  // of a call: "exit"
    int thread = 0;
    std::vector<std::string> frames;  // "FILE+0xADDRESS"
};

class RunRecord {
  public:
    // Of a case. A right library comes nowhere near; one that calls back without end must
    // not fill the memory and the reports.
    static constexpr std::size_t callsLimit = 500;
    static constexpr std::size_t checksLimit = 500;
    // What keeps a case from a pass though its own record is complete, a line each.
    // `hasProbeEcho`: the probe has asked the service for an echo meanwhile.
    using Confirm = std::function<std::vector<std::string>(const CaseReport&, bool hasProbeEcho)>;
    // Called for each case that would pass.
    explicit RunRecord(Confirm confirm = nullptr) : confirm_(std::move(confirm)) {}

    // Whether a case with a warning is no pass.
    void failOnWarnings() { warningsFail_ = true; }
    // From then on checks below the level fail no case.
    void judgeBy(Level level) { level_ = level; }

    // Adds an event. Returns the case that it ended, if it did.
    CaseReport* add(const ModuleEvent& event);

    // Failures outside of every case, a line each.
    const std::vector<std::string>& strayFailures() const { return strayFailures_; }

    // The current case, if there is one.
    const CaseReport* underWay() const { return underWay_ ? &*underWay_ : nullptr; }
    // The call that has been running the longest, if there is one.
    const CallReport* openCall() const;
    // The time of the last event; 0: there was none.
    std::int64_t lastEventNs() const { return lastEventNs_; }

    // Ends the current case, which did not end by itself. The caller fills in why.
    CaseReport& cutOff(Verdict verdict, std::int64_t nowNs);

    const std::vector<CaseReport>& cases() const { return cases_; }
    // Whether any case has ended, in whatever round.
    bool hasEndedCase() const { return hasEndedCase_; }
    // The cases that have ended are those of a round that is over.
    void beginRound() { cases_.clear(); }

    const std::optional<ProcessEnd>& processEnd() const { return processEnd_; }

  private:
    void addToCase(const ModuleEvent& event);
    void addFailure(const CheckReport& check);
    void addStray(const ModuleEvent& event);
    void addCall(const ModuleEvent& event, CallReport::Kind kind);
    void addCheck(const ModuleEvent& event);
    void endCall(const ModuleEvent& event);
    void addBreach(const ModuleEvent& event);
    void endProcess(const ModuleEvent& event);
    void judge();
    CaseReport& end(std::int64_t nowNs);
    std::vector<std::string> whyNoPass() const;

    Level level_ = Level::may;
    Confirm confirm_;
    std::vector<CaseReport> cases_;  // those that have ended
    std::optional<CaseReport> underWay_;
    std::optional<CallReport> checkCall_;   // of the peer check, while it is running
    std::map<unsigned, std::size_t> open_;  // number of a call to its place in the case
    std::size_t leftOut_ = 0;               // calls and checks of the case
    std::int64_t lastEventNs_ = 0;
    std::optional<std::string> peerMissing_;
    bool hasProbeEcho_ = false;  // in the case
    std::vector<std::string> strayFailures_;
    bool warningsFail_ = false;
    bool hasEndedCase_ = false;
    std::vector<WarningReport> breaches_;  // of the current case, as the probe found them
    std::string left_;                     // behind by the library after it
    std::set<std::string> functionsUsed_;  // in the cases before
    std::optional<ProcessEnd> processEnd_;
};

}  // namespace kavri::conformance

#endif
