// What the dynamic loader says about a program and its libraries, when it is
// asked to look them through and not to run them.
#ifndef KAVRI_CLI_LOADER_REPORT_H
#define KAVRI_CLI_LOADER_REPORT_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::cli {

struct LoaderReport {
    std::map<std::string, std::string> found;  // library by name: its path
    std::vector<std::string> notFound;         // libraries
    std::vector<std::string> undefined;        // functions that the program itself needs
};

// `text` is all that the loader printed, under LD_TRACE_LOADED_OBJECTS, LD_WARN
// and LD_BIND_NOW, about the program with this path.
LoaderReport parseLoaderReport(std::string_view text, std::string_view program);

}  // namespace kavri::cli

#endif
