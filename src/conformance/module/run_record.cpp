// From events to reports; see run_record.h.
#include "conformance/module/run_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

#include "conformance/cases/interface_rules.h"
#include "conformance/cases/record_judgement.h"
#include "conformance/cases/required_record.h"

namespace kavri::conformance {

namespace {

using Kind = ModuleEvent::Kind;

std::string textIn(const nlohmann::json& data, const char* name) {
    const auto found = data.find(name);
    return found != data.end() && found->is_string() ? found->get<std::string>() : "";
}

CheckReport checkIn(const ModuleEvent& event) {
    return {.text = textIn(event.data, "check"),
            .place = event.text,
            .passed = event.kind == Kind::passed,
            .left = textIn(event.data, "left"),
            .right = textIn(event.data, "right"),
            .message = textIn(event.data, "message"),
            .atNs = event.atNs,
            .thread = event.thread};
}

// "left behind by the library: 1 thread, 2 descriptors"
std::string leftText(const nlohmann::json& left) {
    std::string text;
    for (const auto& [what, count] : left.items()) {
        text += (text.empty() ? "left behind by the library: " : ", ") + count.dump() + ' ' +
                (count == 1 ? what.substr(0, what.size() - 1) : what);
    }
    return text;
}

}  // namespace

CaseReport* RunRecord::add(const ModuleEvent& event) {
    lastEventNs_ = event.atNs;
    if (event.kind == Kind::peer) {
        hasProbeEcho_ = event.text == "ok";
        if (!hasProbeEcho_) {
            peerMissing_ = textIn(event.data, "reason");
        }
    }
    if (event.kind == Kind::crash || event.kind == Kind::exit || event.kind == Kind::stack) {
        endProcess(event);
    }
    if (event.kind == Kind::began) {
        underWay_ = CaseReport{};
        underWay_->name = event.text;
        underWay_->level = levelText(levelOf(event.text));
        underWay_->verdict = Verdict::pass;
        underWay_->beginNs = event.atNs;
        hasProbeEcho_ = false;
    }
    if (!underWay_) {
        addStray(event);
        return nullptr;
    }
    if (event.kind == Kind::ended) {
        return &end(event.atNs);
    }
    addToCase(event);
    return nullptr;
}

// Of what happens between the cases, only failures matter.
void RunRecord::addStray(const ModuleEvent& event) {
    if (event.kind == Kind::failed) {
        strayFailures_.push_back(failureLine(checkIn(event)));
    } else if (event.kind == Kind::aborted) {
        strayFailures_.push_back("an exception outside of every case: " +
                                 textIn(event.data, "message"));
    }
}

void RunRecord::addToCase(const ModuleEvent& event) {
    assert(underWay_);
    switch (event.kind) {
        case Kind::failed:
            addFailure(checkIn(event));
            [[fallthrough]];
        case Kind::passed:
            addCheck(event);
            break;
        case Kind::aborted:
            underWay_->verdict = Verdict::fail;
            underWay_->missing.push_back("an exception ended the case: " +
                                         textIn(event.data, "message"));
            break;
        case Kind::call:
            addCall(event, CallReport::Kind::call);
            break;
        case Kind::deliver:
            addCall(event, CallReport::Kind::delivery);
            break;
        case Kind::returned:
        case Kind::delivered:
            endCall(event);
            break;
        case Kind::fault:
            underWay_->faults.push_back({event.text, event.atNs, textIn(event.data, "did")});
            break;
        case Kind::left:
            left_ = leftText(event.data);
            underWay_->remarks.push_back(left_);
            break;
        case Kind::breach:
            addBreach(event);
            break;
        default:
            break;  // not part of a case
    }
}

void RunRecord::addFailure(const CheckReport& check) {
    const Level level = levelOf(underWay_->name, check.text);
    if (level >= level_) {
        underWay_->verdict = Verdict::fail;
        return;
    }
    const std::string remark =
        "not required, since it is a \"" + std::string(levelText(level)) + "\": " + check.text;
    if (std::ranges::find(underWay_->remarks, remark) == underWay_->remarks.end()) {
        underWay_->remarks.push_back(remark);
    }
}

// A rule that is broken again is counted, and not told again.
void RunRecord::addBreach(const ModuleEvent& event) {
    const std::string rule = textIn(event.data, "rule");
    if (findInterfaceRule(rule) == nullptr) {
        return;  // not from the probe
    }
    const auto known = std::ranges::find(breaches_, rule, &WarningReport::rule);
    if (known != breaches_.end()) {
        ++known->times;
        return;
    }
    const auto call = open_.find(event.number);
    std::string where;
    if (call != open_.end()) {
        const CallReport& broken = underWay_->calls[call->second];
        const bool isDelivery = broken.kind == CallReport::Kind::delivery;
        where = (isDelivery ? "the " + broken.function + " callback" : broken.function) + ": ";
    }
    breaches_.push_back(warningFor(rule, where + textIn(event.data, "what")));
}

void RunRecord::endProcess(const ModuleEvent& event) {
    if (event.kind == Kind::stack) {
        const nlohmann::json frames = event.data.value("frames", nlohmann::json::array());
        for (const nlohmann::json& frame : frames) {
            if (processEnd_ && frame.is_string()) {
                processEnd_->frames.push_back(frame.get<std::string>());
            }
        }
        return;
    }
    const bool isCall = event.kind == Kind::exit;
    processEnd_ = ProcessEnd{.kind = isCall ? ProcessEnd::Kind::call : ProcessEnd::Kind::signal,
                             .number = event.number,
                             .function = textIn(event.data, "function"),
                             .thread = event.thread,
                             .frames = {}};
}

void RunRecord::addCall(const ModuleEvent& event, CallReport::Kind kind) {
    CallReport call;
    call.kind = kind;
    call.number = event.number;
    call.function = event.text;
    call.thread = event.thread;
    call.beginNs = event.atNs;
    call.arguments = event.data;
    if (event.number == 0) {
        checkCall_ = std::move(call);
        return;
    }
    if (underWay_->calls.size() == callsLimit) {
        ++leftOut_;
        return;
    }
    open_[event.number] = underWay_->calls.size();
    underWay_->calls.push_back(std::move(call));
}

void RunRecord::addCheck(const ModuleEvent& event) {
    if (underWay_->checks.size() == checksLimit) {
        ++leftOut_;
        return;
    }
    underWay_->checks.push_back(checkIn(event));
}

void RunRecord::endCall(const ModuleEvent& event) {
    if (event.number == 0) {
        checkCall_.reset();
    }
    const auto found = open_.find(event.number);
    if (found != open_.end()) {
        CallReport& call = underWay_->calls[found->second];
        call.endNs = event.atNs;
        call.result = event.data;
        open_.erase(found);
    }
}

const CallReport* RunRecord::openCall() const {
    if (checkCall_) {
        return &*checkCall_;
    }
    return open_.empty() ? nullptr : &underWay_->calls[open_.begin()->second];
}

CaseReport& RunRecord::cutOff(Verdict verdict, std::int64_t nowNs) {
    assert(underWay_);
    underWay_->verdict = verdict;
    return end(nowNs);
}

// A library may keep something for good from the first use of a function on, and so not from a
// later one.
void RunRecord::judge() {
    underWay_->warnings = judgeRecord(*underWay_);
    // On the caller's thread the signals are the caller's.
    const bool isOnCallersThread =
        std::ranges::find(underWay_->warnings, "callback-thread", &WarningReport::rule) !=
        underWay_->warnings.end();
    std::ranges::copy_if(breaches_, std::back_inserter(underWay_->warnings),
                         [&](const WarningReport& breach) {
                             return !isOnCallersThread || breach.rule != "callback-signals";
                         });
    bool isFirstUse = false;
    for (const CallReport& call : underWay_->calls) {
        isFirstUse = functionsUsed_.insert(call.function).second || isFirstUse;
    }
    if (!left_.empty() && !isFirstUse) {
        underWay_->warnings.push_back(warningFor("released-at-the-end", left_));
    }
    breaches_.clear();
    left_.clear();
}

// A pass counts only where the record holds what the case must have done, with a
// test service at the other end that has seen it.
std::vector<std::string> RunRecord::whyNoPass() const {
    std::vector<std::string> reasons = missingFrom(*underWay_, level_);
    if (peerMissing_) {
        reasons.push_back("no test service answers: " + *peerMissing_);
    }
    return reasons.empty() && confirm_ ? confirm_(*underWay_, hasProbeEcho_) : reasons;
}

CaseReport& RunRecord::end(std::int64_t nowNs) {
    underWay_->endNs = nowNs;
    judge();
    if (underWay_->verdict == Verdict::pass) {
        underWay_->missing = whyNoPass();
        if (!underWay_->missing.empty() || leftOut_ > 0 ||
            (warningsFail_ && !underWay_->warnings.empty())) {
            underWay_->verdict = Verdict::fail;
        }
    }
    if (leftOut_ > 0) {
        underWay_->missing.push_back(
            fmt::format("{} calls and checks are left out: no case has so many", leftOut_));
    }
    leftOut_ = 0;
    open_.clear();
    checkCall_.reset();
    hasEndedCase_ = true;
    return cases_.emplace_back(*std::exchange(underWay_, std::nullopt));
}

}  // namespace kavri::conformance
