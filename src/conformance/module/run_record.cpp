// From events to reports; see run_record.h.
#include "conformance/module/run_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <utility>

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
    if (event.kind == Kind::peer && event.text != "ok") {
        peerMissing_ = textIn(event.data, "reason");
    }
    if (event.kind == Kind::usage) {
        usage_.push_back(event.data);
    }
    if (event.kind == Kind::began) {
        underWay_ = CaseReport{};
        underWay_->name = event.text;
        underWay_->level = levelText(levelOf(event.text));
        underWay_->verdict = Verdict::pass;
        underWay_->beginNs = event.atNs;
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
            underWay_->remarks.push_back(leftText(event.data));
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

// A pass counts only where the record holds what the case must have done, with a
// test service at the other end.
CaseReport& RunRecord::end(std::int64_t nowNs) {
    underWay_->endNs = nowNs;
    if (underWay_->verdict == Verdict::pass) {
        underWay_->missing = missingFrom(*underWay_, level_);
        if (peerMissing_) {
            underWay_->missing.push_back("no test service answers: " + *peerMissing_);
        }
        if (!underWay_->missing.empty() || leftOut_ > 0) {
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
    return cases_.emplace_back(*std::exchange(underWay_, std::nullopt));
}

}  // namespace kavri::conformance
