// Makes the page of a report: JSON on standard input, HTML on standard output.
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>

#include "conformance/report/html/report_page.h"

int main() {
    try {
        std::cout << kavri::conformance::reportPage(nlohmann::json::parse(std::cin));
    } catch (const std::exception& error) {
        std::cerr << "render_report: " << error.what() << '\n';
        return 1;
    }
    return std::cout.flush() ? 0 : 1;
}
