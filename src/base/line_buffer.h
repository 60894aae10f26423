// Splits a stream that arrives in pieces into lines.
#ifndef KAVRI_BASE_LINE_BUFFER_H
#define KAVRI_BASE_LINE_BUFFER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "base/text_scanner.h"

namespace kavri::base {

class LineBuffer {
  public:
    // A longer line is passed on in pieces, so that a stream without line breaks does not
    // fill the memory.
    static constexpr std::size_t longestLineBytes = 65536;

    // Calls `use` with each line that is complete, without its line break.
    template <typename Use>
    void add(std::string_view bytes, const Use& use) {
        partial_ += bytes;
        std::string_view rest = partial_;
        while (const auto line = takeUntil(rest, "\n")) {
            use(*line);
        }
        partial_.erase(0, partial_.size() - rest.size());
        if (partial_.size() > longestLineBytes) {
            finish(use);
        }
    }

    // The stream has ended: a last line may have no line break.
    template <typename Use>
    void finish(const Use& use) {
        if (!partial_.empty()) {
            use(std::string_view(partial_));
            partial_.clear();
        }
    }

  private:
    std::string partial_;
};

}  // namespace kavri::base

#endif
