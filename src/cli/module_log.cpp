// The forms of line that matter; see module_log.h:
//
//     file(line): error: in "suite/case": ...
//     file(line): fatal error: in "suite/case": ...
//     file(line): last checkpoint...                 belongs to what stands before it
#include "cli/module_log.h"

#include <algorithm>
#include <utility>

#include "cli/text_scanner.h"

namespace kavri::cli {

namespace {

bool isNumber(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

// Takes "file(line): " off the text and says whether it was there.
bool takePlace(std::string_view& text) {
    const size_t end = text.find("): ");
    const size_t open = text.rfind('(', end);
    if (end == std::string_view::npos || open == std::string_view::npos ||
        !isNumber(text.substr(open + 1, end - open - 1))) {
        return false;
    }
    text.remove_prefix(end + 3);
    return true;
}

// The case that an entry which begins with this line is about; nothing where
// the line begins none.
std::optional<std::string_view> caseOfEntry(std::string_view line) {
    if (!takePlace(line) ||
        (!takePrefix(line, "error: in \"") && !takePrefix(line, "fatal error: in \""))) {
        return std::nullopt;
    }
    return takeUntil(line, "\": ");
}

bool isCheckpoint(std::string_view line) {
    return takePlace(line) && line.starts_with("last checkpoint");
}

// What the framework says about its own progress.
bool isOfNoInterest(std::string_view line) {
    return (line.starts_with("Running ") && line.ends_with("...")) || line == "Test is aborted";
}

}  // namespace

std::vector<LogEntry> ModuleLog::read(std::string_view bytes) {
    partialLine_ += bytes;
    std::string_view rest = partialLine_;
    while (const auto line = takeUntil(rest, "\n")) {
        readLine(*line);
    }
    partialLine_.erase(0, partialLine_.size() - rest.size());
    return std::exchange(entries_, {});
}

std::vector<LogEntry> ModuleLog::complete(std::string_view caseName) {
    if (pending_ && pending_->caseName == caseName) {
        emitPending();
    }
    return std::exchange(entries_, {});
}

std::vector<LogEntry> ModuleLog::finish() {
    if (!partialLine_.empty()) {
        readLine(std::exchange(partialLine_, {}));
    }
    emitPending();
    return std::exchange(entries_, {});
}

void ModuleLog::readLine(std::string_view line) {
    if (const auto caseName = caseOfEntry(line)) {
        emitPending();
        pending_ = LogEntry{std::string(*caseName), std::string(line)};
    } else if (isOfNoInterest(line)) {
        emitPending();
    } else if (pending_) {
        pending_->text.append(isCheckpoint(line) ? "; " : "\n").append(line);
    } else {
        entries_.push_back({{}, std::string(line)});
    }
}

void ModuleLog::emitPending() {
    if (pending_) {
        entries_.push_back(*std::exchange(pending_, std::nullopt));
    }
}

}  // namespace kavri::cli
