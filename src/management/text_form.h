// A snapshot for people: what is slow or in trouble comes first.
#ifndef KAVRI_MANAGEMENT_TEXT_FORM_H
#define KAVRI_MANAGEMENT_TEXT_FORM_H

#include <string>

#include "base/terminal.h"
#include "management/names.h"
#include "management/snapshot.h"

namespace kavri::management {

struct TextFormOptions {
    std::string socket;
    bool all = false;  // every connection, category and user, and not only the first ones
    base::DisplayStyle style;
};

// With an earlier snapshot of the same broker, counts are shown per second as well.
std::string textForm(const Snapshot& snapshot, const Snapshot* earlier,
                     const TextFormOptions& options, Names& names);

}  // namespace kavri::management

#endif
