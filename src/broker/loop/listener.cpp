// The listening socket and its lock; see listener.h.
#include "broker/loop/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/unix_address.h"
#include "wire/address.h"

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

base::Descriptor newSocket() {
    base::Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made.isOpen()) {
        throw CannotListen("cannot create a socket: " + reasonOf(errno));
    }
    return made;
}

mode_t maskFor(bool openToOthers) {
    return openToOthers ? 0111 : 0177;
}

int socketOption(int socket, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    return ::getsockopt(socket, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

// The path that a listening Unix stream socket has; empty where it is another one.
std::string listeningPath(int socket) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (socketOption(socket, SO_DOMAIN) != AF_UNIX ||
        socketOption(socket, SO_TYPE) != SOCK_STREAM || socketOption(socket, SO_ACCEPTCONN) != 1 ||
        ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        length <= offsetof(sockaddr_un, sun_path)) {
        return {};
    }
    const std::size_t most = length - offsetof(sockaddr_un, sun_path);
    return {address.sun_path, ::strnlen(address.sun_path, most)};
}

}  // namespace

Listener::Listener(std::string path, bool openToOthers)
    : path_(std::move(path)), lockPath_(path_ + ".lock"), openToOthers_(openToOthers) {
    if (const auto error = wire::addressError(path_)) {
        throw CannotListen(*error);
    }
    checkFolder(path_);
    lock_ = takeLock();
    try {
        removeLeftover();
        socket_ = bindAndListen();
    } catch (...) {
        ::unlink(lockPath_.c_str());
        throw;
    }
    socketFile_ = fileAt(path_);
    watchFiles();
}

// A passed socket may be in blocking mode.
Listener::Listener(base::Descriptor passed)
    : path_(listeningPath(passed.get())), socket_(std::move(passed)) {
    if (path_.empty()) {
        throw CannotListen(
            "the descriptor that was passed is no listening Unix stream socket with a path");
    }
    ::fcntl(socket_.get(), F_SETFL, ::fcntl(socket_.get(), F_GETFL) | O_NONBLOCK);
}

Listener::~Listener() {
    if (ownsSocketFile()) {
        ::unlink(path_.c_str());
    }
    if (ownsLockFile()) {
        ::unlink(lockPath_.c_str());
    }
}

// Until the lock is on the file that has the name now: the broker that held it
// before may have removed its file between our open and our lock.
base::Descriptor Listener::takeLock() const {
    while (true) {
        base::Descriptor lock(
            ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!lock.isOpen()) {
            throw CannotListen("cannot create " + lockPath_ + ": " + reasonOf(errno) +
                               ": make the folder writable or choose another --socket");
        }
        if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            throw CannotListen("a broker is running on " + path_ +
                               " already: stop it or choose another --socket");
        }
        if (fileBehind(lock.get()) == fileAt(lockPath_)) {
            return lock;
        }
    }
}

bool Listener::ownsSocketFile() const {
    return socketFile_ && fileAt(path_) == socketFile_;
}

bool Listener::ownsLockFile() const {
    return lock_.isOpen() && fileAt(lockPath_) == fileBehind(lock_.get());
}

bool Listener::ownsItsFiles() {
    watch_.drain();
    return !lock_.isOpen() || (ownsSocketFile() && ownsLockFile());
}

void Listener::restoreFiles() {
    if (!ownsLockFile()) {
        lock_ = takeLock();
    }
    if (!ownsSocketFile()) {
        removeLeftover();
        socket_ = bindAndListen();
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

// The lock was free, so no broker should be listening; another program that does is
// left alone.
void Listener::removeLeftover() const {
    struct stat existing {};
    if (::lstat(path_.c_str(), &existing) != 0) {
        return;
    }
    if (!S_ISSOCK(existing.st_mode)) {
        throw CannotListen(path_ + " exists and is no socket: choose another --socket");
    }
    const base::Descriptor probe = newSocket();
    const base::UnixAddress address(path_);
    if (::connect(probe.get(), address.get(), base::UnixAddress::size()) == 0 || errno == EAGAIN) {
        throw CannotListen("another program listens on " + path_ +
                           " already: stop it or choose another --socket");
    }
    ::unlink(path_.c_str());
}

base::Descriptor Listener::bindAndListen() const {
    base::Descriptor made = newSocket();
    const base::UnixAddress address(path_);
    // The mode is right from the first moment on, not after a chmod.
    const mode_t before = ::umask(maskFor(openToOthers_));
    const int bound = ::bind(made.get(), address.get(), base::UnixAddress::size());
    const int error = errno;
    ::umask(before);
    if (bound != 0 || ::listen(made.get(), SOMAXCONN) != 0) {
        throw CannotListen("cannot listen on " + path_ + ": " +
                           reasonOf(bound != 0 ? error : errno));
    }
    return made;
}

std::optional<Accepted> Listener::accept(bool& outOfDescriptors) {
    while (true) {
        const int accepted =
            ::accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
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
