// Watching files for their removal; see file_watch.h.
#include "broker/file_watch.h"

#include <spdlog/spdlog.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kavri::broker {

namespace {

void warnOfBlindness() {
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
    if (inotify_ < 0) {
        warnOfBlindness();
    }
}

FileWatch::~FileWatch() {
    if (inotify_ >= 0) {
        ::close(inotify_);
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

// A file that is gone by now is its owner's to notice.
void FileWatch::add(const std::string& path, unsigned events) {
    if (inotify_ >= 0 && ::inotify_add_watch(inotify_, path.c_str(), events) < 0 &&
        errno != ENOENT) {
        warnOfBlindness();
    }
}

void FileWatch::drain() {
    alignas(inotify_event) std::array<char, 4096> events;
    while (inotify_ >= 0 && ::read(inotify_, events.data(), events.size()) > 0) {
    }
}

}  // namespace kavri::broker
