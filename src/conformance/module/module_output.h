// What the module prints, case by case: the observer marks in both streams where a case begins.
#ifndef KAVRI_CONFORMANCE_MODULE_MODULE_OUTPUT_H
#define KAVRI_CONFORMANCE_MODULE_MODULE_OUTPUT_H

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "base/line_buffer.h"
#include "conformance/module/case_output.h"

namespace kavri::conformance {

class ModuleOutput {
  public:
    // `show` is called with each line as it is to be shown.
    explicit ModuleOutput(std::function<void(const std::string& line)> show)
        : show_(std::move(show)) {}

    // What is printed before the first mark counts for this case.
    void beginWith(const std::string& caseName) { output_.caseName = error_.caseName = caseName; }

    void addOutput(std::string_view bytes) { add(output_, bytes); }
    void addError(std::string_view bytes) { add(error_, bytes); }
    // Passes on the last lines, though they have no line break.
    void finish();

    // What was printed in a case, and after it until the next one began.
    std::string of(const std::string& caseName) const;

  private:
    struct Stream {
        base::LineBuffer lines{};
        std::string caseName{};  // the one in which it is
    };

    void add(Stream& stream, std::string_view bytes);
    void take(Stream& stream, std::string_view line);
    void print(const std::string& caseName, std::string_view line);

    const std::function<void(const std::string& line)> show_;
    Stream output_;
    Stream error_;
    std::map<std::string, CaseOutput> printed_;
};

}  // namespace kavri::conformance

#endif
