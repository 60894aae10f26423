// Pending requests and failures; see pending_requests.h.
#include "core/pending_requests.h"

namespace kavri::core {

namespace {

// A caller who only sends what nobody answers never receives: the oldest failures are
// dropped.
constexpr std::size_t failuresKept = 65536;

}  // namespace

void PendingRequests::add(std::size_t count) {
    const std::uint64_t end = nextToken_ + count;
    try {
        for (std::uint64_t token = nextToken_; token < end; ++token) {
            pending_.emplace_hint(pending_.end(), token, KAVRI_CORE_STATUS_NO_ERROR);
        }
    } catch (...) {
        pending_.erase(pending_.lower_bound(nextToken_), pending_.end());
        throw;
    }
    nextToken_ = end;
}

void PendingRequests::takeBack(std::size_t count) {
    for (Entries* entries : {&pending_, &failures_}) {
        entries->erase(entries->lower_bound(nextToken_ - count), entries->end());
    }
}

bool PendingRequests::close(std::uint64_t token) {
    return pending_.erase(token) > 0;
}

void PendingRequests::fail(std::uint64_t token, kavri_core_status status) {
    const auto found = pending_.find(token);
    if (found != pending_.end()) {
        record(found, status);
    }
}

void PendingRequests::failAll(kavri_core_status status) {
    while (!pending_.empty()) {
        record(pending_.begin(), status);
    }
}

void PendingRequests::record(Entries::iterator pending, kavri_core_status status) {
    pending->second = status;
    failures_.insert(pending_.extract(pending));
    if (failures_.size() > failuresKept) {
        failures_.erase(failures_.begin());
    }
}

kavri_core_status PendingRequests::takeFailure() {
    const auto oldest = failures_.upper_bound(youngest());
    const kavri_core_status status = oldest->second;
    failures_.erase(oldest);
    return status;
}

}  // namespace kavri::core
