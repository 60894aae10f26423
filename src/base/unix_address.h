// The path of a Unix socket in the form that bind and connect take.
#ifndef KAVRI_BASE_UNIX_ADDRESS_H
#define KAVRI_BASE_UNIX_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kavri::base {

class UnixAddress {
  public:
    // The kernel's limit, less the NUL at the end.
    static constexpr std::size_t longestPathBytes = sizeof(sockaddr_un::sun_path) - 1;

    // Throws std::length_error for a path that is too long: a shortened one would name
    // another socket.
    explicit UnixAddress(std::string_view path) {
        if (path.size() > longestPathBytes) {
            throw std::length_error("too long for a socket path: " + std::string(path));
        }
        address_.sun_family = AF_UNIX;
        path.copy(address_.sun_path, path.size());
    }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static constexpr socklen_t size() { return sizeof(sockaddr_un); }

  private:
    sockaddr_un address_{};
};

}  // namespace kavri::base

#endif
