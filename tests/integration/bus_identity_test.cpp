// How a bus and a server show each other who they are: encryption, passwords, keys; and
// what is said of files that do not serve.
#define BOOST_TEST_MODULE bus_identity

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/nats_server.h"
#include "support/pumped_bus.h"
#include "support/stalling_relay.h"

using namespace kavri;
using namespace kavri::tests;

namespace {

void openssl(std::vector<std::string> arguments) {
    process::ChildProcess program({.program = "openssl", .arguments = std::move(arguments)});
    const auto exit = program.wait(patience);
    BOOST_REQUIRE_MESSAGE(exit && exit->succeeded(), program.error());
}

// An authority, and certificates that it signs.
class Authority {
  public:
    explicit Authority(std::filesystem::path folder, const std::string& name = "authority")
        : folder_(std::move(folder)),
          certificate_(folder_ / (name + ".pem")),
          key_(folder_ / (name + ".key")) {
        openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-subj", "/CN=" + name, "-days", "2", "-keyout", key_, "-out", certificate_});
    }

    const std::string& certificate() const { return certificate_; }
    const std::string& key() const { return key_; }

    // NAME.pem and NAME.key, for the names after that: "IP:127.0.0.1".
    void sign(const std::string& name, const std::string& alternatives) const {
        const std::string request = folder_ / (name + ".csr");
        const std::string extensions = folder_ / (name + ".ext");
        std::ofstream(extensions) << "subjectAltName=" << alternatives << "\n";
        openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                 "/CN=" + name, "-keyout", folder_ / (name + ".key"), "-out", request});
        openssl({"x509", "-req", "-in", request, "-CA", certificate_, "-CAkey", key_,
                 "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out",
                 folder_ / (name + ".pem")});
    }

  private:
    std::filesystem::path folder_;
    std::string certificate_;
    std::string key_;
};

struct Encrypted {
    process::TemporaryFolder folder;
    Authority authority{folder.path()};

    std::string file(const std::string& name) const { return folder / name; }
    std::string settings(const std::string& certificate, const std::string& further = {}) const {
        return "tls { cert_file: \"" + file(certificate + ".pem") + "\", key_file: \"" +
               file(certificate + ".key") + "\"" + further + " }\n";
    }
    broker::BusOptions to(std::string address) const {
        broker::BusOptions options;
        options.servers = {std::move(address)};
        options.authorityFile = authority.certificate();
        return options;
    }
};

bool connects(const broker::BusOptions& options) {
    PumpedBus bus(options);
    return bus.comesUp();
}

// Why the first attempt fails; empty where the bus connects.
std::string failure(const broker::BusOptions& options) {
    PumpedBus bus(options);
    BOOST_REQUIRE(
        bus.until([&] { return bus->connection().isUp || !bus->connection().failure.empty(); }));
    return bus->connection().failure;
}

void says(const std::string& text, const std::string& part) {
    BOOST_TEST(text.find(part) != std::string::npos, "\"" << text << "\" without " << part);
}

// What is said of options before anything is connected.
std::string complaint(const broker::BusOptions& options) {
    try {
        broker::loadBus(options);
    } catch (const broker::BadBusOptions& error) {
        return error.what();
    }
    return {};
}

