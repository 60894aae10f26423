// The two forms of line that matter; see loader_report.h:
//
//     libexample.so => /usr/lib/libexample.so (0x00007f0123456789)
//     undefined symbol: example_function, version V1	(/usr/bin/program)
//
// with "not found" in place of a path, and the version only where there is one.
#include "conformance/loading/loader_report.h"

#include <algorithm>

#include "base/text_scanner.h"

namespace kavri::conformance {

namespace {

void readSymbol(LoaderReport& report, std::string_view line, std::string_view program) {
    const size_t end = line.find_first_of(", \t");
    // What a library lacks for itself may never be called.
    if (end != std::string_view::npos &&
        line.substr(end).ends_with("\t(" + std::string(program) + ")")) {
        report.undefined.emplace_back(line.substr(0, end));
    }
}

void readLibrary(LoaderReport& report, std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    const auto name = base::takeUntil(line, " => ");
    if (!name) {
        return;
    }
    if (line == "not found") {
        report.notFound.emplace_back(*name);
    } else {
        report.found[std::string(*name)] = line.substr(0, line.rfind(" (0x"));
    }
}

}  // namespace

LoaderReport parseLoaderReport(std::string_view text, std::string_view program) {
    LoaderReport report;
    while (auto line = base::takeLine(text)) {
        if (base::takePrefix(*line, "undefined symbol: ")) {
            readSymbol(report, *line, program);
        } else {
            readLibrary(report, *line);
        }
    }
    std::ranges::sort(report.undefined);
    return report;
}

}  // namespace kavri::conformance
