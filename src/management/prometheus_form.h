// A snapshot in the text format that Prometheus reads. Of connections there are only sums, and
// of categories only those that are served, so that clients cannot make series without end.
#ifndef KAVRI_MANAGEMENT_PROMETHEUS_FORM_H
#define KAVRI_MANAGEMENT_PROMETHEUS_FORM_H

#include <string>

#include "management/names.h"
#include "management/snapshot.h"

namespace kavri::management {

std::string prometheusForm(const Snapshot& snapshot, Names& names);

}  // namespace kavri::management

#endif
