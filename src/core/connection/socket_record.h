// Which socket an endpoint has open, readable in a forked child whatever the parent was doing.
//
// A child inherits the socket, and the endpoint's objects as they were at the moment of the
// fork: half changed, where a thread of the parent held the lock. So what the child needs in
// order to close its copy is kept apart from them, in values that are each written at once.
//
// A number alone would not do: the descriptor may have been opened in the parent between the
// copy of the descriptors and that of the memory, and then be another file in the child. The
// kernel's cookie, which no two sockets share, shows whether it is the socket still.
#ifndef KAVRI_CORE_CONNECTION_SOCKET_RECORD_H
#define KAVRI_CORE_CONNECTION_SOCKET_RECORD_H

#include <atomic>
#include <cstdint>

namespace kavri::core {

class SocketRecord {
  public:
    // In the parent: after the socket was made, and before it is closed. Where an endpoint
    // has two for a moment, the newer one is on record.
    void opened(int descriptor);
    void closing(int descriptor);

    // In the child: closes its copy of the socket, where there is one. The connection itself
    // stays as it is.
    void closeCopy();

  private:
    static constexpr int none = -1;
    std::atomic<int> descriptor_{none};
    std::atomic<std::uint64_t> cookie_{0};
};

}  // namespace kavri::core

#endif
