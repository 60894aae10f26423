// The report as one HTML file: readable in a browser, without network, with the report's
// JSON inside; compressed, because the records of all faults repeat each other.
//
// The page is built by its scripts (*.js) from that JSON. Where no script runs, it shows
// a plain summary.
#ifndef KAVRI_CONFORMANCE_REPORT_HTML_REPORT_PAGE_H
#define KAVRI_CONFORMANCE_REPORT_HTML_REPORT_PAGE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kavri::conformance {

// `report` is what toJson() made.
std::string reportPage(const nlohmann::json& report);

}  // namespace kavri::conformance

#endif
