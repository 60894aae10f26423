// A descriptor and its cookie; see socket_record.h.
#include "core/connection/socket_record.h"

#include <sys/socket.h>
#include <unistd.h>

namespace kavri::core {

namespace {

// 0 where the descriptor is no open socket.
std::uint64_t cookieOf(int descriptor) {
    std::uint64_t cookie = 0;
    socklen_t bytes = sizeof cookie;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_COOKIE, &cookie, &bytes) == 0 ? cookie : 0;
}

}  // namespace

// A fork between the two writes leaves a pair that does not match, which closes nothing.
void SocketRecord::opened(int descriptor) {
    cookie_ = cookieOf(descriptor);
    descriptor_ = descriptor;
}

void SocketRecord::closing(int descriptor) {
    int expected = descriptor;
    descriptor_.compare_exchange_strong(expected, none);
}

void SocketRecord::closeCopy() {
    const int descriptor = descriptor_.exchange(none);
    const std::uint64_t cookie = cookie_;
    if (descriptor != none && cookie != 0 && cookieOf(descriptor) == cookie) {
        ::close(descriptor);
    }
}

}  // namespace kavri::core
