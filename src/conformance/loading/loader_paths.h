// Names for files in the lists of the dynamic loader, LD_PRELOAD and LD_LIBRARY_PATH. These
// know no quoting: blanks, ':' and ';' end an entry, '$' begins a name of the loader's own.
// A file with one of them in its path gets a link without, in a temporary folder.
#ifndef KAVRI_CONFORMANCE_LOADING_LOADER_PATHS_H
#define KAVRI_CONFORMANCE_LOADING_LOADER_PATHS_H

#include <filesystem>
#include <optional>

#include "process/temporary_folder.h"

namespace kavri::conformance {

class LoaderPaths {
  public:
    // For a file or folder, by its path from the root: valid as long as this lives. Throws
    // CommandFailure where a link would have to be made and its path would be no better.
    std::filesystem::path nameFor(const std::filesystem::path& file);

  private:
    std::optional<process::TemporaryFolder> links_;
    unsigned count_ = 0;
};

}  // namespace kavri::conformance

#endif
