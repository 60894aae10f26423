// A new folder, which is removed with all that is in it when its owner is destroyed.
//
// An owner that is killed leaves it behind. Beside what the owner puts there is a file that
// is locked as long as the owner lives; the kernel releases the lock of one that is gone.
// By that the next program knows what it may remove.
#ifndef KAVRI_PROCESS_TEMPORARY_FOLDER_H
#define KAVRI_PROCESS_TEMPORARY_FOLDER_H

#include <filesystem>
#include <string>

#include "base/descriptor.h"

namespace kavri::process {

class TemporaryFolder {
  public:
    // Under $TMPDIR, else /tmp. Throws std::system_error where none can be made.
    TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    // What cannot be removed is left.
    ~TemporaryFolder();

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    bool take(const std::filesystem::path& outer);

    std::filesystem::path path_;  // within the folder that holds the lock too
    base::Descriptor lock_;
};

// Removes the folders that owners of the same user left there and cannot remove any more.
void removeAbandonedFolders();

}  // namespace kavri::process

#endif
