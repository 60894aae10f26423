// Watching files for their removal; see file_watch.h.
#include "broker/loop/file_watch.h"

#include <spdlog/spdlog.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kavri::broker {

namespace {

void warnUnwatched() {
    spdlog::warn("cannot watch the socket file, so its removal will go unnoticed: {}",
                 std::generic_category().message(errno));
}

}  // namespace

std::optional<FileId> fileAt(const std::string& path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 ? std::optional(FileId{found.st_dev, found.st_ino})
                                              : std::nullopt;
}

std::optional<FileId> fileBehind(int descriptor) {
    struct stat found {};
    return ::fstat(descriptor, &found) == 0 ? std::optional(FileId{found.st_dev, found.st_ino})
                                            : std::nullopt;
}

FileWatch::FileWatch() : inotify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!inotify_.isOpen()) {
        warnUnwatched();
    }
}

// The last link of a file that is still open goes without an IN_DELETE_SELF, but
// changes the file's link count.
void FileWatch::watchFile(const std::string& path) {
    add(path, IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF);
}

void FileWatch::watchFolder(const std::string& path) {
    add(path, IN_MOVE_SELF | IN_DELETE_SELF);
}

// A file that has already been removed is noticed by the listener's own check.
void FileWatch::add(const std::string& path, unsigned events) {
    if (inotify_.isOpen() && ::inotify_add_watch(inotify_.get(), path.c_str(), events) < 0 &&
        errno != ENOENT) {
        warnUnwatched();
    }
}

void FileWatch::drain() {
    alignas(inotify_event) std::array<char, 4096> events;
    while (inotify_.isOpen() && ::read(inotify_.get(), events.data(), events.size()) > 0) {
    }
}

}  // namespace kavri::broker
