// The bare relay: the least that any broker between processes must do, and so
// the limit that brokers are measured against.
//
// One thread, one epoll. Bytes are read in large pieces, cut into messages by a
// fixed header and passed on by a number in it: requests to the service of that
// number, responses to the client that asked, events to whoever subscribed.
// What one wake-up produced for a peer leaves in one write. There are no names,
// no rights, no limits and no answers for what goes wrong.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/unix_address.h"
#include "transports/relay_stream.h"
#include "transports/transport.h"
#include "wire/spin.h"

namespace kavri::bench {

namespace {

constexpr int backlog = 1024;
constexpr std::uint32_t noPeer = UINT32_MAX;
// From here on it pays to hand a payload to the kernel from where it was read.
constexpr std::size_t directBytes = 16UL * 1024;

struct Peer {
    int descriptor = -1;
    bool hasOutput = false;             // listed in Relay::toWrite_
    bool waitsForRoom = false;          // its socket took less than it should
    std::unique_ptr<RelayInput> begun;  // only between the parts of a message
    std::string output;
    std::size_t written = 0;  // bytes of it that are out
};

class Relay {
  public:
    Relay(const std::string& path, bool isInside, bool spins);
    [[noreturn]] void run();

  private:
    int wait();
    void handle(const epoll_event& event);
    void accept();
    void read(std::uint32_t number);
    std::unique_ptr<RelayInput> spareInput();
    void take(std::uint32_t number, const RelayMessage& message);
    void takeRequest(std::uint32_t number, const RelayMessage& message);
    void deliver(std::uint32_t to, RelayHeader header, std::string_view payload);
    std::size_t deliverDirectly(const Peer& to, std::string_view head,
                                std::string_view payload) const;
    static void tidy(Peer& peer);
    void write(std::uint32_t number);
    void watch(std::uint32_t number, std::uint32_t events, int change) const;
    void drop(std::uint32_t number);

    const bool isInside_;
    const bool spins_;
    const int listener_;
    const int epoll_;
    wire::Spin spin_;
    std::array<epoll_event, 64> ready_{};
    std::vector<Peer> peers_;
    std::vector<std::uint32_t> freeNumbers_;
    std::vector<std::uint32_t> toWrite_;
    std::vector<std::unique_ptr<RelayInput>> spareInputs_;
    std::vector<std::string> spareOutputs_;
    std::array<std::uint32_t, 4> services_{noPeer, noPeer, noPeer, noPeer};
    std::array<std::vector<std::uint32_t>, 4> subscribers_;
};

Relay::Relay(const std::string& path, bool isInside, bool spins)
    : isInside_(isInside),
      spins_(spins),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    const base::UnixAddress address(path);
    if (::bind(listener_, address.get(), address.size()) != 0 ||
        ::listen(listener_, backlog) != 0) {
        throw std::system_error(errno, std::generic_category(), "listening on " + path);
    }
    epoll_event event{EPOLLIN, {.u64 = noPeer}};
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event);
}

void Relay::run() {
    while (true) {
        const int count = wait();
        for (int i = 0; i < count; ++i) {
            handle(ready_[static_cast<std::size_t>(i)]);
        }
        for (std::size_t i = 0; i < toWrite_.size(); ++i) {
            peers_[toWrite_[i]].hasOutput = false;
            write(toWrite_[i]);
        }
        toWrite_.clear();
    }
}

int Relay::wait() {
    const auto look = [this](int timeoutMs) {
        return ::epoll_wait(epoll_, ready_.data(), static_cast<int>(ready_.size()), timeoutMs);
    };
    if (!spins_) {
        return look(-1);
    }
    int count = look(0);
    const auto attempt = [&] {
        count = look(0);
        return count > 0;
    };
    if (count == 0 && !spin_.until(attempt)) {
        const wire::Spin::Clock::time_point begin = wire::Spin::Clock::now();
        count = look(-1);
        spin_.slept(wire::Spin::Clock::now() - begin);
    }
    return count;
}

void Relay::handle(const epoll_event& event) {
    const auto number = static_cast<std::uint32_t>(event.data.u64);
    if (number == noPeer) {
        accept();
        return;
    }
    if ((event.events & EPOLLOUT) != 0) {
        write(number);
    }
    if ((event.events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
        read(number);
    }
}

void Relay::accept() {
    while (true) {
        const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor < 0) {
            return;
        }
        if (freeNumbers_.empty()) {
            freeNumbers_.push_back(static_cast<std::uint32_t>(peers_.size()));
            peers_.emplace_back();
        }
        const std::uint32_t number = freeNumbers_.back();
        freeNumbers_.pop_back();
        peers_[number].descriptor = descriptor;
        watch(number, EPOLLIN, EPOLL_CTL_ADD);
    }
}

