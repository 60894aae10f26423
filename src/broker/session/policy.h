// Who may do what, decided by the user that the kernel names for a connection.
//
// By default only the broker's own user and root may connect or manage, and all who
// may connect may do the rest. The configuration widens the first two rights, and
// widens or narrows the other three for each category.
#ifndef KAVRI_BROKER_SESSION_POLICY_H
#define KAVRI_BROKER_SESSION_POLICY_H

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "wire/link_user.h"

namespace kavri::broker {

using wire::linkUser;

// A set of users, or everybody on this machine.
struct Users {
    bool everybody = false;
    std::set<uid_t> listed;

    bool contains(uid_t user) const {
        return (everybody && user != linkUser) || listed.contains(user);
    }
};

// The rights at one category.
struct CategoryPolicy {
    Users serve{true, {}};
    Users send{true, {linkUser}};
    Users subscribe{true, {linkUser}};
};

struct Policy {
    // The broker's own user and root are always in both.
    Users connect;
    Users manage;
    CategoryPolicy otherCategories;
    std::map<std::string, CategoryPolicy, std::less<>> categories;

    const CategoryPolicy& at(std::string_view category) const {
        const auto found = categories.find(category);
        return found == categories.end() ? otherCategories : found->second;
    }
};

}  // namespace kavri::broker

#endif
