// Configuration, ports and readiness of nats-server; see message_server.h.
#include "transports/message_server.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace kavri::bench {

namespace {

constexpr std::int64_t manyBytes = 256LL * 1024 * 1024;

std::string logOf(const Place& place, const std::string& name) {
    return place.at(name + ".log");
}

// The server writes down the ports that the kernel gave it. kind: "nats" or "cluster".
std::string addressFor(const Place& place, const std::string& name, const char* kind) {
    for (const auto& file : std::filesystem::directory_iterator(place.at(name))) {
        if (file.path().extension() == ".ports") {
            std::ifstream content(file.path());
            const nlohmann::json ports = nlohmann::json::parse(content, nullptr, false);
            if (!ports.is_discarded() && ports.contains(kind)) {
                return ports[kind].at(0);
            }
        }
    }
    return {};
}

bool hasJoined(const Place& place, const std::string& name) {
    std::ostringstream log;
    log << std::ifstream(logOf(place, name)).rdbuf();
    return log.str().find("Route connection created") != std::string::npos;
}

Child start(const Place& place, const std::string& name, const std::string& routes) {
    std::filesystem::create_directory(place.at(name));
    const std::string configuration = place.at(name + ".conf");
    std::ofstream(configuration) << "server_name: " << name
                                 << "\nlisten: \"127.0.0.1:-1\"\nports_file_dir: \""
                                 << place.at(name)
                                 << "\"\nmax_payload: 8MB\nmax_pending: " << manyBytes
                                 << "\nmax_connections: 65536\n"
                                 << "cluster { name: bench, listen: \"127.0.0.1:-1\", routes: ["
                                 << routes << "] }\n";
    Child server({{"nats-server", "--config", configuration}, logOf(place, name)});
    server.waitUntilReady([&] { return !addressOfServer(place, name).empty(); });
    return server;
}

}  // namespace

Child startMessageServer(const Place& place, const std::string& name) {
    return start(place, name, "");
}

Child startJoinedServer(const Place& place, const std::string& name, const std::string& other) {
    Child server = start(place, name, "\"" + addressFor(place, other, "cluster") + "\"");
    server.waitUntilReady([&] { return hasJoined(place, name) && hasJoined(place, other); });
    return server;
}

std::string addressOfServer(const Place& place, const std::string& name) {
    return addressFor(place, name, "nats");
}

}  // namespace kavri::bench
