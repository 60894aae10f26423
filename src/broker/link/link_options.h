// What a configuration says about a link.
#ifndef KAVRI_BROKER_LINK_LINK_OPTIONS_H
#define KAVRI_BROKER_LINK_LINK_OPTIONS_H

#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "broker/link/bus.h"

namespace kavri::broker {

struct LinkOptions {
    BusOptions bus;
    // Categories whose services and events here are offered to others.
    std::set<std::string, std::less<>> exports;
    // Categories whose services and events of others are used here.
    std::set<std::string, std::less<>> imports;
    bool importsAll = false;

    bool operator==(const LinkOptions&) const = default;

    bool isExported(std::string_view category) const { return exports.contains(category); }
    bool isImported(std::string_view category) const {
        return importsAll || imports.contains(category);
    }
};

}  // namespace kavri::broker

#endif
