// Reading the earlier report and the comparison itself; see baseline.h.
//
// A case is compared by the ways in which it failed: a case that failed before and now fails
// by another check too has got worse.
#include "conformance/report/baseline.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

#include "base/printable.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

using nlohmann::json;
using Ways = std::set<std::string>;

// Fewer calls than this have no median to speak of.
constexpr std::size_t fewestCalls = 10;
// What a busy machine adds to a call.
constexpr double leastDifferenceUs = 250;
constexpr double leastFactor = 3;

[[noreturn]] void refuse(const std::filesystem::path& path, const std::string& why) {
    throw process::CommandFailure(
        process::ExitStatus::usage,
        fmt::format("{}: {}; name a report that --json of a whole run has written", path.string(),
                    why));
}

bool isFailure(std::string_view verdict) {
    return verdict == "fail" || verdict == "timeout" || verdict == "crash";
}

bool isOfWholeRun(std::string_view verdict) {
    return verdict.starts_with("pass") || isFailure(verdict);
}

// `lacksRecord`: whether something is wrong beside the checks that failed.
Ways waysOf(std::string_view verdict, Ways failedChecks, bool lacksRecord) {
    if (!isFailure(verdict)) {
        return {};
    }
    if (verdict != "fail") {
        failedChecks.emplace(verdict);
    } else if (lacksRecord || failedChecks.empty()) {
        failedChecks.insert("record");
    }
    return failedChecks;
}

Ways waysOf(const CaseReport& one) {
    const std::vector<std::string> failed = one.failedChecks();
    return waysOf(verdictText(one.verdict), {failed.begin(), failed.end()}, !one.missing.empty());
}

Ways waysOf(const json& one) {
    Ways failed;
    for (const json& check : one.at("checks")) {
        if (!check.at("passed").get<bool>()) {
            failed.insert(check.at("text").get<std::string>());
        }
    }
    return waysOf(one.at("verdict").get<std::string>(), std::move(failed),
                  !one.at("missing").empty());
}

double microseconds(base::Latencies::Duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

std::vector<std::string> without(const Ways& ways, const Ways& others) {
    std::vector<std::string> left;
    std::ranges::set_difference(ways, others, std::back_inserter(left));
    return left;
}

std::vector<std::string> common(const Ways& ways, const Ways& others) {
    std::vector<std::string> both;
    std::ranges::set_intersection(ways, others, std::back_inserter(both));
    return both;
}

}  // namespace

Baseline Baseline::read(const std::filesystem::path& path) {
    std::ifstream file(path);
    const int error = !file ? errno : std::filesystem::is_directory(path) ? EISDIR : 0;
    if (error != 0) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("{}: {}; name a JSON report that can be read", path.string(),
                        std::generic_category().message(error)));
    }
    try {
        const json report = json::parse(file);
        if (report.at("schema") != 2) {
            refuse(path, fmt::format("its schema is {}, not 2", report["schema"].dump()));
        }
        const auto verdict = report.at("verdict").get<std::string>();
        if (!isOfWholeRun(verdict)) {
            refuse(path, fmt::format("its verdict is \"{}\"", verdict));
        }
        Baseline baseline(report);
        baseline.file_ = path.string();
        return baseline;
    } catch (const json::exception&) {
        refuse(path, "no JSON report");
    }
}

Baseline::Baseline(const json& report) : date_(report.at("date").get<std::string>()) {
    for (const json& library : report.at("libraries")) {
        libraries_.push_back(libraryIn(library));
    }
}

Baseline::Library Baseline::libraryIn(const json& library) {
    Library result;
    result.name = library.at("name").get<std::string>();
    for (const json& one : library.at("cases")) {
        result.ways.emplace(one.at("name").get<std::string>(), waysOf(one));
    }
    for (const auto& [function, times] : library.at("latencies").items()) {
        result.times[function] = {times.at("count").get<std::size_t>(), 0,
                                  times.at("p50Us").get<double>(), times.at("p90Us").get<double>()};
    }
    return result;
}

// One library is compared with one, wherever it lies; of several, those of the same name.
const Baseline::Library* Baseline::counterpartOf(const LibraryReport& library,
                                                 const Report& report) const {
    if (report.libraries.size() == 1 && libraries_.size() == 1) {
        return &libraries_.front();
    }
    const auto found = std::ranges::find(libraries_, library.name, &Library::name);
    return found == libraries_.end() ? nullptr : &*found;
}

