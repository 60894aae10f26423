// Attacks on a broker, each by processes of their own, and a bystander who measures
// what an honest peer notices of them.
//
// An attacker runs until its owner is destroyed; if the program that started it
// dies, the kernel ends the attacker too. It may act as another user where this
// program runs as root.
#ifndef KAVRI_TESTS_SUPPORT_ATTACK_H
#define KAVRI_TESTS_SUPPORT_ATTACK_H

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/raw_peer.h"

namespace kavri::tests {

inline constexpr uid_t nobody = 65534;
inline bool isRoot() {
    return ::geteuid() == 0;
}

// Gives up this process' user for good.
inline void becomeUser(uid_t user) {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
        ::setresuid(user, user, user) != 0) {
        throw std::system_error(errno, std::generic_category(), "becoming another user");
    }
}

// A process that runs `attack` again and again.
class Attacker {
  public:
    template <typename Attack>
    explicit Attacker(Attack attack, std::optional<uid_t> user = std::nullopt)
        : process_(::fork()) {
        if (process_ < 0) {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (process_ == 0) {
            run(std::move(attack), user);
        }
    }
    Attacker(Attacker&& other) noexcept : process_(std::exchange(other.process_, -1)) {}
    Attacker& operator=(Attacker&&) = delete;
    ~Attacker() {
        if (process_ > 0) {
            ::kill(process_, SIGKILL);
            ::waitpid(process_, nullptr, 0);
        }
    }

  private:
    template <typename Attack>
    [[noreturn]] static void run(Attack attack, std::optional<uid_t> user) {
        try {
            if (user) {
                becomeUser(*user);
            }
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            while (true) {
                attack();
            }
        } catch (const std::exception&) {
        }
        ::_exit(1);
    }

    pid_t process_;
};

// Connects and closes at once.
inline void connectAndClose(const std::string& path) {
    const base::Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const base::UnixAddress address(path);
    (void)::connect(made.get(), address.get(), address.size());
}

// A connection that sends the same bytes without end and discards what comes back.
class Flood {
  public:
    Flood(const std::string& path, std::string_view role, std::string bytes)
        : peer_(path, role), bytes_(std::move(bytes)) {
        peer_.makeNonBlocking();
    }
    explicit Flood(RawPeer peer, std::string bytes)
        : peer_(std::move(peer)), bytes_(std::move(bytes)) {
        peer_.makeNonBlocking();
    }

    int descriptor() const { return peer_.descriptor(); }
    void go() {
        peer_.discard();
        sent_ += peer_.writeSome(std::string_view(bytes_).substr(sent_));
        sent_ = sent_ == bytes_.size() ? 0 : sent_;
    }

  private:
    RawPeer peer_;
    std::string bytes_;
    std::size_t sent_ = 0;
};

// Goes on with those floods that can, and sleeps while none can.
inline void goOn(std::vector<Flood>& floods) {
    std::vector<pollfd> waited;
    for (const Flood& flood : floods) {
        waited.push_back({flood.descriptor(), POLLIN | POLLOUT, 0});
    }
    ::poll(waited.data(), waited.size(), -1);
    for (std::size_t i = 0; i < floods.size(); ++i) {
        if (waited[i].revents != 0) {
            floods[i].go();
        }
    }
}

// A process with so many connections, each of which sends the same bytes without end.
inline Attacker floodingAttacker(const std::string& path, std::size_t connections,
                                 const std::string& role, const std::string& bytes) {
    return Attacker([=, floods = std::vector<Flood>()]() mutable {
        while (floods.size() < connections) {
            floods.emplace_back(path, role, bytes);
        }
        goOn(floods);
    });
}

inline std::string repeated(const std::string& bytes, std::size_t times) {
    std::string all;
    for (std::size_t i = 0; i < times; ++i) {
        all += bytes;
    }
    return all;
}

struct RoundTrips {
    std::vector<std::chrono::nanoseconds> times;

    double medianUs() {
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return static_cast<double>(middle->count()) / 1000.0;
    }
    double longestMs() const {
        return static_cast<double>(std::max_element(times.begin(), times.end())->count()) / 1e6;
    }
};

// A connection that was there before the attack. Throws where a pong does not
// come within the patience.
class Bystander {
  public:
    explicit Bystander(const std::string& path) : peer_(path, "initiator") {}

    std::chrono::nanoseconds ping() {
        const auto begin = std::chrono::steady_clock::now();
        peer_.send(makeFrame(FrameType::ping, ++token_));
        while (peer_.expect(FrameType::pong).values.token != token_) {
        }
        return std::chrono::steady_clock::now() - begin;
    }
    RoundTrips pings(std::size_t count) {
        RoundTrips trips;
        for (std::size_t i = 0; i < count; ++i) {
            trips.times.push_back(ping());
        }
        return trips;
    }

  private:
    RawPeer peer_;
    std::uint64_t token_ = 0;
};

}  // namespace kavri::tests

#endif
