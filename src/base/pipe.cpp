// Pipes; see pipe.h.
#include "base/pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kavri::base {

Pipe Pipe::make(int flags) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | flags) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

void setNonBlocking(const Descriptor& source) {
    if (fcntl(source.get(), F_SETFL, O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a pipe non-blocking");
    }
}

void readAvailable(Descriptor& source, std::string& into) {
    constexpr size_t limitBytes = 1 << 20;
    std::array<char, 16384> chunk;
    for (size_t taken = 0; source.get() >= 0 && taken < limitBytes;) {
        const ssize_t count = read(source.get(), chunk.data(), chunk.size());
        if (count > 0) {
            into.append(chunk.data(), static_cast<size_t>(count));
            taken += static_cast<size_t>(count);
        } else if (count == 0) {
            source.close();
        } else if (errno != EINTR) {
            return;
        }
    }
}

}  // namespace kavri::base
