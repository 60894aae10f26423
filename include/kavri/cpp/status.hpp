// What calls come to: a status, an exception with a status, or a result that holds a value
// or a status.
#ifndef KAVRI_CPP_STATUS_HPP
#define KAVRI_CPP_STATUS_HPP

#include <kavri/core.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kavri {

// The statuses of the C functions; core.h says of each when it comes. Later versions add
// values: treat one that you do not know as a failure.
using Status = kavri_core_status;

// Whether a request that failed with this status certainly did not reach its responder, so
// that it may be sent again without being done twice. Of other failures, and after a
// time-out, that is unknown.
constexpr bool isCertainlyNotDelivered(Status status) noexcept {
    return status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER ||
           status == KAVRI_CORE_STATUS_IPC_REFUSED || status == KAVRI_CORE_STATUS_IPC_TOO_LARGE ||
           status == KAVRI_CORE_STATUS_IPC_OVERLOADED ||
           status == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
}

// A call that failed. what() names the call and the status in words.
class Error : public std::runtime_error {
  public:
    Error(Status status, const char* call)
        : std::runtime_error(std::string(call) + ": " + kavri_core_status_text(status)),
          status_(status) {}

    Status status() const noexcept { return status_; }

  private:
    Status status_;
};

// Throws Error unless the status is NO_ERROR.
inline void throwOnFailure(Status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        throw Error(status, call);
    }
}

// A value, or the status of the call that failed to give one. What the functions return
// whose names begin with "try". Like std::optional, of which it has the functions.
template <typename Value>
class [[nodiscard]] Result {
  public:
    // The status must be a failure.
    Result(Status failure) noexcept : status_(failure) {}
    Result(Value value) noexcept : value_(std::move(value)) {}

    // NO_ERROR exactly where there is a value.
    Status status() const noexcept { return status_; }
    bool hasValue() const noexcept { return value_.has_value(); }
    explicit operator bool() const noexcept { return hasValue(); }

    // There must be a value.
    Value& operator*() & noexcept { return *value_; }
    const Value& operator*() const& noexcept { return *value_; }
    Value&& operator*() && noexcept { return *std::move(value_); }
    Value* operator->() noexcept { return &*value_; }
    const Value* operator->() const noexcept { return &*value_; }

    // Throws Error with the status where there is no value.
    Value& value() & {
        throwOnFailure(status_, "kavri");
        return *value_;
    }
    const Value& value() const& {
        throwOnFailure(status_, "kavri");
        return *value_;
    }
    Value&& value() && {
        throwOnFailure(status_, "kavri");
        return *std::move(value_);
    }

  private:
    Status status_ = KAVRI_CORE_STATUS_NO_ERROR;
    std::optional<Value> value_;
};

}  // namespace kavri

#endif
