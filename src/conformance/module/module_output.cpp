// Lines and the marks among them; see module_output.h.
#include "conformance/module/module_output.h"

#include <optional>

#include "base/text_scanner.h"
#include "conformance/agent/channel.h"

namespace kavri::conformance {

void ModuleOutput::add(Stream& stream, std::string_view bytes) {
    stream.lines.add(bytes, [&](std::string_view line) { take(stream, line); });
}

void ModuleOutput::finish() {
    for (Stream* stream : {&output_, &error_}) {
        stream->lines.finish([&](std::string_view line) { take(*stream, line); });
    }
}

void ModuleOutput::take(Stream& stream, std::string_view line) {
    const std::optional<std::string_view> before = base::takeUntil(line, caseMark);
    if (!before) {
        print(stream.caseName, line);
        return;
    }
    if (!before->empty()) {
        print(stream.caseName, *before);
    }
    stream.caseName = line;
}

void ModuleOutput::print(const std::string& caseName, std::string_view line) {
    if (const std::optional<std::string> shown = printed_[caseName].add(line)) {
        show_(*shown);
    }
}

std::string ModuleOutput::of(const std::string& caseName) const {
    const auto found = printed_.find(caseName);
    return found == printed_.end() ? "" : found->second.text();
}

}  // namespace kavri::conformance
