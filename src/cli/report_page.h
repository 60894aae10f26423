// The report as one HTML file: readable in any browser, without network, with the
// report's JSON inside.
//
// The page is put together by its script (report_page/*.js) from that JSON. Where
// no script runs, a plain summary stands in its place.
#ifndef KAVRI_CLI_REPORT_PAGE_H
#define KAVRI_CLI_REPORT_PAGE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kavri::cli {

// `report` is what toJson() made.
std::string reportPage(const nlohmann::json& report);

}  // namespace kavri::cli

#endif
