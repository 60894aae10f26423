// A snapshot as JSON; docs/status.schema.json describes it.
#ifndef KAVRI_MANAGEMENT_JSON_FORM_H
#define KAVRI_MANAGEMENT_JSON_FORM_H

#include <nlohmann/json.hpp>
#include <string>

#include "management/names.h"
#include "management/snapshot.h"

namespace kavri::management {

// `time`: when it was taken. `socket`: which broker was asked.
nlohmann::ordered_json jsonForm(const Snapshot& snapshot, const std::string& socket,
                                const std::string& time, Names& names);

}  // namespace kavri::management

#endif
