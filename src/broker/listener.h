// The broker's listening socket: made, held against a second broker, removed.
//
// Whoever holds the lock on PATH.lock owns the socket file PATH: a file that
// nobody holds is left over from a broker that was killed, and is replaced.
#ifndef KAVRI_BROKER_LISTENER_H
#define KAVRI_BROKER_LISTENER_H

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace kavri::broker {

// Says in one line why the broker cannot start, and what to do.
class CannotListen : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Accepted {
    int descriptor = -1;  // the caller's to close; non-blocking
    uid_t user = 0;
    pid_t process = 0;
};

class Listener {
  public:
    // openToOthers: whether users other than the broker's own may reach the
    // socket file; who of them may connect is not decided here.
    Listener(std::string path, bool openToOthers);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    int descriptor() const { return socket_; }
    const std::string& path() const { return path_; }

    // The next connection that waits; nothing when none does. outOfDescriptors is
    // set when one waits and cannot be taken.
    std::optional<Accepted> accept(bool& outOfDescriptors);

  private:
    void lock();
    void removeLeftover();
    void bindAndListen(bool openToOthers);
    void closeAll();

    const std::string path_;
    const std::string lockPath_;
    int lock_ = -1;
    int socket_ = -1;
};

}  // namespace kavri::broker

#endif
