// What the broker holds for one user, in bytes.
//
// A Charge is a member of whatever uses memory for a user, and ends with it: no code
// subtracts bytes by hand. The limit of an account (bytes_per_user) is checked where
// new memory is requested.
#ifndef KAVRI_BROKER_MEMORY_ACCOUNT_H
#define KAVRI_BROKER_MEMORY_ACCOUNT_H

#include <cstddef>
#include <utility>

#include "base/assert.h"

namespace kavri::broker {

class Account {
  public:
    Account() = default;
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;
    ~Account() { KAVRI_ASSERT(bytes_ == 0, "no charge outlives its account"); }

    std::size_t bytes() const { return bytes_; }

  private:
    friend class Charge;
    std::size_t bytes_ = 0;
};

class Charge {
  public:
    Charge() = default;
    explicit Charge(Account& account, std::size_t bytes = 0) : account_(&account) { grow(bytes); }
    Charge(Charge&& other) noexcept
        : account_(std::exchange(other.account_, nullptr)),
          bytes_(std::exchange(other.bytes_, 0)) {}
    Charge& operator=(Charge&& other) noexcept {
        Charge taken(std::move(other));
        std::swap(account_, taken.account_);
        std::swap(bytes_, taken.bytes_);
        return *this;
    }
    ~Charge() { shrink(bytes_); }

    std::size_t bytes() const { return bytes_; }

    void grow(std::size_t bytes) {
        bytes_ += bytes;
        if (account_ != nullptr) {
            account_->bytes_ += bytes;
        }
    }
    void shrink(std::size_t bytes) {
        KAVRI_ASSERT(bytes <= bytes_, "no more is returned than was charged");
        bytes_ -= bytes;
        if (account_ != nullptr) {
            account_->bytes_ -= bytes;
        }
    }

  private:
    Account* account_ = nullptr;
    std::size_t bytes_ = 0;
};

}  // namespace kavri::broker

#endif
