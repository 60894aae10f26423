// Parses what the dynamic loader prints about a program's libraries and symbols, where it
// resolves them without running the program.
#ifndef KAVRI_CONFORMANCE_LOADING_LOADER_REPORT_H
#define KAVRI_CONFORMANCE_LOADING_LOADER_REPORT_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::conformance {

struct LoaderReport {
    std::map<std::string, std::string> found;  // library by name: its path
    std::vector<std::string> notFound;         // libraries
    std::vector<std::string> undefined;        // functions that the program itself calls
};

// `text` is all that the loader printed, under LD_TRACE_LOADED_OBJECTS, LD_WARN
// and LD_BIND_NOW, about the program with this path.
LoaderReport parseLoaderReport(std::string_view text, std::string_view program);

}  // namespace kavri::conformance

#endif
