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

#include "interfaces/address.h"
#include "interfaces/limits.h"

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

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

}  // namespace

Listener::Listener(std::string path, bool openToOthers)
    : path_(std::move(path)), lockPath_(path_ + ".lock") {
    if (const auto error = interfaces::addressError(path_)) {
        throw CannotListen(*error);
    }
    checkFolder(path_);
    try {
        lock();
    } catch (...) {
        closeAll();
        throw;
    }
    try {
        removeLeftover();
        bindAndListen(openToOthers);
    } catch (...) {
        ::unlink(lockPath_.c_str());
        closeAll();
        throw;
    }
}

Listener::~Listener() {
    ::unlink(path_.c_str());
    ::unlink(lockPath_.c_str());
    closeAll();
}

// Until the lock is on the file that has the name now: the broker that held it
// before may have removed its file between our open and our lock.
void Listener::lock() {
    while (true) {
        lock_ = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (lock_ < 0) {
            throw CannotListen("cannot create " + lockPath_ + ": " + reasonOf(errno) +
                               ": make the folder writable or choose another --socket");
        }
        if (::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
            throw CannotListen("a broker is running on " + path_ +
                               " already: stop it or choose another --socket");
        }
        struct stat locked {};
        struct stat named {};
        if (::fstat(lock_, &locked) == 0 && ::stat(lockPath_.c_str(), &named) == 0 &&
            locked.st_ino == named.st_ino && locked.st_dev == named.st_dev) {
            return;
        }
        ::close(lock_);
        lock_ = -1;
    }
}

// No broker holds the lock, so nobody should listen; whatever else does is not
// to be pushed aside.
void Listener::removeLeftover() {
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

void Listener::bindAndListen(bool openToOthers) {
    socket_ = newSocket();
    const sockaddr_un address = addressOf(path_);
    // The mode is right from the first moment on, not after a chmod.
    const mode_t before = ::umask(openToOthers ? 0111 : 0177);
    const int bound = ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    ::umask(before);
    if (bound != 0) {
        throw CannotListen("cannot listen on " + path_ + ": " + reasonOf(error));
    }
    if (::listen(socket_, SOMAXCONN) != 0) {
        throw CannotListen("cannot listen on " + path_ + ": " + reasonOf(errno));
    }
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
                ::setsockopt(accepted, SOL_SOCKET, SO_SNDBUF, &interfaces::socketBufferBytes,
                             sizeof interfaces::socketBufferBytes);
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
