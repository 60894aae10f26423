// Links for paths that a list cannot hold; see loader_paths.h.
#include "conformance/loading/loader_paths.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

bool fitsIntoList(const std::string& path) {
    return std::ranges::none_of(path, [](unsigned char character) {
        return std::isspace(character) != 0 || std::iscntrl(character) != 0 || character == ':' ||
               character == ';' || character == '$';
    });
}

}  // namespace

std::filesystem::path LoaderPaths::nameFor(const std::filesystem::path& file) {
    if (fitsIntoList(file.string())) {
        return file;
    }
    if (!links_) {
        links_.emplace();
    }
    std::filesystem::path link = *links_ / std::to_string(++count_);
    if (!fitsIntoList(link.string())) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("the loader takes no path with a blank, ':', ';' or '$' in it: neither {} "
                        "nor a link in {}; set TMPDIR to a folder without",
                        file.string(), link.parent_path().string()));
    }
    std::filesystem::create_symlink(file, link);
    return link;
}

}  // namespace kavri::conformance
