// Connections of another user, for tests that run as root.
#ifndef KAVRI_TESTS_SUPPORT_OTHER_USER_H
#define KAVRI_TESTS_SUPPORT_OTHER_USER_H

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <iostream>
#include <optional>
#include <system_error>

#include "support/attack.h"
#include "support/raw_peer.h"

namespace kavri::tests {

// Says so where this process cannot act as another user.
inline bool canActAsOthers() {
    if (!isRoot()) {
        std::cout << "skipped: not root\n";
    }
    return isRoot();
}

// Connects as `user`. The kernel keeps the user of each thread, which the C library
// hides, so that a thread of its own can be another user for a moment.
inline RawPeer connectAs(uid_t user, const std::string& path) {
    return std::async(std::launch::async,
                      [&] {
                          if (::syscall(SYS_setresuid, user, user, user) != 0) {
                              throw std::system_error(errno, std::generic_category(), "setresuid");
                          }
                          return RawPeer(path);
                      })
        .get();
}

// Temporary folders, and what each is in, are closed to other users.
inline void openFolder(const std::filesystem::path& folder) {
    ::chmod(folder.parent_path().c_str(), 0755);
    ::chmod(folder.c_str(), 0755);
}

}  // namespace kavri::tests

#endif
