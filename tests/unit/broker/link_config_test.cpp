// [link] and "@link" in the configuration: every key, and what is said about a wrong one.
#define BOOST_TEST_MODULE link_config

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/test/unit_test.hpp>
#include <climits>
#include <fstream>

#include "broker/config.h"
#include "process/temporary_folder.h"

using namespace kavri::broker;

namespace {

const std::string servers = "[link]\nservers = [\"nats://127.0.0.1:4222\"]\n";

struct File {
    kavri::process::TemporaryFolder folder;
    const std::string path = folder / "broker.toml";

    Config read(const std::string& text) const {
        std::ofstream(path) << text;
        return readConfig(path);
    }
    LinkOptions link(const std::string& further = {}) const {
        const Config config = read(servers + further);
        BOOST_REQUIRE(config.link.has_value());
        return *config.link;
    }

    // What is said about the text, without the path before it; empty when it is right.
    std::string complaint(const std::string& text) const {
        try {
            read(text);
            return {};
        } catch (const BadConfig& error) {
            const std::string what = error.what();
            BOOST_TEST(what.find('\n') == std::string::npos);
            BOOST_TEST(what.starts_with(path + ":"), what);
            return what.substr(std::min(what.size(), path.size() + 1));
        }
    }
    // What is said about the third line, which follows the servers.
    std::string complaintOf(const std::string& line) const {
        const std::string what = complaint(servers + line + "\n");
        BOOST_TEST(what.starts_with("3: "), what);
        return what.substr(std::min<std::size_t>(what.size(), 3));
    }

    std::string made(const std::string& name, mode_t mode = 0600) const {
        const std::string file = folder / name;
        std::ofstream(file) << "content\n";
        BOOST_REQUIRE(::chmod(file.c_str(), mode) == 0);
        return file;
    }
};

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

const std::string anyText = " is to be a text that is not empty";

}  // namespace

BOOST_FIXTURE_TEST_SUITE(keys, File)

BOOST_AUTO_TEST_CASE(withoutTheTableThereIsNoLink) {
    BOOST_TEST(!defaultConfig().link.has_value());
    BOOST_TEST(!read("[limits]\n").link.has_value());
}

BOOST_AUTO_TEST_CASE(onlyTheServersAreNeeded) {
    const LinkOptions options = link();
    BusOptions expected;
    expected.servers = {"nats://127.0.0.1:4222"};
    std::array<char, HOST_NAME_MAX + 1> name{};
    BOOST_REQUIRE(::gethostname(name.data(), name.size()) == 0);
    expected.name = std::string(name.data()).substr(0, 64);
    BOOST_TEST((options.bus == expected));
    BOOST_TEST(!options.isExported("test"));
    BOOST_TEST(!options.isImported("test"));
}

BOOST_AUTO_TEST_CASE(eachKeySetsItsOption) {
    const std::string authority = made("ca", 0644);
    const std::string certificate = made("cert", 0644);
    const std::string key = made("key");
    const std::string password = made("password", 0640);
    const BusOptions bus = link("name = \"alpha\"\nca = " + quoted(authority) +
                                "\ncert = " + quoted(certificate) + "\nkey = " + quoted(key) +
                                "\nuser = \"u\"\npassword_file = " + quoted(password) + "\n")
                               .bus;
    BOOST_TEST(bus.name == "alpha");
    BOOST_TEST(bus.authorityFile == authority);
    BOOST_TEST(bus.certificateFile == certificate);
    BOOST_TEST(bus.keyFile == key);
    BOOST_TEST(bus.user == "u");
    BOOST_TEST(bus.passwordFile == password);

    BOOST_TEST(link("credentials = " + quoted(key) + "\n").bus.credentialsFile == key);
    const BusOptions keyed = link("nkey = \"UABC\"\nnkey_seed = " + quoted(key) + "\n").bus;
    BOOST_TEST(keyed.nkey == "UABC");
    BOOST_TEST(keyed.nkeySeedFile == key);
}

