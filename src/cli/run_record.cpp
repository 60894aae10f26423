// Counting; see run_record.h.
#include "cli/run_record.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace kavri::cli {

namespace {

template <typename Value>
unsigned sum(const std::vector<CaseRecord>& cases, Value value) {
    return std::accumulate(cases.begin(), cases.end(), 0U,
                           [&](unsigned total, const CaseRecord& c) { return total + value(c); });
}

}  // namespace

const CaseRecord* RunRecord::add(const ModuleEvent& event, Clock::time_point now) {
    using Kind = ModuleEvent::Kind;
    if (event.kind == Kind::began) {
        underWay_ = CaseRecord{};
        underWay_->name = event.text;
        begun_ = now;
    }
    if (!underWay_) {
        return nullptr;
    }
    switch (event.kind) {
        case Kind::reached:
            underWay_->reached = event.text;
            break;
        case Kind::passed:
            ++underWay_->checksPassed;
            underWay_->lastPassed = event.text;
            break;
        case Kind::failed:
            ++underWay_->checksFailed;
            underWay_->verdict = std::max(underWay_->verdict, Verdict::failed);
            break;
        case Kind::aborted:
            underWay_->verdict = Verdict::aborted;
            break;
        case Kind::ended:
            return &end(event.time);
        case Kind::began:
            break;
    }
    return nullptr;
}

const CaseRecord& RunRecord::cutOff(Verdict verdict, Clock::time_point now) {
    underWay_->verdict = verdict;
    return end(std::chrono::duration_cast<std::chrono::microseconds>(now - begun_));
}

const CaseRecord& RunRecord::end(std::chrono::microseconds time) {
    underWay_->time = time;
    std::erase_if(unclaimed_, [this](const LogEntry& entry) {
        const bool isItsOwn = entry.caseName == underWay_->name;
        if (isItsOwn) {
            underWay_->failures.push_back(entry.text);
        }
        return isItsOwn;
    });
    return cases_.emplace_back(*std::exchange(underWay_, std::nullopt));
}

unsigned RunRecord::checksPassed() const {
    return sum(cases_, [](const CaseRecord& c) { return c.checksPassed; });
}

unsigned RunRecord::checksFailed() const {
    return sum(cases_, [](const CaseRecord& c) { return c.checksFailed; });
}

unsigned RunRecord::casesPassed() const {
    return sum(cases_, [](const CaseRecord& c) { return c.verdict == Verdict::passed ? 1U : 0U; });
}

}  // namespace kavri::cli
