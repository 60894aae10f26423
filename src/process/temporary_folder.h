// A new folder, which is removed with all that is in it when its owner is destroyed.
#ifndef KAVRI_PROCESS_TEMPORARY_FOLDER_H
#define KAVRI_PROCESS_TEMPORARY_FOLDER_H

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "base/environment.h"

namespace kavri::process {

class TemporaryFolder {
  public:
    // Under $TMPDIR, else /tmp. Throws std::system_error where none can be made.
    TemporaryFolder() {
        const std::string chosen = base::environmentVariable("TMPDIR");
        const std::filesystem::path parent = chosen.empty() ? "/tmp" : chosen;
        std::string path = parent / "kavri-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(),
                                    "cannot make a folder in " + parent.string() +
                                        "; set TMPDIR to one where that can be done");
        }
        path_ = path;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    // What cannot be removed is left.
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

}  // namespace kavri::process

#endif
