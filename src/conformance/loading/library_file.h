// Why a file cannot be loaded as a shared library by the module, read from the file itself:
// the loader's own words name the symptom, and search paths that are not to blame.
#ifndef KAVRI_CONFORMANCE_LOADING_LIBRARY_FILE_H
#define KAVRI_CONFORMANCE_LOADING_LIBRARY_FILE_H

#include <filesystem>
#include <string>

namespace kavri::conformance {

// "is for a 32-bit machine (x86); the module is for a 64-bit one (x86-64)", to follow the
// file's name; empty where nothing speaks against the file.
std::string whyNoLibrary(const std::filesystem::path& file);

}  // namespace kavri::conformance

#endif
