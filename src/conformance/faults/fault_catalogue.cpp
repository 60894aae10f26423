// The tables, one after the other; see fault_catalogue.h.
#include "conformance/faults/fault_catalogue.h"

#include <algorithm>

namespace kavri::conformance {

std::span<const Fault> faultCatalogue() {
    static const std::vector<Fault> all = [] {
        std::vector<Fault> faults;
        for (const auto& group : {libraryFaults(), requestFaults(), receiveFaults(),
                                  responseCallbackFaults(), eventFaults()}) {
            faults.insert(faults.end(), group.begin(), group.end());
        }
        return faults;
    }();
    return all;
}

std::vector<std::string> namesOfFaults() {
    std::vector<std::string> names;
    for (const Fault& fault : faultCatalogue()) {
        names.emplace_back(fault.name);
    }
    return names;
}

const Fault* findFault(std::string_view name) {
    const auto all = faultCatalogue();
    const auto found = std::ranges::find(all, name, &Fault::name);
    return found != all.end() ? &*found : nullptr;
}

}  // namespace kavri::conformance
