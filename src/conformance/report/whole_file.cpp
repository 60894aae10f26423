// Writing beside the old file; see whole_file.h.
#include "conformance/report/whole_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace kavri::conformance {

namespace fs = std::filesystem;

namespace {

// What is written to, in place of the file where that can be replaced.
struct Target {
    explicit Target(const fs::path& file) {
        std::error_code error;
        isReplaced = !fs::exists(file, error) || fs::is_regular_file(file, error);
        path = isReplaced ? file.string() + ".new" : file.string();
    }

    void discard() const {
        std::error_code ignored;
        if (isReplaced) {
            fs::remove(path, ignored);
        }
    }

    bool isReplaced = false;
    fs::path path;
};

std::string complaintAbout(const fs::path& file, const std::error_code& error,
                           const Target& target) {
    return fmt::format("cannot write {}: {}{}", file.string(), error.message(),
                       target.isReplaced ? "; what was there before is kept" : "");
}

std::error_code errorOf(const std::ofstream& stream) {
    return {stream ? 0 : (errno != 0 ? errno : EIO), std::generic_category()};
}

}  // namespace

bool isStream(const fs::path& file) {
    std::error_code error;
    return fs::exists(file, error) && !fs::is_regular_file(file, error) &&
           !fs::is_directory(file, error);
}

std::string writeWholeFile(const fs::path& file, const std::string& text) {
    const Target target(file);
    errno = 0;
    std::ofstream stream(target.path, std::ios::binary | std::ios::trunc);
    stream << text;
    stream.close();
    std::error_code error = errorOf(stream);
    if (!error && target.isReplaced) {
        fs::rename(target.path, file, error);
    }
    if (!error) {
        return "";
    }
    target.discard();
    return complaintAbout(file, error, target);
}

std::string whyNotWritable(const fs::path& file) {
    const Target target(file);
    errno = 0;
    const std::ofstream stream(target.path, std::ios::binary | std::ios::app);
    const std::error_code error = errorOf(stream);
    target.discard();
    return error ? complaintAbout(file, error, target) : "";
}

}  // namespace kavri::conformance
