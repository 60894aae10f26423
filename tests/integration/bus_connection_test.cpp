// A bus whose servers come and go.
#define BOOST_TEST_MODULE bus_connection

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/test/unit_test.hpp>
#include <csignal>

#include "base/descriptor.h"
#include "process/temporary_folder.h"
#include "support/nats_server.h"
#include "support/pumped_bus.h"

using namespace kavri;
using namespace kavri::tests;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// A fraction of a second, on a machine that has other things to do.
constexpr auto atOnce = 500ms;

broker::BusOptions to(std::vector<std::string> servers) {
    broker::BusOptions options;
    options.servers = std::move(servers);
    options.name = "test";
    return options;
}

// A server that takes connections, and says only what it is told to.
class SilentServer {
  public:
    SilentServer() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        BOOST_REQUIRE(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), length) == 0);
        BOOST_REQUIRE(::listen(listener_.get(), 8) == 0);
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }

    std::string address() const { return "nats://127.0.0.1:" + std::to_string(port_); }
    base::Descriptor accept() const {
        return base::Descriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

  private:
    base::Descriptor listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::uint16_t port_ = 0;
};

template <typename Action>
Clock::duration durationOf(const Action& action) {
    const auto begin = Clock::now();
    action();
    return Clock::now() - begin;
}

}  // namespace

BOOST_AUTO_TEST_CASE(subscriptionsComeBackWithTheServer) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    PumpedBus near(to({server.address()}));
    PumpedBus far(to({server.address()}));
    const auto subscription = far->subscribe("before");
    BOOST_TEST(!far->connection().isUp);
    BOOST_REQUIRE(near.comesUp());
    BOOST_REQUIRE(far.comesUp());
    BOOST_TEST(far->connection().server == server.address());

    server.kill();
    BOOST_REQUIRE(far.goesDown());
    BOOST_REQUIRE(near.goesDown());
    BOOST_TEST(far->connection().times == 1U);
    BOOST_TEST(far->connection().server.empty());
    BOOST_TEST(far->connection().failure.starts_with(server.address()), far->connection().failure);
    BOOST_TEST(!near->publish("before", "lost"));
    BOOST_TEST(near->queuedBytes() == 0U);
    const auto meanwhile = far->subscribe("meanwhile");

    server.start();
    BOOST_REQUIRE(near.comesUp(2));
    BOOST_REQUIRE(far.comesUp(2));
    // Until the server knows the subscriptions, what is published is for nobody.
    BOOST_REQUIRE(far.until([&] {
        near->publish("meanwhile", "second");
        near->flush();
        return !far.received.empty();
    }));
    BOOST_TEST((far.received[0].subscription == meanwhile));
    far.received.clear();
    BOOST_TEST(near->publish("before", "first"));
    near->flush();
    BOOST_REQUIRE(far.until(
        [&] { return !far.received.empty() && far.received.back().subject == "before"; }));
    BOOST_TEST((far.received.back().subscription == subscription));
    BOOST_TEST(far.received.back().data == "first");
}

BOOST_AUTO_TEST_CASE(anotherServerIsUsedWhenOneDies) {
    const process::TemporaryFolder one;
    const process::TemporaryFolder two;
    NatsServer first(one.path());
    NatsServer second(two.path());
    PumpedBus bus(to({first.address(), second.address()}));
    BOOST_REQUIRE(bus.comesUp());
    const bool isFirst = bus->connection().server == first.address();
    (isFirst ? first : second).kill();
    BOOST_REQUIRE(bus.comesUp(2));
    BOOST_TEST(bus->connection().server == (isFirst ? second : first).address());
}

BOOST_AUTO_TEST_CASE(aServerThatStartsLaterIsFound) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    server.kill();
    PumpedBus bus(to({server.address()}));
    BOOST_REQUIRE(bus.until([&] { return !bus->connection().failure.empty(); }));
    BOOST_TEST(bus->connection().failure.starts_with(server.address()), bus->connection().failure);
    BOOST_TEST(bus->connection().times == 0U);
    BOOST_TEST(bus->connection().mostDataBytes == 0U);
    BOOST_TEST(!bus->publish("subject", "data"));
    server.start();
    BOOST_REQUIRE(bus.comesUp());
}

BOOST_AUTO_TEST_CASE(aServerThatHangsIsNoticedInTime) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    PumpedBus bus(to({server.address()}));
    BOOST_REQUIRE(bus.comesUp());
    server.suspend();
    const auto noticing = durationOf([&] { BOOST_REQUIRE(bus.goesDown()); });
    BOOST_TEST(noticing < 3s);
    server.resume();
    BOOST_REQUIRE(bus.comesUp(2));
}

