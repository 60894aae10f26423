// Pending requests and failures; see pending_requests.h.
#include "core/pending_requests.h"

#include <algorithm>
#include <utility>

#include "base/assert.h"

namespace kavri::core {

namespace {

// Failures that are kept for a receive; of more, the oldest are dropped. A program that only
// sends commands never receives, and is not to fill the memory.
constexpr std::size_t failuresKept = 65536;

}  // namespace

void PendingRequests::add(std::span<const wire::Frame> requests) {
    const std::size_t before = states_.size();
    try {
        states_.resize(before + requests.size(), pending);
        for (std::size_t i = 0; keepsUuids_ && i < requests.size(); ++i) {
            uuids_.emplace_back(requests[i][wire::Field::uuid]);
        }
    } catch (...) {
        states_.resize(before);
        uuids_.resize(std::min(before, uuids_.size()));
        throw;
    }
    noneAbove_ = nextToken() - 1;
}

void PendingRequests::takeBack(std::size_t count) {
    KAVRI_ASSERT(count < nextToken(), "only requests that were added are taken back");
    const std::uint64_t begin = std::max(first_, nextToken() - count);
    for (std::uint64_t token = begin; token < nextToken(); ++token) {
        failures_ -= isFailure(stateOf(token)) ? 1 : 0;
        stateOf(token) = over;
    }
    popOver();
}

bool PendingRequests::close(std::uint64_t token) {
    if (!isPending(token)) {
        return false;
    }
    stateOf(token) = over;
    popOver();
    return true;
}

void PendingRequests::complete(std::uint64_t token) {
    if (!keepsUuids_) {
        close(token);
    } else if (isPending(token)) {
        record(token, unanswered);
    }
}

void PendingRequests::fail(std::uint64_t token, kavri_core_status status) {
    if (isPending(token)) {
        record(token, static_cast<State>(status));
    }
}

void PendingRequests::failAll(kavri_core_status status) {
    for (std::uint64_t token = first_; token < nextToken(); ++token) {
        fail(token, status);
    }
}

void PendingRequests::record(std::uint64_t token, State state) {
    stateOf(token) = state;
    ++failures_;
    noneBelow_ = std::min(noneBelow_, token);
    if (!keepsUuids_ && failures_ > failuresKept) {
        noneBelow_ = findFailure(std::max(first_, noneBelow_));
        dropFailure(noneBelow_);
    }
}

std::uint64_t PendingRequests::findFailure(std::uint64_t from) {
    while (from < nextToken() && !isFailure(stateOf(from))) {
        ++from;
    }
    return from;
}

std::uint64_t PendingRequests::oldestReceivable() {
    while (noneAbove_ >= first_ && stateOf(noneAbove_) != pending) {
        --noneAbove_;
    }
    noneBelow_ = std::max(first_, noneBelow_);
    if (noneAbove_ >= noneBelow_) {
        return findFailure(noneAbove_ + 1);
    }
    noneBelow_ = findFailure(noneBelow_);
    return noneBelow_;
}

kavri_core_status PendingRequests::takeFailure() {
    const std::uint64_t token = oldestReceivable();
    KAVRI_ASSERT(token != nextToken(), "a failure is taken where there is one");
    const auto status = static_cast<kavri_core_status>(stateOf(token));
    dropFailure(token);
    return status;
}

PendingRequests::Outcome PendingRequests::takeOutcome() {
    KAVRI_ASSERT(keepsUuids_ && hasOutcome(), "an outcome is taken where there is one");
    noneBelow_ = findFailure(std::max(first_, noneBelow_));
    const std::uint64_t token = noneBelow_;
    const State state = stateOf(token);
    Outcome outcome{std::move(uuids_[token - first_]), state == unanswered
                                                           ? KAVRI_CORE_STATUS_NO_ERROR
                                                           : static_cast<kavri_core_status>(state)};
    dropFailure(token);
    return outcome;
}

void PendingRequests::dropFailure(std::uint64_t token) {
    KAVRI_ASSERT(failures_ > 0, "every failure is counted");
    stateOf(token) = over;
    --failures_;
    popOver();
}

void PendingRequests::popOver() {
    while (!states_.empty() && states_.front() == over) {
        states_.pop_front();
        if (keepsUuids_) {
            uuids_.pop_front();
        }
        ++first_;
    }
}

}  // namespace kavri::core