void Relay::read(std::uint32_t number) {
    std::unique_ptr<RelayInput> input = std::move(peers_[number].begun);
    if (input == nullptr) {
        input = spareInput();
    }
    const std::span<char> room = input->room();
    const ssize_t count = ::recv(peers_[number].descriptor, room.data(), room.size(), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN)) {
        drop(number);
        return;
    }
    input->filled(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    while (const auto message = input->next()) {
        take(number, *message);
    }
    if (input->isEmpty()) {
        spareInputs_.push_back(std::move(input));
    } else {
        peers_[number].begun = std::move(input);
    }
}

std::unique_ptr<RelayInput> Relay::spareInput() {
    if (spareInputs_.empty()) {
        return std::make_unique<RelayInput>();
    }
    std::unique_ptr<RelayInput> input = std::move(spareInputs_.back());
    spareInputs_.pop_back();
    return input;
}

void Relay::take(std::uint32_t number, const RelayMessage& message) {
    const std::uint16_t service = message.header.service % 4;
    switch (message.header.kind) {
        case RelayKind::request:
            takeRequest(number, message);
            break;
        case RelayKind::response:
            deliver(message.header.client, message.header, message.payload);
            break;
        case RelayKind::event:
            for (const std::uint32_t subscriber : subscribers_[service]) {
                deliver(subscriber, message.header, message.payload);
            }
            break;
        case RelayKind::serve:
            services_[service] = number;
            deliver(number, message.header, {});
            break;
        case RelayKind::subscribe:
            subscribers_[service].push_back(number);
            break;
    }
}

void Relay::takeRequest(std::uint32_t number, const RelayMessage& message) {
    RelayHeader header = message.header;
    header.client = number;
    if (isInside_) {
        header.kind = RelayKind::response;
        deliver(number, header, message.payload);
    } else if (services_[header.service % 4] != noPeer) {
        deliver(services_[header.service % 4], header, message.payload);
    }
}

void Relay::deliver(std::uint32_t to, RelayHeader header, std::string_view payload) {
    Peer& peer = peers_[to];
    if (peer.descriptor < 0) {
        return;
    }
    header.payloadBytes = static_cast<std::uint32_t>(payload.size());
    std::string_view head(reinterpret_cast<const char*>(&header), sizeof header);
    if (payload.size() >= directBytes && peer.output.empty()) {
        const std::size_t taken = deliverDirectly(peer, head, payload);
        payload.remove_prefix(taken - std::min(taken, head.size()));
        head.remove_prefix(std::min(taken, head.size()));
        if (payload.empty()) {
            return;
        }
    }
    if (peer.output.empty() && !spareOutputs_.empty()) {
        peer.output = std::move(spareOutputs_.back());
        spareOutputs_.pop_back();
    }
    tidy(peer);
    peer.output.append(head).append(payload);
    if (!peer.hasOutput && !peer.waitsForRoom) {
        peer.hasOutput = true;
        toWrite_.push_back(to);
    }
}

// What is out already goes when it is the larger part.
void Relay::tidy(Peer& peer) {
    if (peer.written > peer.output.size() / 2) {
        peer.output.erase(0, peer.written);
        peer.written = 0;
    }
}

// How many bytes of the two went out.
std::size_t Relay::deliverDirectly(const Peer& to, std::string_view head,
                                   std::string_view payload) const {
    std::array<iovec, 2> pieces{{{const_cast<char*>(head.data()), head.size()},
                                 {const_cast<char*>(payload.data()), payload.size()}}};
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    const ssize_t count = ::sendmsg(to.descriptor, &message, MSG_NOSIGNAL);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

void Relay::write(std::uint32_t number) {
    Peer& peer = peers_[number];
    const ssize_t count = ::send(peer.descriptor, peer.output.data() + peer.written,
                                 peer.output.size() - peer.written, MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN) {
        return;  // reading will find that it is gone
    }
    peer.written += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    if (peer.written == peer.output.size()) {
        peer.written = 0;
        peer.output.clear();
        spareOutputs_.push_back(std::exchange(peer.output, {}));
    }
    if (peer.waitsForRoom == peer.output.empty()) {
        peer.waitsForRoom = !peer.output.empty();
        watch(number, peer.waitsForRoom ? EPOLLIN | EPOLLOUT : EPOLLIN, EPOLL_CTL_MOD);
    }
}

void Relay::watch(std::uint32_t number, std::uint32_t events, int change) const {
    epoll_event event{events, {.u64 = number}};
    ::epoll_ctl(epoll_, change, peers_[number].descriptor, &event);
}

void Relay::drop(std::uint32_t number) {
    ::close(peers_[number].descriptor);
    peers_[number] = Peer{};
    for (std::size_t service = 0; service < services_.size(); ++service) {
        std::erase(subscribers_[service], number);
        if (services_[service] == number) {
            services_[service] = noPeer;
        }
    }
    std::erase(toWrite_, number);
    freeNumbers_.push_back(number);
}

}  // namespace

void runRelay(const std::string& path, bool isInside, bool spins) {
    Relay(path, isInside, spins).run();
}

}  // namespace kavri::bench
