// The grammar of the log, line by line; see module_log.h.
#include "cli/module_log.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "cli/text_scanner.h"

namespace kavri::cli {

namespace {

using Kind = LogEvent::Kind;

bool isNumber(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

// Takes "file(line): " and returns "file(line)"; empty when the text does not
// begin with one.
std::string_view takeLocation(std::string_view& text) {
    const size_t end = text.find("): ");
    const size_t open = text.rfind('(', end);
    if (end == std::string_view::npos || open == std::string_view::npos ||
        !isNumber(text.substr(open + 1, end - open - 1))) {
        return {};
    }
    const std::string_view location = text.substr(0, end + 1);
    text.remove_prefix(end + 3);
    return location;
}

// "12us" or "12ms", as the framework writes a time.
std::optional<std::chrono::microseconds> parseTime(std::string_view text) {
    const bool inMs = text.ends_with("ms");
    if (!takeSuffix(text, "ms") && !takeSuffix(text, "us")) {
        return std::nullopt;
    }
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return std::chrono::microseconds(inMs ? value * 1000 : value);
}

bool isUnitType(std::string_view type) {
    return type == "case" || type == "suite" || type == "module";
}

}  // namespace

std::vector<LogEvent> ModuleLog::read(std::string_view bytes) {
    partialLine_ += bytes;
    std::string_view rest = partialLine_;
    while (const auto line = takeUntil(rest, "\n")) {
        readLine(*line);
    }
    partialLine_.erase(0, partialLine_.size() - rest.size());
    return std::exchange(events_, {});
}

std::vector<LogEvent> ModuleLog::finish() {
    if (!partialLine_.empty()) {
        readLine(std::exchange(partialLine_, {}));
    }
    completePending();
    return std::exchange(events_, {});
}

void ModuleLog::readLine(std::string_view line) {
    std::string_view text = line;
    const std::string_view location = takeLocation(text);
    if (readEntry(line, location, text)) {
        return;
    }
    if (pending_) {
        const bool isCheckpoint = !location.empty() && text.starts_with("last checkpoint");
        pending_->text.append(isCheckpoint ? "; " : "\n").append(line);
    } else {
        emit({Kind::remark, {}, std::string(line), {}});
    }
}

// Whether the line begins an entry; if so, it has been dealt with.
bool ModuleLog::readEntry(std::string_view line, std::string_view location, std::string_view text) {
    if (location.empty() && (text.starts_with("Running ") || text == "Test is aborted")) {
        completePending();
        return true;
    }
    if (text.starts_with("Entering test ") || text.starts_with("Leaving test ")) {
        readUnitBoundary(text);
        return true;
    }
    if (takePrefix(text, "Test case \"")) {
        const auto name = takeUntil(text, "\" is skipped because ");
        if (name) {
            emit({Kind::caseSkipped, std::string(*name), std::string(text), {}});
        }
        return name.has_value();
    }
    if (text.starts_with("Test suite \"") && text.find("\" is skipped because ") != text.npos) {
        completePending();
        return true;
    }
    if (location.empty()) {
        return false;
    }
    if (takePrefix(text, "info: ") && takeSuffix(text, " has passed")) {
        emit({Kind::checkPassed, {}, std::string(location).append(": ").append(text), {}});
        return true;
    }
    if (text.starts_with("warning: in \"")) {
        emit({Kind::remark, {}, std::string(line), {}});
        return true;
    }
    if (text.starts_with("error: in \"") || text.starts_with("fatal error: in \"")) {
        const bool isCheck =
            text.starts_with("error") || text.find("\": critical check ") != text.npos;
        completePending();
        pending_ = {isCheck ? Kind::checkFailed : Kind::caseAborted, {}, std::string(line), {}};
        return true;
    }
    return false;
}

void ModuleLog::readUnitBoundary(std::string_view text) {
    const bool begins = takePrefix(text, "Entering test ");
    if (!begins) {
        takePrefix(text, "Leaving test ");
    }
    const auto type = takeUntil(text, " \"");
    const auto name = takeUntil(text, "\"");
    if (!type || !name || !isUnitType(*type)) {
        return;
    }
    if (begins) {
        beginUnit(*type, *name);
    } else if (*type == "case") {
        takePrefix(text, "; testing time: ");
        emit({Kind::caseEnded, fullName(*name), {}, parseTime(text)});
    } else if (*type == "suite" && !suites_.empty()) {
        suites_.pop_back();
    }
}

void ModuleLog::beginUnit(std::string_view type, std::string_view name) {
    if (type == "suite") {
        suites_.emplace_back(name);
    } else if (type == "case") {
        emit({Kind::caseBegan, fullName(name), {}, {}});
    }
}

void ModuleLog::emit(LogEvent event) {
    completePending();
    events_.push_back(std::move(event));
}

void ModuleLog::completePending() {
    if (pending_) {
        events_.push_back(*std::exchange(pending_, std::nullopt));
    }
}

std::string ModuleLog::fullName(std::string_view caseName) const {
    std::string name;
    for (const std::string& suite : suites_) {
        name.append(suite).append("/");
    }
    return name.append(caseName);
}

}  // namespace kavri::cli
