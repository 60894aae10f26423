// Reading the graph and matching patterns; see case_listing.h.
//
// A line of the graph describes a unit, `tu2[...,label="name|file(line)"];`, or a unit
// and its child, `tu1 -> tu2;`. The root is the module, the leaves are the cases.
#include "conformance/cases/case_listing.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fnmatch.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "base/suggestion.h"
#include "base/text_scanner.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

struct Graph {
    std::vector<std::string> order;
    std::map<std::string, std::string> names;
    std::map<std::string, std::string> parents;
    std::set<std::string> suites;  // units that have others below them

    void readLine(std::string_view line) {
        if (!line.starts_with("tu") || !base::takeSuffix(line, ";")) {
            return;
        }
        if (const auto parent = base::takeUntil(line, " -> ")) {
            parents[std::string(line)] = *parent;
            suites.emplace(*parent);
            return;
        }
        const auto unit = base::takeUntil(line, "[");
        if (unit && base::takeUntil(line, "label=\"") && base::takeSuffix(line, "\"]")) {
            order.emplace_back(*unit);
            names[std::string(*unit)] = line.substr(0, line.find('|'));
        }
    }

    bool isCase(const std::string& unit) const {
        return parents.contains(unit) && !suites.contains(unit);
    }

    // With the suites that the unit is in; the module's own name is no part of it.
    std::string fullName(const std::string& unit) const {
        std::string name = names.at(unit);
        for (auto up = parents.find(unit); parents.contains(up->second);
             up = parents.find(up->second)) {
            name.insert(0, names.at(up->second) + "/");
        }
        return name;
    }
};

std::string bareName(const std::string& name) {
    return name.substr(name.rfind('/') + 1);
}

bool matches(const std::string& name, const std::string& pattern) {
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0 ||
           fnmatch(pattern.c_str(), bareName(name).c_str(), 0) == 0;
}

[[noreturn]] void refuse(const std::string& pattern, const std::vector<std::string>& names) {
    std::vector<std::string> known = names;
    std::ranges::transform(names, std::back_inserter(known), bareName);
    throw process::CommandFailure(
        process::ExitStatus::usage,
        fmt::format("no case matches '{}'; {}there are {}", pattern,
                    base::didYouMean(pattern, known), fmt::join(names, ", ")));
}

}  // namespace

std::vector<std::string> casesInListing(std::string_view listing) {
    Graph graph;
    while (const auto line = base::takeLine(listing)) {
        graph.readLine(*line);
    }
    std::vector<std::string> cases;
    for (const std::string& unit : graph.order) {
        if (graph.isCase(unit)) {
            cases.push_back(graph.fullName(unit));
        }
    }
    return cases;
}

bool isSelected(const std::string& name, const std::vector<std::string>& patterns) {
    return patterns.empty() || std::ranges::any_of(patterns, [&](const std::string& pattern) {
               return matches(name, pattern);
           });
}

std::vector<std::string> selectCases(const std::vector<std::string>& names,
                                     const std::vector<std::string>& patterns) {
    for (const std::string& pattern : patterns) {
        if (std::ranges::none_of(names, [&](const auto& name) { return matches(name, pattern); })) {
            refuse(pattern, names);
        }
    }
    std::vector<std::string> selected;
    std::ranges::copy_if(names, std::back_inserter(selected),
                         [&](const std::string& name) { return isSelected(name, patterns); });
    return selected;
}

}  // namespace kavri::conformance
