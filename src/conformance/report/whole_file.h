// Files that are written as a whole or not at all.
#ifndef KAVRI_CONFORMANCE_REPORT_WHOLE_FILE_H
#define KAVRI_CONFORMANCE_REPORT_WHOLE_FILE_H

#include <filesystem>
#include <string>

namespace kavri::conformance {

// Whether it is a device or pipe, which keeps nothing that could be replaced.
bool isStream(const std::filesystem::path& file);

// Writes a new file and renames it over the old one; but a device or pipe is written to.
// Returns what went wrong; empty: nothing.
std::string writeWholeFile(const std::filesystem::path& file, const std::string& text);

// Whether that would work now, as writeWholeFile says it. Changes no file.
std::string whyNotWritable(const std::filesystem::path& file);

}  // namespace kavri::conformance

#endif
