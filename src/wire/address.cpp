// The broker's address; see address.h.
#include "wire/address.h"

#include <cstdlib>
#include <filesystem>

#include "base/unix_address.h"

namespace kavri::wire {

std::string brokerAddress(std::string_view chosen) {
    if (!chosen.empty()) {
        return std::string(chosen);
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; the library never writes the environment.
    if (const char* named = std::getenv("KAVRI_BROKER"); named != nullptr && *named != '\0') {
        return named;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        runtime != nullptr && *runtime != '\0') {
        const std::filesystem::path folder = std::filesystem::path(runtime) / "kavri";
        std::error_code ignored;
        if (std::filesystem::is_directory(folder, ignored)) {
            return folder / "broker.sock";
        }
    }
    return "/run/kavri/broker.sock";
}

std::optional<std::string> addressError(std::string_view path) {
    constexpr std::size_t longest = base::UnixAddress::longestPathBytes;
    if (path.empty()) {
        return "the socket path is empty";
    }
    if (path.size() > longest) {
        return "the socket path has " + std::to_string(path.size()) + " bytes, the most is " +
               std::to_string(longest) + "; choose a shorter one";
    }
    return std::nullopt;
}

}  // namespace kavri::wire
