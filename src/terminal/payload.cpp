// Reading standard input; see payload.h.
#include "terminal/payload.h"

#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "process/exit_status.h"
#include "wire/limits.h"

namespace kavri::terminal {

namespace {

[[noreturn]] void refuse(const std::string& reason) {
    throw process::CommandFailure(process::ExitStatus::couldNotRun, "nothing was sent: " + reason);
}

std::string standardInput() {
    std::string all;
    std::array<char, 65536> chunk;
    while (all.size() <= wire::payloadCeilingBytes) {
        const ssize_t count = read(STDIN_FILENO, chunk.data(), chunk.size());
        if (count == 0) {
            return all;
        }
        if (count > 0) {
            all.append(chunk.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            refuse(fmt::format("cannot read standard input: {}", strerrordesc_np(errno)));
        }
    }
    refuse(fmt::format("the payload is longer than the {} MiB that a broker may allow",
                       wire::payloadCeilingBytes / wire::mebibyte));
}

}  // namespace

std::string readPayload(const std::string& argument) {
    if (argument != "-") {
        return argument;
    }
    std::string payload = standardInput();
    if (const std::size_t at = payload.find('\0'); at != std::string::npos) {
        refuse(
            fmt::format("byte {} of the payload is NUL, which no field can hold; encode it, "
                        "with base64 for example",
                        at + 1));
    }
    return payload;
}

}  // namespace kavri::terminal
