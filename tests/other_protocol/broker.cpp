// The broker of the other protocol: carries packets between initiators and one service.
//
// Usage: other-broker SOCKET
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "other_protocol/protocol.h"

namespace {

using namespace kavri;
using namespace kavri::other_protocol;

class Broker {
  public:
    explicit Broker(base::Descriptor listener) : listener_(std::move(listener)) {}

    void run() {
        while (true) {
            std::vector<pollfd> sources = {{listener_.get(), POLLIN, 0}};
            for (const auto& [number, peer] : peers_) {
                sources.push_back({peer.socket.get(), POLLIN, 0});
                sources.back().revents = 0;
            }
            std::vector<int> numbers;
            std::ranges::transform(peers_, std::back_inserter(numbers),
                                   [](const auto& peer) { return peer.first; });
            poll(sources.data(), sources.size(), -1);
            if (sources[0].revents != 0) {
                accept();
            }
            for (size_t i = 0; i < numbers.size(); ++i) {
                if (sources[i + 1].revents != 0) {
                    handle(numbers[i]);
                }
            }
        }
    }

  private:
    struct Peer {
        base::Descriptor socket;
        pid_t process = 0;
        std::set<std::string> subscriptions;
    };

    void accept() {
        base::Descriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ucred credentials{};
        socklen_t size = sizeof credentials;
        getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size);
        peers_[++lastNumber_] = {std::move(socket), credentials.pid, {}};
    }

    void handle(int number) {
        Peer& peer = peers_.at(number);
        const std::optional<Packet> packet = receivePacket(peer.socket.get());
        if (!packet) {
            peers_.erase(number);
            return;
        }
        const std::string& kind = packet->front();
        if (kind == "serve") {
            service_ = number;
            sendPacket(peer.socket.get(), {"done"});
        } else if (kind == "request" && peers_.contains(service_)) {
            Packet forwarded = {"request", std::to_string(number), std::to_string(peer.process)};
            forwarded.insert(forwarded.end(), packet->begin() + 1, packet->end());
            sendPacket(peers_.at(service_).socket.get(), forwarded);
        } else if (kind == "answer") {
            Packet answer = {"answer"};
            answer.insert(answer.end(), packet->begin() + 2, packet->end());
            sendTo(std::stoi((*packet)[1]), answer);
        } else if (kind == "event") {
            publish(*packet);
        } else if (kind == "subscribe") {
            peer.subscriptions.insert((*packet)[1]);
            sendPacket(peer.socket.get(), {"done"});
        } else if (kind == "unsubscribe") {
            peer.subscriptions.erase((*packet)[1]);
            sendPacket(peer.socket.get(), {"done"});
        }
    }

    void publish(const Packet& event) {
        for (const auto& [number, peer] : peers_) {
            if (peer.subscriptions.contains(event[1])) {
                sendPacket(peer.socket.get(), event);
            }
        }
    }

    // Who has left meanwhile gets nothing.
    void sendTo(int number, const Packet& packet) {
        if (const auto peer = peers_.find(number); peer != peers_.end()) {
            sendPacket(peer->second.socket.get(), packet);
        }
    }

    base::Descriptor listener_;
    std::map<int, Peer> peers_;
    int lastNumber_ = 0;
    int service_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    base::Descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const base::UnixAddress address(argc == 2 ? argv[1] : "");
    if (argc != 2 || bind(listener.get(), address.get(), base::UnixAddress::size()) != 0 ||
        listen(listener.get(), 16) != 0) {
        std::perror("other-broker SOCKET");
        return 1;
    }
    std::fputs("ready\n", stderr);
    Broker(std::move(listener)).run();
}
