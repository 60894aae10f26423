// Where the files of the project are that a program uses: they are found by their place
// relative to it, in the build tree as in an installed one, so that a tree can be moved.
#ifndef KAVRI_BASE_INSTALLED_PATH_H
#define KAVRI_BASE_INSTALLED_PATH_H

#include <filesystem>

namespace kavri::base {

inline std::filesystem::path installedPath(const std::filesystem::path& place) {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / place)
        .lexically_normal();
}

}  // namespace kavri::base

#endif
