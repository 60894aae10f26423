// The files beside this one, which CMake puts into the program as they are.
#ifndef KAVRI_CONFORMANCE_REPORT_HTML_PAGE_TEXT_H
#define KAVRI_CONFORMANCE_REPORT_HTML_PAGE_TEXT_H

#include <span>
#include <string_view>

namespace kavri::conformance::page_text {

extern const std::string_view html;                      // with {{NAME}} where the rest goes
extern const std::string_view style;                     // page.css
extern const std::span<const std::string_view> scripts;  // in the order in which they run
extern const std::string_view moduleSource;              // tests/test_ipc_initiator.cpp

}  // namespace kavri::conformance::page_text

#endif
