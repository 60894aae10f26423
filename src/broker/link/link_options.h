// What a configuration says about a link.
#ifndef KAVRI_BROKER_LINK_LINK_OPTIONS_H
#define KAVRI_BROKER_LINK_LINK_OPTIONS_H

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "broker/link/bus.h"

namespace kavri::broker {

// What a broker may be called among others: a word, as host names are.
inline bool isBrokerName(std::string_view name) {
    return !name.empty() && name.size() <= 64 && std::ranges::all_of(name, [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               (byte >= '0' && byte <= '9') || byte == '.' || byte == '_' || byte == '-';
    });
}

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
