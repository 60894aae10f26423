// The broker's listening socket: made, kept against a second broker, removed.
//
// The broker that holds the lock on PATH.lock owns the socket file PATH: a file that
// nobody holds is left over from a broker that was killed, and is replaced. Files
// may be removed under a broker, and another broker may then make its own: a
// listener removes only the files that it made, known by device and inode.
#ifndef KAVRI_BROKER_LISTENER_H
#define KAVRI_BROKER_LISTENER_H

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "broker/file_watch.h"

namespace kavri::broker {

// Says in one line why the broker cannot listen, and what to do.
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

    // Readable when one of the files may have gone; -1 where that goes unnoticed.
    int watchDescriptor() const { return watch_.descriptor(); }
    // Whether socket and lock are still found where they were made.
    bool ownsItsFiles();
    // Makes them again: the socket as another descriptor, since one that lost its
    // name cannot get it back. Throws CannotListen where another broker was faster
    // or the files cannot be made.
    void restoreFiles();

    void setOpenToOthers(bool openToOthers);

    // The next connection that waits; nothing when none does. outOfDescriptors is
    // set when one waits and cannot be taken.
    std::optional<Accepted> accept(bool& outOfDescriptors);

  private:
    int takeLock() const;
    void removeLeftover() const;
    int bindAndListen() const;
    bool ownsSocketFile() const;
    bool ownsLockFile() const;
    void watchFiles();
    void closeAll();

    const std::string path_;
    const std::string lockPath_;
    bool openToOthers_;
    int lock_ = -1;
    int socket_ = -1;
    std::optional<FileId> socketFile_;
    FileWatch watch_;
};

}  // namespace kavri::broker

#endif
