// Open requests and failures to be told; see open_requests.h.
#include "core/open_requests.h"

#include <algorithm>

namespace kavri::core {

namespace {

// A caller who only sends what nobody answers never asks for failures: the
// oldest are forgotten.
constexpr std::size_t failuresKept = 65536;

}  // namespace

void OpenRequests::add(std::size_t count) {
    open_.resize(open_.size() + count, true);
    latest_ = nextToken() - 1;
}

void OpenRequests::takeBack(std::size_t count) {
    const std::uint64_t first = nextToken() - count;
    failures_.erase(failures_.lower_bound(first), failures_.end());
    for (std::uint64_t token = std::max(first, first_); token < nextToken(); ++token) {
        close(token);
    }
}

bool OpenRequests::close(std::uint64_t token) {
    if (token < first_ || token - first_ >= open_.size() || !open_[token - first_]) {
        return false;
    }
    open_[token - first_] = false;
    if (token == latest_) {
        while (latest_ >= first_ && !open_[latest_ - first_]) {
            --latest_;
        }
    }
    while (!open_.empty() && !open_.front()) {
        open_.pop_front();
        ++first_;
    }
    if (latest_ < first_) {
        latest_ = 0;
    }
    return true;
}

void OpenRequests::fail(std::uint64_t token, kavri_core_status status) {
    if (close(token)) {
        note(token, status);
    }
}

void OpenRequests::failAll(kavri_core_status status) {
    for (std::uint64_t token = first_; !open_.empty(); ++token, open_.pop_front()) {
        if (open_.front()) {
            note(token, status);
        }
        ++first_;
    }
    latest_ = 0;
}

void OpenRequests::note(std::uint64_t token, kavri_core_status status) {
    failures_.emplace(token, status);
    if (failures_.size() > failuresKept) {
        failures_.erase(failures_.begin());
    }
}

bool OpenRequests::hasFailureToTell() const {
    return !failures_.empty() && failures_.rbegin()->first > latest_;
}

kavri_core_status OpenRequests::takeFailure() {
    const auto oldest = failures_.upper_bound(latest_);
    const kavri_core_status status = oldest->second;
    failures_.erase(oldest);
    return status;
}

}  // namespace kavri::core
