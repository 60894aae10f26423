// Which requests of an initiator are still without an outcome, and which
// outcomes its caller has not been told yet.
//
// Tokens rise by one from request to request. A failure is told once nothing
// that was sent after the failed request is still open: so a command that is
// never answered does not spoil a receive that waits for the answer to a later
// one, and a caller who waits for the failed one itself learns of it at once.
#ifndef KAVRI_CORE_OPEN_REQUESTS_H
#define KAVRI_CORE_OPEN_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>

#include "kavri/core.h"

namespace kavri::core {

class OpenRequests {
  public:
    std::uint64_t nextToken() const { return first_ + open_.size(); }
    void add(std::size_t count = 1);  // those with the next tokens
    // Forgets the last that were added, open or failed: their caller is told of
    // them in another way.
    void takeBack(std::size_t count);

    // Ends an open request; false when there is none with this token.
    bool close(std::uint64_t token);

    // Ends an open request that failed, or all of them.
    void fail(std::uint64_t token, kavri_core_status status);
    void failAll(kavri_core_status status);

    // Whether a failure is to be told now, and telling the oldest such.
    bool hasFailureToTell() const;
    kavri_core_status takeFailure();

  private:
    void note(std::uint64_t token, kavri_core_status status);

    std::uint64_t first_ = 1;   // the token of the first of
    std::deque<bool> open_;     // all requests from the oldest open one on
    std::uint64_t latest_ = 0;  // the token of the youngest open one; 0: none
    std::map<std::uint64_t, kavri_core_status> failures_;
};

}  // namespace kavri::core

#endif
