// Making, locking and removing the folders; see temporary_folder.h:
//
//     kavri-XXXXXX/lock    locked by the owner
//     kavri-XXXXXX/files/  the owner's
#include "process/temporary_folder.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "base/environment.h"

namespace kavri::process {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view namePrefix = "kavri-";
constexpr std::size_t nameBytes = namePrefix.size() + 6;

fs::path parentFolder() {
    const std::string chosen = base::environmentVariable("TMPDIR");
    return chosen.empty() ? "/tmp" : chosen;
}

[[noreturn]] void throwCannotMake(const fs::path& parent) {
    throw std::system_error(errno, std::generic_category(),
                            "cannot make a folder in " + parent.string() +
                                "; set TMPDIR to one where that can be done");
}

// The lock goes last: without it nobody could tell any more whose the rest is.
void removeFolder(const fs::path& outer) {
    std::error_code ignored;
    fs::remove_all(outer / "files", ignored);
    fs::remove_all(outer, ignored);
}

// Nobody else's, and no link to elsewhere.
bool isOwn(const struct stat& status, mode_t kind) {
    return status.st_uid == geteuid() && (status.st_mode & S_IFMT) == kind;
}

// A folder of the user's that only looks like one of these holds something else.
bool holdsNothingElse(const fs::path& outer) {
    std::error_code error;
    const fs::directory_iterator entries(outer, error);
    return !error &&
           std::all_of(begin(entries), end(entries), [](const fs::directory_entry& entry) {
               return entry.path().filename() == "lock" || entry.path().filename() == "files";
           });
}

bool isAbandoned(const fs::path& outer, base::Descriptor& lock) {
    struct stat folder {};
    struct stat file {};
    if (lstat(outer.c_str(), &folder) != 0 || !isOwn(folder, S_IFDIR) || !holdsNothingElse(outer)) {
        return false;
    }
    lock = base::Descriptor(open((outer / "lock").c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    return lock.isOpen() && fstat(lock.get(), &file) == 0 && isOwn(file, S_IFREG) &&
           flock(lock.get(), LOCK_EX | LOCK_NB) == 0;
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
    const fs::path parent = parentFolder();
    std::string outer;
    do {
        outer = parent / (std::string(namePrefix) + "XXXXXX");
        if (mkdtemp(outer.data()) == nullptr) {
            throwCannotMake(parent);
        }
    } while (!take(outer));
    path_ = fs::path(outer) / "files";
    if (mkdir(path_.c_str(), 0700) != 0) {
        const int reason = errno;
        removeFolder(outer);
        errno = reason;
        throwCannotMake(parent);
    }
}

// False where another program took the lock before this one could, and removed the folder.
bool TemporaryFolder::take(const fs::path& outer) {
    lock_ = base::Descriptor(
        open((outer / "lock").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!lock_.isOpen()) {
        throwCannotMake(outer.parent_path());
    }
    struct stat status {};
    return flock(lock_.get(), LOCK_EX) == 0 && fstat(lock_.get(), &status) == 0 &&
           status.st_nlink > 0;
}

TemporaryFolder::~TemporaryFolder() {
    removeFolder(path_.parent_path());
}

void removeAbandonedFolders() {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(parentFolder(), error)) {
        const std::string name = entry.path().filename();
        base::Descriptor lock;
        if (name.size() == nameBytes && name.starts_with(namePrefix) &&
            isAbandoned(entry.path(), lock)) {
            removeFolder(entry.path());
        }
    }
}

}  // namespace kavri::process
