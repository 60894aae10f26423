// Reading the configuration file; see config.h.
#include "broker/config.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

#include "broker/config_file.h"
#include "broker/link_config.h"
#include "wire/limit_settings.h"

namespace kavri::broker {

namespace {

using wire::Limits;
using wire::LimitSetting;
using wire::limitSettings;

class Reader {
  public:
    explicit Reader(std::string path) : file_(std::move(path)) {}

    Config read() {
        Config config = defaultConfig();
        const toml::table file = file_.parse();
        for (const auto& [key, node] : file) {
            if (key == "limits") {
                readLimits(tableOf(node, "limits"), config.limits);
            } else if (key == "access") {
                readAccess(tableOf(node, "access"), config.policy);
            } else if (key == "link") {
                config.link = readLink(file_, tableOf(node, "link"));
            } else {
                fail(node, "unknown table \"" + std::string(key.str()) +
                               "\": there are limits, access and link");
            }
        }
        return config;
    }

  private:
    [[noreturn]] void fail(const toml::node& node, const std::string& what) const {
        file_.fail(node, what);
    }

    const toml::table& tableOf(const toml::node& node, const std::string& name) const {
        return file_.tableOf(node, name);
    }

    void readLimits(const toml::table& table, Limits& limits) const {
        for (const auto& [key, node] : table) {
            const std::string name(key.str());
            const auto* setting =
                std::find_if(limitSettings.begin(), limitSettings.end(),
                             [&name](const LimitSetting& known) { return known.name == name; });
            if (setting == limitSettings.end()) {
                fail(node, "unknown limit \"" + name + "\": there are " + settingNames());
            }
            const auto value = node.value_exact<std::int64_t>();
            if (!value || *value < setting->least || *value > setting->most) {
                fail(node, std::string(setting->name) + " is to be a whole number from " +
                               std::to_string(setting->least) + " to " +
                               std::to_string(setting->most));
            }
            setting->set(limits, *value);
        }
    }

    static std::string settingNames() {
        std::string names;
        for (const LimitSetting& setting : limitSettings) {
            names += (names.empty() ? "" : ", ") + std::string(setting.name);
        }
        return names;
    }

    void readAccess(const toml::table& table, Policy& policy) const {
        for (const auto& [key, node] : table) {
            if (key == "connect") {
                widen(policy.connect, readUsers(node, "connect"));
            } else if (key == "manage") {
                widen(policy.manage, readUsers(node, "manage"));
            } else if (key == "category") {
                for (const auto& [name, rights] : tableOf(node, "access.category")) {
                    readCategory(tableOf(rights, "access.category." + std::string(name.str())),
                                 policy.categories[std::string(name.str())]);
                }
            } else {
                fail(node, "unknown right \"" + std::string(key.str()) +
                               "\": there are connect, manage and category");
            }
        }
    }

    static void widen(Users& users, const Users& further) {
        users.everybody = further.everybody;
        users.listed.insert(further.listed.begin(), further.listed.end());
    }

    void readCategory(const toml::table& table, CategoryPolicy& rights) const {
        for (const auto& [key, node] : table) {
            if (key == "serve") {
                rights.serve = readPeers(node, "serve");
            } else if (key == "send") {
                rights.send = readPeers(node, "send");
            } else if (key == "subscribe") {
                rights.subscribe = readPeers(node, "subscribe");
            } else {
                fail(node, "unknown right \"" + std::string(key.str()) +
                               "\": there are serve, send and subscribe");
            }
        }
    }

    // Users of this machine.
    Users readUsers(const toml::node& node, const std::string& right) const {
        Users users = readPeers(node, right);
        if (users.listed.contains(linkUser)) {
            fail(node, "\"@link\" may be in serve, send and subscribe of a category only");
        }
        return users;
    }

    // Users of this machine, and perhaps the link.
    Users readPeers(const toml::node& node, const std::string& right) const {
        const toml::array* list = node.as_array();
        if (list == nullptr) {
            fail(node, right + " is to be a list of users: [\"alice\", 1001]");
        }
        Users users;
        for (const toml::node& entry : *list) {
            if (const auto number = entry.value_exact<std::int64_t>()) {
                users.listed.insert(userNumbered(entry, *number));
            } else if (const auto name = entry.value_exact<std::string>(); name == "*") {
                users.everybody = true;
            } else if (name == "@link") {
                users.listed.insert(linkUser);
            } else {
                users.listed.insert(userNamed(entry, name.value_or("")));
            }
        }
        return users;
    }

    // The largest number that a uid_t holds means "no user" to the kernel, the one before is
    // the link's.
    uid_t userNumbered(const toml::node& entry, std::int64_t number) const {
        constexpr std::int64_t last = std::int64_t{linkUser} - 1;
        if (number < 0 || number > last) {
            fail(entry, std::to_string(number) + " is no user: numbers are from 0 to " +
                            std::to_string(last));
        }
        return static_cast<uid_t>(number);
    }

    uid_t userNamed(const toml::node& entry, const std::string& name) const {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): read before any thread is started.
        const passwd* known = name.empty() ? nullptr : ::getpwnam(name.c_str());
        if (known == nullptr) {
            fail(entry, "there is no user \"" + name + "\" here: give a name, a number or \"*\"");
        }
        return userNumbered(entry, known->pw_uid);
    }

    const ConfigFile file_;
};

}  // namespace

Config defaultConfig() {
    Config config;
    config.policy.connect.listed = {0, ::geteuid()};
    config.policy.manage.listed = config.policy.connect.listed;
    return config;
}

Config readConfig(const std::string& path) {
    return Reader(path).read();
}

std::vector<std::string> doubtsAbout(const Config& config) {
    std::vector<std::string> doubts;
    if (!config.link) {
        return doubts;
    }
    const std::string why = "nobody of another machine may serve it: \"@link\" is not in its serve";
    for (const std::string& category : config.link->imports) {
        if (!config.policy.at(category).serve.contains(linkUser)) {
            std::string doubt = "category \"" + category;
            doubts.push_back(doubt.append("\" is imported, but ").append(why));
        }
    }
    const bool isAnyServed = std::ranges::any_of(config.policy.categories, [](const auto& named) {
        return named.second.serve.contains(linkUser);
    });
    if (config.link->importsAll && !isAnyServed) {
        doubts.push_back("every category is imported, but of each " + why);
    }
    return doubts;
}

}  // namespace kavri::broker
