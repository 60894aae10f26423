// The broker's listening socket: made, kept against a second broker, removed; or passed
// by the service manager, to whom it and its file then belong.
//
// The broker that holds the lock on PATH.lock owns the socket file PATH. A socket file
// whose lock is free is left over from a broker that was killed, and is replaced. The
// files may be removed while a broker runs, and another broker may then make its own:
// a listener removes only files with the device and inode of those that it made.
#ifndef KAVRI_BROKER_LOOP_LISTENER_H
#define KAVRI_BROKER_LOOP_LISTENER_H

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "base/descriptor.h"
#include "broker/loop/file_watch.h"

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
    // openToOthers: whether users other than the broker's own may open the socket
    // file. Which of them may connect is the policy's decision.
    Listener(std::string path, bool openToOthers);
    // A socket that listens already. The service manager owns its file: it is neither
    // locked nor watched, changed or removed here. Throws CannotListen where it is not a
    // listening Unix stream socket with a path.
    explicit Listener(base::Descriptor passed);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    int descriptor() const { return socket_.get(); }
    const std::string& path() const { return path_; }

    // Readable when one of the files may have been removed; -1 where it cannot be known.
    int watchDescriptor() const { return watch_.descriptor(); }
    // Whether socket and lock are still found where they were made; true where neither was.
    bool ownsItsFiles();
    // Makes them again: the socket as another descriptor, since one that lost its
    // name cannot get it back. Throws CannotListen where another broker was faster
    // or the files cannot be made.
    void restoreFiles();

    // Of the socket file that was made here.
    void setOpenToOthers(bool openToOthers);

    // The next pending connection, or nothing. outOfDescriptors is set when there is one
    // that cannot be accepted for lack of descriptors.
    std::optional<Accepted> accept(bool& outOfDescriptors);

  private:
    base::Descriptor takeLock() const;
    void removeLeftover() const;
    base::Descriptor bindAndListen() const;
    bool ownsSocketFile() const;
    bool ownsLockFile() const;
    void watchFiles();

    const std::string path_;
    const std::string lockPath_;
    bool openToOthers_ = false;
    base::Descriptor lock_;  // open while the files are the listener's own
    base::Descriptor socket_;
    std::optional<FileId> socketFile_;
    FileWatch watch_;
};

}  // namespace kavri::broker

#endif