// Nothing that was written for the server that hung reaches it, or anybody, later.
BOOST_AUTO_TEST_CASE(whatWaitedForALostServerIsGone) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    PumpedBus bus(to({server.address()}));
    PumpedBus other(to({server.address()}));
    BOOST_REQUIRE(bus.comesUp());
    BOOST_REQUIRE(other.comesUp());
    server.suspend();
    const std::string data(100'000, 'd');
    while (bus->queuedBytes() < (1U << 20U)) {
        BOOST_REQUIRE(bus->publish("much", data));
        bus->flush();
    }
    BOOST_REQUIRE(bus.goesDown());
    BOOST_TEST(bus->queuedBytes() == 0U);
    BOOST_REQUIRE(other.goesDown());
    other->subscribe("much");
    server.resume();
    BOOST_REQUIRE(bus.comesUp(2));
    BOOST_REQUIRE(other.comesUp(2));
    BOOST_REQUIRE(other.until([&] {
        bus->publish("much", "new");
        bus->flush();
        return !other.received.empty() && other.received.back().data == "new";
    }));
}

BOOST_AUTO_TEST_CASE(destroyingDoesNotWaitForAServerThatIsConnectedTo) {
    const SilentServer server;
    PumpedBus bus(to({server.address()}));
    const base::Descriptor connection = server.accept();
    BOOST_REQUIRE(connection.isOpen());
    BOOST_TEST(durationOf([&] { bus.destroy(); }) < atOnce);
    // The thread that was left behind ends too.
    BOOST_TEST(eventually([&] {
        char byte = 0;
        return ::recv(connection.get(), &byte, 1, MSG_DONTWAIT) == 0;
    }));
}

BOOST_AUTO_TEST_CASE(destroyingDoesNotWaitForOneThatRefuses) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    server.kill();
    PumpedBus bus(to({server.address()}));
    BOOST_REQUIRE(bus.until([&] { return !bus->connection().failure.empty(); }));
    BOOST_TEST(durationOf([&] { bus.destroy(); }) < atOnce);
}

BOOST_AUTO_TEST_CASE(destroyingDoesNotWaitForAServerThatHangs) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    PumpedBus bus(to({server.address()}));
    BOOST_REQUIRE(bus.comesUp());
    server.suspend();
    const std::string data(100'000, 'd');
    while (bus->queuedBytes() == 0) {
        BOOST_REQUIRE(bus->publish("much", data));
        bus->flush();
    }
    BOOST_TEST(bus->publish("much", data));
    BOOST_TEST(durationOf([&] { bus.destroy(); }) < atOnce);
    server.resume();
}

BOOST_AUTO_TEST_CASE(destroyingWritesWhatTheKernelTakes) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    PumpedBus near(to({server.address()}));
    PumpedBus far(to({server.address()}));
    BOOST_REQUIRE(near.comesUp());
    BOOST_REQUIRE(far.comesUp());
    far->subscribe("farewell");
    BOOST_REQUIRE(far.until([&] {
        near->publish("farewell", "again");
        near->flush();
        return !far.received.empty();
    }));
    BOOST_TEST(near->publish("farewell", "last"));
    BOOST_TEST(durationOf([&] { near.destroy(); }) < atOnce);
    BOOST_TEST(far.until([&] { return far.received.back().data == "last"; }));
}

BOOST_AUTO_TEST_CASE(descriptorsAreClosedWithTheBus) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    {
        PumpedBus bus(to({server.address()}));  // libnats may keep some from its start on
        BOOST_REQUIRE(bus.comesUp());
    }
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 3; ++i) {
        PumpedBus bus(to({server.address()}));
        BOOST_REQUIRE(bus.comesUp());
        server.kill();
        BOOST_REQUIRE(bus.goesDown());
        server.start();
        BOOST_REQUIRE(bus.comesUp(2));
    }
    BOOST_TEST(openDescriptors() == before);
}

// The broker reads its signals from a descriptor: another thread must not take one.
BOOST_AUTO_TEST_CASE(signalsAreForNoneOfItsThreads) {
    const process::TemporaryFolder folder;
    NatsServer server(folder.path());
    PumpedBus bus(to({server.address()}));
    BOOST_REQUIRE(bus.comesUp());
    server.kill();
    BOOST_REQUIRE(bus.until([&] { return !bus->connection().failure.empty(); }));
    std::size_t checked = 0;
    const auto self = std::to_string(::getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:") && task.path().filename() != self) {
                const auto blocked = std::stoull(line.substr(7), nullptr, 16);
                for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
                    BOOST_TEST((blocked >> static_cast<unsigned>(signal - 1) & 1U) == 1U);
                }
                ++checked;
            }
        }
    }
    BOOST_TEST(checked >= 3U);
}
