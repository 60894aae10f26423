// The requests of an initiator that have no outcome yet, and the failures that its caller
// has not received yet.
//
// Correlation tokens rise by one from request to request. A failure is received once
// nothing that was sent after the failed request is pending: so a command that is never
// answered does not spoil a receive that waits for the answer to a later one, and a caller
// who waits for the failed one itself learns of it at once.
//
// Recording an outcome allocates nothing: the entry of a pending request becomes that of
// its failure. Not thread-safe: guarded by the endpoint's lock.
#ifndef KAVRI_CORE_PENDING_REQUESTS_H
#define KAVRI_CORE_PENDING_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <map>

#include "kavri/core.h"

namespace kavri::core {

class PendingRequests {
  public:
    std::uint64_t nextToken() const { return nextToken_; }
    // The requests with the next tokens. Strong guarantee.
    void add(std::size_t count = 1);
    // Forgets the last that were added, pending or failed: their caller learns of them in
    // another way.
    void takeBack(std::size_t count);

    // Ends a pending request; false when there is none with this token.
    bool close(std::uint64_t token);

    // Ends a pending request that failed, or all of them.
    void fail(std::uint64_t token, kavri_core_status status);
    void failAll(kavri_core_status status);

    // Whether a failure can be received now; and the oldest such.
    bool hasFailure() const { return !failures_.empty() && failures_.rbegin()->first > youngest(); }
    kavri_core_status takeFailure();

  private:
    // A status by token; that of a pending request says nothing.
    using Entries = std::map<std::uint64_t, kavri_core_status>;

    // The token of the youngest pending request; 0: there is none.
    std::uint64_t youngest() const { return pending_.empty() ? 0 : pending_.rbegin()->first; }
    void record(Entries::iterator pending, kavri_core_status status);

    Entries pending_;
    Entries failures_;
    std::uint64_t nextToken_ = 1;
};

}  // namespace kavri::core

#endif
