// A configuration file in TOML, as all who read parts of it use it: whatever is wrong is told
// with the file, the line and what would be right.
#ifndef KAVRI_BROKER_CONFIG_FILE_H
#define KAVRI_BROKER_CONFIG_FILE_H

#include <toml++/toml.h>

#include <filesystem>
#include <string>
#include <utility>

#include "broker/config.h"

namespace kavri::broker {

class ConfigFile {
  public:
    explicit ConfigFile(std::string path) : path_(std::move(path)) {}

    toml::table parse() const {
        // Read as a file, a folder would be an empty one.
        if (std::error_code ignored; std::filesystem::is_directory(path_, ignored)) {
            throw BadConfig(path_ + ": is a folder, not a file");
        }
        try {
            return toml::parse_file(path_);
        } catch (const toml::parse_error& error) {
            const auto line = error.source().begin.line;
            throw BadConfig(path_ + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": " +
                            std::string(error.description()));
        }
    }

    [[noreturn]] void fail(const toml::node& node, const std::string& what) const {
        throw BadConfig(path_ + ":" + std::to_string(node.source().begin.line) + ": " + what);
    }

    const toml::table& tableOf(const toml::node& node, const std::string& name) const {
        const toml::table* table = node.as_table();
        if (table == nullptr) {
            fail(node, name + " is to be a table: [" + name + "]");
        }
        return *table;
    }

  private:
    const std::string path_;
};

}  // namespace kavri::broker

#endif
