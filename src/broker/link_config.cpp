// Reading [link]; see link_config.h.
#include "broker/link_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <system_error>

#include "base/descriptor.h"
#include "base/suggestion.h"
#include "broker/link/subjects.h"

namespace kavri::broker {

namespace {

constexpr std::size_t longestName = 64;
constexpr std::size_t longestAddress = 1024;

// A key whose value is a text.
struct TextKey {
    enum class Kind { text, file, secret };

    std::string_view name;
    std::string BusOptions::*member;
    Kind kind;
};

constexpr std::array<TextKey, 9> textKeys = {{
    {"name", &BusOptions::name, TextKey::Kind::text},
    {"ca", &BusOptions::authorityFile, TextKey::Kind::file},
    {"cert", &BusOptions::certificateFile, TextKey::Kind::file},
    {"key", &BusOptions::keyFile, TextKey::Kind::secret},
    {"user", &BusOptions::user, TextKey::Kind::text},
    {"password_file", &BusOptions::passwordFile, TextKey::Kind::secret},
    {"credentials", &BusOptions::credentialsFile, TextKey::Kind::secret},
    {"nkey", &BusOptions::nkey, TextKey::Kind::text},
    {"nkey_seed", &BusOptions::nkeySeedFile, TextKey::Kind::secret},
}};

// Each of these is of use only with the other.
constexpr std::array<std::array<std::string_view, 2>, 3> pairs = {
    {{"cert", "key"}, {"user", "password_file"}, {"nkey", "nkey_seed"}}};

// Ways to say who we are, of which there is to be one.
constexpr std::array<std::string_view, 3> identities = {"user", "credentials", "nkey"};

std::string nameOfMachine() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    ::gethostname(name.data(), name.size() - 1);
    return std::string(name.data()).substr(0, longestName);
}

bool isPlain(std::string_view text) {
    return std::ranges::all_of(text, [](char each) { return each > ' ' && each <= '~'; });
}

class LinkReader {
  public:
    LinkReader(const ConfigFile& file, const toml::table& table) : file_(file), table_(table) {}

    LinkOptions read() {
        for (const auto& [key, node] : table_) {
            readKey(std::string(key.str()), node);
        }
        checkTogether();
        if (options_.bus.name.empty()) {
            options_.bus.name = nameOfMachine();
        }
        return std::move(options_);
    }

  private:
    void readKey(const std::string& key, const toml::node& node) {
        const auto* text = std::ranges::find(textKeys, key, &TextKey::name);
        if (text != textKeys.end()) {
            readText(*text, node);
        } else if (key == "servers") {
            readServers(node);
        } else if (key == "export") {
            readExports(node);
        } else if (key == "import") {
            readImports(node);
        } else {
            failOfUnknown(key, node);
        }
    }

    [[noreturn]] void failOfUnknown(const std::string& key, const toml::node& node) const {
        std::vector<std::string> known = {"servers"};
        for (const TextKey& text : textKeys) {
            known.emplace_back(text.name);
        }
        known.insert(known.end(), {"export", "import"});
        std::string names;
        for (const std::string& name : known) {
            names += (names.empty() ? "" : ", ") + name;
        }
        file_.fail(node, "unknown key \"" + key + "\" in [link]: " + base::didYouMean(key, known) +
                             "there are " + names);
    }

    void readText(const TextKey& key, const toml::node& node) {
        const std::string name(key.name);
        const auto value = node.value_exact<std::string>();
        if (!value || value->empty()) {
            file_.fail(node, name + " is to be a text that is not empty");
        }
        if (key.kind != TextKey::Kind::text) {
            checkFile(name, *value, key.kind == TextKey::Kind::secret, node);
        } else if (name == "name" && value->size() > longestName) {
            file_.fail(node, "name is to have " + std::to_string(longestName) + " bytes at most");
        }
        options_.bus.*key.member = *value;
    }

