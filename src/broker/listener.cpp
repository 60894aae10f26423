// The listening socket and its lock; see listener.h.
#include "broker/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "interfaces/address.h"

namespace kavri::broker {

namespace {

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

void checkFolder(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::absolute(path).parent_path();
    std::error_code ignored;
    if (!std::filesystem::is_directory(folder, ignored)) {
        throw CannotListen("the folder " + folder.string() +
                           " does not exist: create it or choose another --socket");
    }
}

int newSocket() {
    const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (made < 0) {
        throw CannotListen("cannot create a socket: " + reasonOf(errno));
    }
    return made;
}

mode_t maskFor(bool openToOthers) {
    return openToOthers ? 0111 : 0177;
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

}  // namespace

Listener::Listener(std::string path, bool openToOthers)
    : path_(std::move(path)), lockPath_(path_ + ".lock"), openToOthers_(openToOthers) {
    if (const auto error = interfaces::addressError(path_)) {
        throw CannotListen(*error);
    }
    checkFolder(path_);
    lock_ = takeLock();
    try {
        removeLeftover();
        socket_ = bindAndListen();
    } catch (...) {
        ::unlink(lockPath_.c_str());
        closeAll();
        throw;
    }
    socketFile_ = fileAt(path_);
    watchFiles();
}

Listener::~Listener() {
    if (ownsSocketFile()) {
        ::unlink(path_.c_str());
    }
    if (ownsLockFile()) {
        ::unlink(lockPath_.c_str());
    }
    closeAll();
}

// Until the lock is on the file that has the name now: the broker that held it
// before may have removed its file between our open and our lock.
int Listener::takeLock() const {
    while (true) {
        const int lock = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (lock < 0) {
            throw CannotListen("cannot create " + lockPath_ + ": " + reasonOf(errno) +
                               ": make the folder writable or choose another --socket");
        }
        if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
            ::close(lock);
            throw CannotListen("a broker is running on " + path_ +
                               " already: stop it or choose another --socket");
        }
        if (fileBehind(lock) == fileAt(lockPath_)) {
            return lock;
        }
        ::close(lock);
    }
}

bool Listener::ownsSocketFile() const {
    return socketFile_ && fileAt(path_) == socketFile_;
}

bool Listener::ownsLockFile() const {
    return lock_ >= 0 && fileAt(lockPath_) == fileBehind(lock_);
}

bool Listener::ownsItsFiles() {
    watch_.drain();
    return ownsSocketFile() && ownsLockFile();
}

void Listener::restoreFiles() {
    if (!ownsLockFile()) {
        ::close(std::exchange(lock_, takeLock()));
    }
    if (!ownsSocketFile()) {
        removeLeftover();
        ::close(std::exchange(socket_, bindAndListen()));
        socketFile_ = fileAt(path_);
    }
    watchFiles();
}

// Another broker's file is not touched.
void Listener::setOpenToOthers(bool openToOthers) {
    if (std::exchange(openToOthers_, openToOthers) != openToOthers && ownsSocketFile()) {
        ::chmod(path_.c_str(), 0777U & ~maskFor(openToOthers));
    }
}

void Listener::watchFiles() {
    watch_.watchFolder(std::filesystem::absolute(path_).parent_path());
    watch_.watchFile(path_);
    watch_.watchFile(lockPath_);
}

// No broker holds the lock, so nobody should listen; whatever else does is not
// to be pushed aside.
void Listener::removeLeftover() const {
    struct stat existing {};
    if (::lstat(path_.c_str(), &existing) != 0) {
        return;
    }
    if (!S_ISSOCK(existing.st_mode)) {
        throw CannotListen(path_ + " exists and is no socket: choose another --socket");
    }
    const int probe = newSocket();
    const sockaddr_un address = addressOf(path_);
    const bool answered =
        ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno == EAGAIN;
    ::close(probe);
    if (answered) {
        throw CannotListen("another program listens on " + path_ +
                           " already: stop it or choose another --socket");
    }
    ::unlink(path_.c_str());
}

int Listener::bindAndListen() const {
    const int made = newSocket();
    const sockaddr_un address = addressOf(path_);
    // The mode is right from the first moment on, not after a chmod.
    const mode_t before = ::umask(maskFor(openToOthers_));
    const int bound = ::bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    ::umask(before);
    if (bound != 0 || ::listen(made, SOMAXCONN) != 0) {
        const std::string reason = reasonOf(bound != 0 ? error : errno);
        ::close(made);
        throw CannotListen("cannot listen on " + path_ + ": " + reason);
    }
    return made;
}

void Listener::closeAll() {
    for (int* descriptor : {&socket_, &lock_}) {
        if (*descriptor >= 0) {
            ::close(*descriptor);
        }
        *descriptor = -1;
    }
}

std::optional<Accepted> Listener::accept(bool& outOfDescriptors) {
    while (true) {
        const int accepted = ::accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (accepted >= 0) {
            ucred peer{};
            socklen_t length = sizeof peer;
            if (::getsockopt(accepted, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0) {
                return Accepted{accepted, peer.uid, peer.pid};
            }
            ::close(accepted);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            outOfDescriptors = errno != EAGAIN;
            return std::nullopt;
        }
    }
}

}  // namespace kavri::broker
