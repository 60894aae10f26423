// Writing, and texts of any bytes in JSON; see output.h.
#include "terminal/output.h"

#include <fmt/format.h>
#include <poll.h>
#include <string.h>

#include <cerrno>
#include <cstdint>

#include "base/printable.h"
#include "process/exit_status.h"

namespace kavri::terminal {

namespace {

std::string inBase64(std::string_view bytes) {
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t begin = 0; begin < bytes.size(); begin += 3) {
        const std::string_view group = bytes.substr(begin, 3);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            bits = (bits << 8) | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text += i <= group.size() ? digits[(bits >> (18 - 6 * i)) & 0x3f] : '=';
        }
    }
    return text;
}

// A pipe that another program made non-blocking is full.
void awaitRoom() {
    pollfd writable = {STDOUT_FILENO, POLLOUT, 0};
    poll(&writable, 1, -1);
}

}  // namespace

std::string Output::shown(std::string_view bytes) const {
    return isTerminal_ ? base::printable(bytes) : std::string(bytes);
}

bool Output::write(std::string_view text) const {
    while (!text.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EPIPE) {
            return false;
        } else if (errno == EAGAIN) {
            awaitRoom();
        } else if (errno != EINTR) {
            throw process::CommandFailure(
                process::ExitStatus::outputLost,
                fmt::format("cannot write to standard output: {}", strerrordesc_np(errno)));
        }
    }
    return true;
}

void addField(Json& object, const std::string& key, std::string_view bytes) {
    if (base::isUtf8(bytes)) {
        object[key] = bytes;
    } else {
        object[key + "_base64"] = inBase64(bytes);
    }
}

}  // namespace kavri::terminal