    void checkFile(const std::string& key, const std::string& path, bool isSecret,
                   const toml::node& node) const {
        if (!path.starts_with('/')) {
            file_.fail(node, key + " is to be a path that begins with \"/\"");
        }
        const base::Descriptor opened(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        struct stat status {};
        if (!opened.isOpen() || ::fstat(opened.get(), &status) != 0) {
            file_.fail(node, key + ": " + path + ": " + std::generic_category().message(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            file_.fail(node, key + ": " + path + " is not a file");
        }
        if (isSecret && (status.st_mode & S_IRWXO) != 0) {
            file_.fail(node, key + ": " + path + " is open to every user: chmod o= " + path);
        }
    }

    const toml::array& listOf(const toml::node& node, const std::string& what) const {
        const toml::array* list = node.as_array();
        if (list == nullptr) {
            file_.fail(node, what);
        }
        return *list;
    }

    // Neither the value nor a part of it is told: there may be a password in it.
    void readServers(const toml::node& node) {
        const std::string what =
            "servers is to be a list of addresses, at least one: [\"nats://127.0.0.1:4222\"]";
        for (const toml::node& entry : listOf(node, what)) {
            const std::string address = entry.value_exact<std::string>().value_or("");
            const bool isAddress = address.starts_with("nats://") || address.starts_with("tls://");
            if (!isAddress || address.ends_with('/') || address.size() > longestAddress ||
                !isPlain(address)) {
                file_.fail(entry,
                           "an address of servers is nats://HOST:PORT, or with encryption "
                           "tls://HOST:PORT");
            }
            options_.bus.servers.push_back(address);
        }
        if (options_.bus.servers.empty()) {
            file_.fail(node, what);
        }
    }

    void readExports(const toml::node& node) {
        for (const toml::node& entry : listOf(node, "export is to be a list of categories")) {
            std::string category = categoryOf("export", entry);
            if (category == "*") {
                file_.fail(entry, "export names each category: there is no \"*\" for all of them");
            }
            options_.exports.insert(std::move(category));
        }
    }

    void readImports(const toml::node& node) {
        const std::string what = "import is to be a list of categories, or [\"*\"] for all";
        for (const toml::node& entry : listOf(node, what)) {
            std::string category = categoryOf("import", entry);
            if (category == "*") {
                options_.importsAll = true;
            } else {
                options_.imports.insert(std::move(category));
            }
        }
    }

    std::string categoryOf(const std::string& key, const toml::node& entry) const {
        auto category = entry.value_exact<std::string>();
        if (!category || category->empty() || category->size() > longestLinkedCategory) {
            file_.fail(entry, key + ": a category is a text of 1 to " +
                                  std::to_string(longestLinkedCategory) + " bytes");
        }
        return *std::move(category);
    }

    void checkTogether() const {
        if (!table_.contains("servers")) {
            file_.fail(table_, "[link] needs servers = [\"nats://HOST:PORT\"]");
        }
        for (const auto& pair : pairs) {
            for (std::size_t i = 0; i < pair.size(); ++i) {
                const std::string_view other = pair.at(1 - i);
                if (table_.contains(pair.at(i)) && !table_.contains(other)) {
                    file_.fail(*table_.get(pair.at(i)),
                               std::string(pair.at(i)) + " needs " + std::string(other) + ", too");
                }
            }
        }
        std::string_view given;
        for (const std::string_view identity : identities) {
            if (table_.contains(identity) && !given.empty()) {
                file_.fail(*table_.get(identity), std::string(given) + " and " +
                                                      std::string(identity) +
                                                      " are two ways to say who this is: give one");
            }
            given = table_.contains(identity) ? identity : given;
        }
    }

    const ConfigFile& file_;
    const toml::table& table_;
    LinkOptions options_;
};

}  // namespace

LinkOptions readLink(const ConfigFile& file, const toml::table& table) {
    return LinkReader(file, table).read();
}

}  // namespace kavri::broker