BOOST_AUTO_TEST_CASE(serversMayBeSeveralAndEncryptedAndNameAUser) {
    const std::vector<std::string> all = {"nats://u:p@one.example:4222", "tls://two.example",
                                          "tls://[::1]:4222"};
    std::string list;
    for (const std::string& each : all) {
        list += quoted(each) + ",";
    }
    BOOST_TEST(read("[link]\nservers = [" + list + "]\n").link->bus.servers == all,
               boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(whatIsNamedIsExportedAndImported) {
    const std::string longest(512, 'c');
    const LinkOptions options =
        link("export = [\"one\", \"\\u00e4 *\", \"" + longest + "\"]\nimport = [\"two\"]\n");
    BOOST_TEST(options.isExported("one"));
    BOOST_TEST(options.isExported("\xc3\xa4 *"));
    BOOST_TEST(options.isExported(longest));
    BOOST_TEST(!options.isExported("two"));
    BOOST_TEST(options.isImported("two"));
    BOOST_TEST(!options.isImported("one"));
    BOOST_TEST(link("import = [\"*\"]\n").isImported("anything"));
}

BOOST_AUTO_TEST_CASE(aKeyThatIsNoneIsToldWithTheNearestAndAll) {
    const std::string all =
        "there are servers, name, ca, cert, key, user, password_file, credentials, nkey, "
        "nkey_seed, export, import";
    BOOST_TEST(complaintOf("exprot = []") ==
               "unknown key \"exprot\" in [link]: did you mean 'export'? " + all);
    BOOST_TEST(complaintOf("zzzzzzzz = []") == "unknown key \"zzzzzzzz\" in [link]: " + all);
    BOOST_TEST(complaint("link = 5\n") == "1: link is to be a table: [link]");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(values, File)

BOOST_AUTO_TEST_CASE(thereIsAtLeastOneServer) {
    BOOST_TEST(complaint("\n[link]\nname = \"a\"\n") ==
               "2: [link] needs servers = [\"nats://HOST:PORT\"]");
    for (const char* value : {"[]", "\"nats://127.0.0.1:4222\"", "5"}) {
        BOOST_TEST(complaint("[link]\nservers = " + std::string(value) + "\n") ==
                   "2: servers is to be a list of addresses, at least one: "
                   "[\"nats://127.0.0.1:4222\"]");
    }
}

BOOST_AUTO_TEST_CASE(anAddressHasOneOfTwoSchemesAndAHost) {
    for (const char* address : {"\"127.0.0.1:4222\"", "\"http://host:4222\"", "\"nats://\"", "\"\"",
                                "5", "\"nats://ho st\"", "\"nats://host\\n\"", "\"nats:\""}) {
        BOOST_TEST(
            complaint("[link]\nservers = [\n\"nats://host\",\n" + std::string(address) + "]\n") ==
            "4: an address of servers is nats://HOST:PORT, or with encryption "
            "tls://HOST:PORT");
    }
}

BOOST_AUTO_TEST_CASE(textsAreTextsAndNotEmpty) {
    for (const std::string key : {"name", "ca", "cert", "key", "user", "password_file",
                                  "credentials", "nkey", "nkey_seed"}) {
        for (const char* value : {"\"\"", "5", "[\"a\"]", "true"}) {
            BOOST_TEST(complaintOf(key + " = " + value) == key + anyText);
        }
    }
}

BOOST_AUTO_TEST_CASE(aNameIsShort) {
    BOOST_TEST(complaintOf("name = " + quoted(std::string(65, 'n'))) ==
               "name is to have 64 bytes at most");
    BOOST_TEST(link("name = " + quoted(std::string(64, 'n')) + "\n").bus.name.size() == 64U);
}

BOOST_AUTO_TEST_CASE(categoriesAreTextsOfALengthThatCrosses) {
    for (const std::string key : {"export", "import"}) {
        for (const std::string& value :
             {std::string("\"\""), std::string("5"), quoted(std::string(513, 'c'))}) {
            BOOST_TEST(complaintOf(key + " = [" + value + "]") ==
                       key + ": a category is a text of 1 to 512 bytes");
        }
    }
    BOOST_TEST(complaintOf("export = \"a\"") == "export is to be a list of categories");
    BOOST_TEST(complaintOf("import = \"*\"") ==
               "import is to be a list of categories, or [\"*\"] for all");
    BOOST_TEST(complaintOf("export = [\"*\"]") ==
               "export names each category: there is no \"*\" for all of them");
}

BOOST_AUTO_TEST_CASE(whatNeedsAnotherKeyIsTold) {
    const std::string file = quoted(made("file"));
    BOOST_TEST(complaintOf("cert = " + file) == "cert needs key, too");
    BOOST_TEST(complaintOf("key = " + file) == "key needs cert, too");
    BOOST_TEST(complaintOf("user = \"u\"") == "user needs password_file, too");
    BOOST_TEST(complaintOf("password_file = " + file) == "password_file needs user, too");
    BOOST_TEST(complaintOf("nkey = \"U\"") == "nkey needs nkey_seed, too");
    BOOST_TEST(complaintOf("nkey_seed = " + file) == "nkey_seed needs nkey, too");
}

BOOST_AUTO_TEST_CASE(thereIsOneWayToSayWhoThisIs) {
    const std::string file = quoted(made("file"));
    BOOST_TEST(complaintOf("credentials = " + file + "\nuser = \"u\"\npassword_file = " + file) ==
               "user and credentials are two ways to say who this is: give one");
    BOOST_TEST(complaint(servers + "credentials = " + file + "\nnkey = \"U\"\nnkey_seed = " + file +
                         "\n") ==
               "4: credentials and nkey are two ways to say who this is: give one");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(files, File)

const std::vector<std::string> secrets = {"key", "password_file", "credentials", "nkey_seed"};
const std::vector<std::string> allFiles = {"ca",          "cert",     "key", "password_file",
                                           "credentials", "nkey_seed"};

BOOST_AUTO_TEST_CASE(oneThatCannotBeReadIsNamed) {
    const std::string missing = folder / "missing";
    for (const std::string& key : allFiles) {
        BOOST_TEST(complaintOf(key + " = " + quoted(missing)) ==
                   key + ": " + missing + ": No such file or directory");
        BOOST_TEST(complaintOf(key + " = " + quoted(folder.path())) ==
                   key + ": " + folder.path().string() + " is not a file");
        BOOST_TEST(complaintOf(key + " = \"relative\"") ==
                   key + " is to be a path that begins with \"/\"");
    }
}

BOOST_AUTO_TEST_CASE(aSecretIsNotOpenToEveryUser) {
    for (const mode_t mode : {0604U, 0602U, 0601U}) {
        const std::string file = made("open", mode);
        for (const std::string& key : secrets) {
            BOOST_TEST(complaintOf(key + " = " + quoted(file)) ==
                       key + ": " + file + " is open to every user: chmod o= " + file);
        }
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(rights, File)

BOOST_AUTO_TEST_CASE(theLinkMaySendAndSubscribeUnlessSaidOtherwise) {
    const Policy policy =
        read(
            "[access.category.\"a\"]\nserve = [\"*\", \"@link\"]\n"
            "[access.category.\"b\"]\nserve = [\"*\"]\nsend = [\"*\"]\nsubscribe = [\"*\"]\n"
            "[access.category.\"c\"]\nsend = [\"@link\"]\nsubscribe = [\"@link\"]\n")
            .policy;
    BOOST_TEST(policy.at("a").serve.contains(linkUser));
    BOOST_TEST(policy.at("a").serve.contains(1000));
    BOOST_TEST(policy.at("a").send.contains(linkUser));
    BOOST_TEST(policy.at("a").subscribe.contains(linkUser));
    BOOST_TEST(!policy.at("b").serve.contains(linkUser));
    BOOST_TEST(!policy.at("b").send.contains(linkUser));
    BOOST_TEST(!policy.at("b").subscribe.contains(linkUser));
    BOOST_TEST(policy.at("c").send.contains(linkUser));
    BOOST_TEST(!policy.at("c").send.contains(1000));
    BOOST_TEST(policy.at("c").subscribe.contains(linkUser));
    BOOST_TEST(!policy.at("another").serve.contains(linkUser));
    BOOST_TEST(policy.at("another").send.contains(linkUser));
}

BOOST_AUTO_TEST_CASE(theLinkNeitherConnectsNorManages) {
    for (const std::string right : {"connect", "manage"}) {
        BOOST_TEST(complaint("[access]\n" + right + " = [\"@link\"]\n") ==
                   "2: \"@link\" may be in serve, send and subscribe of a category only");
    }
}

BOOST_AUTO_TEST_CASE(whatIsImportedAndServedByNobodyIsDoubtful) {
    const auto doubts = [this](const std::string& text) { return doubtsAbout(read(text)); };
    const std::string served = "[access.category.\"a\"]\nserve = [\"@link\"]\n";
    const std::vector<std::string> one = {
        "category \"b\" is imported, but nobody of another machine may serve it: \"@link\" is not "
        "in its serve"};
    const std::vector<std::string> all = {
        "every category is imported, but of each nobody of another machine may serve it: "
        "\"@link\" is not in its serve"};
    BOOST_TEST(doubts(servers + "import = [\"a\", \"b\"]\n" + served) == one,
               boost::test_tools::per_element());
    BOOST_TEST(doubts(servers + "import = [\"*\"]\n") == all, boost::test_tools::per_element());
    BOOST_TEST(doubts(servers + "import = [\"*\"]\n" + served).empty());
    BOOST_TEST(doubts(servers + "export = [\"b\"]\n").empty());
    BOOST_TEST(doubts("").empty());
}

BOOST_AUTO_TEST_SUITE_END()
