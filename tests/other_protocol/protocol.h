// Another way to carry requests, responses and events than kavri's: packets on a
// SOCK_SEQPACKET socket, each a list of texts that end in NUL, of which the first is the kind:
//
//     request CATEGORY IDENTIFIER UUID PAYLOAD       to the broker
//     request CONNECTION PROCESS and the same        from the broker to the service
//     answer CONNECTION CATEGORY IDENTIFIER UUID PAYLOAD     from the service
//     answer CATEGORY IDENTIFIER UUID PAYLOAD        to the initiator
//     event CATEGORY IDENTIFIER PAYLOAD              from the service, and to the subscribers
//     subscribe CATEGORY, unsubscribe CATEGORY       answered by "done"
//     serve                                          who sends it is the service
#ifndef KAVRI_TESTS_OTHER_PROTOCOL_PROTOCOL_H
#define KAVRI_TESTS_OTHER_PROTOCOL_PROTOCOL_H

#include <sys/socket.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/unix_address.h"

namespace kavri::other_protocol {

using Packet = std::vector<std::string>;

inline bool sendPacket(int socket, const Packet& packet) {
    std::string bytes;
    for (const std::string& text : packet) {
        bytes.append(text).push_back('\0');
    }
    return send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
}

// Waits for one; nothing at the end of the connection.
inline std::optional<Packet> receivePacket(int socket) {
    std::array<char, 65536> bytes;
    const ssize_t count = recv(socket, bytes.data(), bytes.size(), 0);
    if (count <= 0) {
        return std::nullopt;
    }
    Packet packet;
    std::string_view rest(bytes.data(), static_cast<std::size_t>(count));
    for (size_t end = rest.find('\0'); end != std::string_view::npos; end = rest.find('\0')) {
        packet.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    return packet;
}

// Not open where nobody listens there.
inline base::Descriptor connectTo(const std::string& path) {
    base::Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const base::UnixAddress address(path);
    if (connect(socket.get(), address.get(), base::UnixAddress::size()) != 0) {
        socket.close();
    }
    return socket;
}

}  // namespace kavri::other_protocol

#endif
