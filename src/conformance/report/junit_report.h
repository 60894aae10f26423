// The report as JUnit XML, in the form that build servers read: a suite per
// library and suite of cases, and one of the faults where they were tried.
#ifndef KAVRI_CONFORMANCE_REPORT_JUNIT_REPORT_H
#define KAVRI_CONFORMANCE_REPORT_JUNIT_REPORT_H

#include <string>

#include "conformance/report/report.h"

namespace kavri::conformance {

// Well-formed, whatever bytes a library put into its texts.
std::string junitReport(const Report& report);

}  // namespace kavri::conformance

#endif
