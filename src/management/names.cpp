// Names of users and processes; see names.h.
#include "management/names.h"

#include <pwd.h>

#include <fstream>
#include <iterator>

#include "base/printable.h"
#include "wire/link_user.h"

namespace kavri::management {

namespace {

std::optional<std::string> lookUpUser(uid_t user) {
    if (user == wire::linkUser) {
        return std::string(wire::linkUserName);
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread here.
    const passwd* const known = ::getpwuid(user);
    return known == nullptr ? std::nullopt : std::optional(base::printable(known->pw_name));
}

// A process names itself as it likes: any byte may be in it.
std::optional<std::string> lookUpProcess(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name(std::istreambuf_iterator<char>(file), {});
    if (!file.is_open() || name.empty()) {
        return std::nullopt;
    }
    name.pop_back();  // the line feed behind it
    return base::printable(name);
}

}  // namespace

const std::optional<std::string>& Names::ofUser(uid_t user) {
    const auto [place, isNew] = users_.try_emplace(user);
    if (isNew) {
        place->second = lookUpUser(user);
    }
    return place->second;
}

const std::optional<std::string>& Names::ofProcess(pid_t process) {
    const auto [place, isNew] = processes_.try_emplace(process);
    if (isNew) {
        place->second = lookUpProcess(process);
    }
    return place->second;
}

std::string Names::user(uid_t user) {
    return ofUser(user).value_or(std::to_string(user));
}

}  // namespace kavri::management