BaselineComparison Baseline::compare(
    const Report& report, const std::function<bool(const std::string&)>& isSelected) const {
    BaselineComparison result;
    result.file = file_;
    result.date = date_;
    result.libraries = report.libraries.size();
    for (const LibraryReport& library : report.libraries) {
        const Library nothing;
        const Library* counterpart = counterpartOf(library, report);
        const Library& earlier = counterpart != nullptr ? *counterpart : nothing;
        compareCases(library, earlier, result);
        compareTimes(library, earlier, result);
        for (const auto& earlierCase : earlier.ways) {
            const std::string& name = earlierCase.first;
            if (isSelected(name) && std::ranges::none_of(library.cases, [&](const auto& one) {
                    return one.name == name && one.verdict != Verdict::notRun;
                })) {
                result.missing.push_back({library.name, name, {}});
            }
        }
    }
    return result;
}

void Baseline::compareCases(const LibraryReport& library, const Library& earlier,
                            BaselineComparison& result) const {
    for (const CaseReport& one : library.cases) {
        const auto found = earlier.ways.find(one.name);
        const Ways before = found == earlier.ways.end() ? Ways() : found->second;
        const Ways now = waysOf(one);
        const auto add = [&](auto& list, std::vector<std::string> ways) {
            if (!ways.empty()) {
                list.push_back({library.name, one.name, std::move(ways)});
            }
        };
        if (one.known.empty()) {
            add(result.newlyFailing, without(now, before));
        }
        add(result.stillFailing, common(now, before));
        if (one.verdict == Verdict::pass) {
            add(result.newlyPassing, {before.begin(), before.end()});
        }
    }
}

// Nine tenths of the calls take longer than nine tenths of them did, and more than three times as
// long as half of them did: what a few slow calls, or a machine a little busier, cannot cause.
bool Baseline::isSlower(const Times& earlier, const Times& now) {
    return std::min(earlier.count, now.count) >= fewestCalls && now.p10Us > earlier.p90Us &&
           now.p50Us > leastFactor * earlier.p50Us && now.p50Us - earlier.p50Us > leastDifferenceUs;
}

void Baseline::compareTimes(const LibraryReport& library, const Library& earlier,
                            BaselineComparison& result) const {
    LatenciesByFunction latencies;
    addLatencies(library.cases, latencies);
    for (const auto& [function, calls] : latencies) {
        const auto found = earlier.times.find(function);
        const Times now{calls.count(), microseconds(calls.percentile(0.1)),
                        microseconds(calls.percentile(0.5)), microseconds(calls.percentile(0.9))};
        if (found != earlier.times.end() && isSlower(found->second, now)) {
            result.slower.push_back({library.name, function, found->second.p50Us, now.p50Us});
        }
    }
}

std::vector<std::string> comparisonLines(const BaselineComparison& comparison) {
    std::vector<std::string> lines = {
        fmt::format("compared with {} of {}:", comparison.file, comparison.date)};
    const auto nameOf = [&](const auto& change) {
        return comparison.libraries > 1 ? fmt::format("{}: {}", change.library, change.name)
                                        : change.name;
    };
    const auto add = [&](std::string_view kind, const auto& changes) {
        for (const BaselineComparison::Case& change : changes) {
            lines.push_back(fmt::format("  {:<13}  {}{}{}", kind, nameOf(change),
                                        change.ways.empty() ? "" : ": ",
                                        fmt::join(change.ways, "; ")));
        }
    };
    add("newly failing", comparison.newlyFailing);
    add("still failing", comparison.stillFailing);
    add("newly passing", comparison.newlyPassing);
    add("missing", comparison.missing);
    for (const BaselineComparison::Function& function : comparison.slower) {
        lines.push_back(fmt::format("  {:<13}  {}: median {:.0f} us, formerly {:.0f} us", "slower",
                                    nameOf(function), function.p50Us, function.earlierP50Us));
    }
    lines.push_back(fmt::format(
        "{} newly failing, {} still failing, {} newly passing, {} missing, {} slower",
        comparison.newlyFailing.size(), comparison.stillFailing.size(),
        comparison.newlyPassing.size(), comparison.missing.size(), comparison.slower.size()));
    std::ranges::transform(lines, lines.begin(), base::printable);
    return lines;
}

}  // namespace kavri::conformance