broker::BusOptions anywhere() {
    broker::BusOptions options;
    options.servers = {"nats://127.0.0.1:4222"};
    return options;
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(aServerOfTheAuthorityIsConnectedTo, Encrypted) {
    authority.sign("server", "IP:127.0.0.1,DNS:localhost");
    const NatsServer server(folder.path(), settings("server"));
    BOOST_TEST(connects(to(server.address("tls"))));
    BOOST_TEST(connects(to(server.address("nats"))));
    BOOST_TEST(connects(to("tls://localhost:" + server.port())));
}

BOOST_FIXTURE_TEST_CASE(aServerOfAnotherAuthorityIsNot, Encrypted) {
    const Authority other(folder.path(), "other");
    other.sign("server", "IP:127.0.0.1");
    const NatsServer server(folder.path(), settings("server"));
    says(failure(to(server.address("tls"))), "unable to get local issuer certificate");
}

BOOST_FIXTURE_TEST_CASE(aServerOfAnotherNameIsNot, Encrypted) {
    authority.sign("server", "DNS:elsewhere.example,IP:127.0.0.2");
    const NatsServer server(folder.path(), settings("server"));
    says(failure(to(server.address("tls"))), "IP address mismatch");
    says(failure(to("tls://localhost:" + server.port())), "hostname mismatch");
}

BOOST_FIXTURE_TEST_CASE(aServerWithoutEncryptionIsNotTalkedTo, Encrypted) {
    const NatsServer server(folder.path());
    BOOST_TEST(!failure(to(server.address("tls"))).empty());
    BOOST_TEST(!failure(to(server.address("nats"))).empty());
}

BOOST_FIXTURE_TEST_CASE(aCertificateOfOurOwnIsShown, Encrypted) {
    authority.sign("server", "IP:127.0.0.1");
    authority.sign("broker", "DNS:broker.example");
    const NatsServer server(
        folder.path(),
        settings("server", ", ca_file: \"" + authority.certificate() + "\", verify: true"));
    broker::BusOptions options = to(server.address("tls"));
    BOOST_TEST(!failure(options).empty());
    options.certificateFile = file("broker.pem");
    options.keyFile = file("broker.key");
    BOOST_TEST(connects(options));
}

// As without encryption: what the kernel does not take is written later, all of it.
BOOST_FIXTURE_TEST_CASE(muchIsCarriedEncrypted, Encrypted) {
    authority.sign("server", "IP:127.0.0.1");
    NatsServer server(folder.path(), settings("server"));
    PumpedBus near(to(server.address("tls")));
    PumpedBus far(to(server.address("tls")));
    far->subscribe("much");
    BOOST_REQUIRE(near.comesUp());
    BOOST_REQUIRE(far.comesUp());
    BOOST_REQUIRE(far.until([&] {
        near->publish("much", "again");
        near->flush();
        return !far.received.empty();
    }));
    server.suspend();
    std::vector<std::string> sent;
    while (near->queuedBytes() < (4U << 20U)) {
        sent.emplace_back(50'000 + sent.size(), static_cast<char>('a' + sent.size() % 26));
        BOOST_REQUIRE(near->publish("much", sent.back()));
        near->flush();
    }
    server.resume();
    BOOST_REQUIRE(far.until([&] {
        near.handle(0);
        return far.received.back().data == sent.back();
    }));
    BOOST_REQUIRE(far.received.size() >= sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        const std::string& data = far.received.at(far.received.size() - sent.size() + i).data;
        BOOST_REQUIRE(data == sent[i]);
    }
    BOOST_TEST(near->connection().times == 1U);
    BOOST_TEST(far->connection().times == 1U);
}

// The rest of it may never come, and the broker has others to serve.
BOOST_FIXTURE_TEST_CASE(halfOfAnEncryptedMessageIsNotWaitedFor, Encrypted) {
    authority.sign("server", "IP:127.0.0.1");
    const NatsServer server(folder.path(), settings("server"));
    StallingRelay relay(server.port());
    PumpedBus bus(to("tls://127.0.0.1:" + relay.port()));
    BOOST_REQUIRE(bus.comesUp());
    relay.stall();
    BOOST_REQUIRE(bus.until([&] { return relay.hasStalled(); }));
    const auto begin = std::chrono::steady_clock::now();
    BOOST_REQUIRE(bus.goesDown());
    BOOST_TEST((std::chrono::steady_clock::now() - begin < std::chrono::seconds(10)));
    BOOST_TEST(bus->connection().failure.find("127.0.0.1") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(aPasswordIsTheFirstLineOfItsFile) {
    const process::TemporaryFolder folder;
    const NatsServer server(folder.path(), "authorization { user: u, password: 'p \"q\\' }\n");
    broker::BusOptions options;
    options.servers = {server.address()};
    says(failure(options), "Authorization Violation");
    options.user = "u";
    options.passwordFile = folder / "password";
    std::ofstream(options.passwordFile) << "p \"q\\\nanother line\n";
    BOOST_TEST(connects(options));
    std::ofstream(options.passwordFile) << "wrong";
    says(failure(options), "Authorization Violation");
}

// Of a user that was made up for this test.
BOOST_AUTO_TEST_CASE(aKeyIsProvedByItsSeed) {
    const std::string key = "UD6OU4D3CIOGIDZVL4ANXU3NWXOW5DCDE2YPZDBHPBXCVKHSODUA4FKI";
    const std::string seed = "SUAEL6GG2L2HIF7DUGZJGMRUFKXELGGYFMHF76UO2AYBG3K4YLWR3FKC2Q";
    const process::TemporaryFolder folder;
    const NatsServer server(folder.path(), "authorization { users = [ { nkey: " + key + " } ] }\n");
    broker::BusOptions options;
    options.servers = {server.address()};
    options.nkey = key;
    options.nkeySeedFile = folder / "seed";
    std::ofstream(options.nkeySeedFile) << seed << "\n";
    BOOST_TEST(connects(options));
}

BOOST_AUTO_TEST_CASE(filesThatDoNotServeAreNamed) {
    const process::TemporaryFolder folder;
    const std::string missing = folder / "missing";
    const std::string garbage = folder / "garbage";
    std::ofstream(garbage) << "\nnothing of use\n";

    const auto with = [](auto set) {
        broker::BusOptions options = anywhere();
        set(options);
        return complaint(options);
    };
    BOOST_TEST(with([](auto&) {}).empty());
    for (const auto& [path, reason] : {std::pair(missing, std::string("No such file or directory")),
                                       {folder.path(), "directory"},
                                       {garbage, ""}}) {
        for (const std::string& text : {
                 with([&](auto& options) { options.authorityFile = path; }),
                 with([&](auto& options) {
                     options.certificateFile = path;
                     options.keyFile = path;
                 }),
                 with([&](auto& options) {
                     options.user = "u";
                     options.passwordFile = path;
                 }),
                 with([&](auto& options) { options.credentialsFile = path; }),
                 with([&](auto& options) {
                     options.nkey = "U";
                     options.nkeySeedFile = path;
                 }),
             }) {
            BOOST_TEST(text.starts_with(path), text);
            says(text, reason);
            BOOST_TEST(text.size() > path.size() + 4, text);
        }
    }
}

BOOST_FIXTURE_TEST_CASE(aKeyOfAnotherCertificateIsNamed, Encrypted) {
    authority.sign("one", "DNS:one.example");
    authority.sign("two", "DNS:two.example");
    broker::BusOptions options = to("tls://127.0.0.1:4222");
    options.certificateFile = file("one.pem");
    options.keyFile = file("two.key");
    says(complaint(options), options.certificateFile);
    says(complaint(options), options.keyFile);
}
