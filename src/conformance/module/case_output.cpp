// Keeping the first lines; see case_output.h.
#include "conformance/module/case_output.h"

#include "base/bounded_text.h"
#include "base/printable.h"

namespace kavri::conformance {

std::optional<std::string> CaseOutput::add(std::string_view line) {
    if (text_.size() < limitBytes) {
        std::string kept = base::bounded(base::printable(line), limitBytes - text_.size());
        text_ += kept + '\n';
        return kept;
    }
    const bool isFirst = leftOutBytes_ == 0;
    leftOutBytes_ += line.size() + 1;
    return isFirst ? std::optional("… (the rest of the case's output is left out)") : std::nullopt;
}

std::string CaseOutput::text() const {
    return leftOutBytes_ == 0 ? text_ : text_ + base::cutMark(leftOutBytes_) + '\n';
}

}  // namespace kavri::conformance
