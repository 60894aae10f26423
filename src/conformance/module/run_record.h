// The record of one run of the module: a report on each case, made of the events of the
// observer and the probe.
#ifndef KAVRI_CONFORMANCE_MODULE_RUN_RECORD_H
#define KAVRI_CONFORMANCE_MODULE_RUN_RECORD_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "conformance/cases/requirements.h"
#include "conformance/module/module_events.h"
#include "conformance/report/report.h"

namespace kavri::conformance {

class RunRecord {
  public:
    // Of a case. A right library comes nowhere near; one that calls back without end must
    // not fill the memory and the reports.
    static constexpr std::size_t callsLimit = 500;
    static constexpr std::size_t checksLimit = 500;
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
    // What the process held after each case, as the probe recorded it.
    const std::vector<nlohmann::json>& usage() const { return usage_; }

  private:
    void addToCase(const ModuleEvent& event);
    void addFailure(const CheckReport& check);
    void addStray(const ModuleEvent& event);
    void addCall(const ModuleEvent& event, CallReport::Kind kind);
    void addCheck(const ModuleEvent& event);
    void endCall(const ModuleEvent& event);
    CaseReport& end(std::int64_t nowNs);

    Level level_ = Level::may;
    std::vector<CaseReport> cases_;  // those that have ended
    std::optional<CaseReport> underWay_;
    std::optional<CallReport> checkCall_;   // of the peer check, while it is running
    std::map<unsigned, std::size_t> open_;  // number of a call to its place in the case
    std::size_t leftOut_ = 0;               // calls and checks of the case
    std::int64_t lastEventNs_ = 0;
    std::optional<std::string> peerMissing_;
    std::vector<std::string> strayFailures_;
    std::vector<nlohmann::json> usage_;
};

}  // namespace kavri::conformance

#endif
