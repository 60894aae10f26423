// `kavri conformance` with files of its reports, as what reads them sees them.
#ifndef KAVRI_TESTS_SUPPORT_CONFORMANCE_REPORTS_H
#define KAVRI_TESTS_SUPPORT_CONFORMANCE_REPORTS_H

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "support/conformance_tool.h"

namespace kavri::tests {

inline std::string textOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class ConformanceReports : public ConformanceTool {
  public:
    // A file in a folder of the test's own.
    std::string at(const std::string& name) const { return folder_ / name; }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(at(name)) << text;
    }
    nlohmann::json json(const std::string& name = "r.json") const {
        return nlohmann::json::parse(textOf(at(name)));
    }
    std::string junit() const { return textOf(at("r.xml")); }
    std::string page() const { return textOf(at("page/index.html")); }

    // Has all three files written.
    Arguments reported(const Arguments& arguments) const {
        return with(arguments,
                    {"--json", at("r.json"), "--junit", at("r.xml"), "--html", at("page")});
    }

    // That the JSON and JUnit files are what their schemas describe.
    void checkValid() const {
        process::ChildProcess validator(
            {.program = "/usr/bin/python3",
             .arguments = {KAVRI_SOURCE_DIR "/tests/schemas/validate.py", at("r.json"),
                           at("r.xml")},
             .environment = {{"PYTHONDONTWRITEBYTECODE", "1"}}});
        const auto exit = validator.wait(longEnough);
        BOOST_REQUIRE(exit.has_value());
        BOOST_TEST(exit->succeeded(), validator.output() << validator.error());
    }

  private:
    process::TemporaryFolder folder_;
};

}  // namespace kavri::tests

#endif
