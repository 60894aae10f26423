// The configuration file: every setting, and what is said about a wrong one.
#define BOOST_TEST_MODULE config

#include "broker/config.h"

#include <pwd.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "process/temporary_folder.h"

using namespace kavri::broker;
using kavri::wire::Limits;

namespace {

struct File {
    kavri::process::TemporaryFolder folder;
    const std::string path = folder / "broker.toml";

    Config read(const std::string& text) const {
        std::ofstream(path) << text;
        return readConfig(path);
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
};

struct Setting {
    std::string name;
    std::string least;
    std::string most;
    std::int64_t (*value)(const Limits&);
};

constexpr std::int64_t mebibyte = std::int64_t{1} << 20U;
const std::string manyBytes = std::to_string(mebibyte << 20U);
const std::string manyThings = "1000000";
const std::string anHour = "3600000";

template <auto member>
std::int64_t number(const Limits& limits) {
    return static_cast<std::int64_t>(limits.*member);
}
template <auto member>
std::int64_t milliseconds(const Limits& limits) {
    return (limits.*member).count();
}

const std::vector<Setting> settings = {
    {"payload_bytes", "1", std::to_string(64 * mebibyte), number<&Limits::payloadBytes>},
    {"connections", "1", manyThings, number<&Limits::connections>},
    {"connections_per_user", "1", manyThings, number<&Limits::connectionsPerUser>},
    {"send_queue_bytes", "65536", manyBytes, number<&Limits::sendQueueBytes>},
    {"bytes_per_user", "65536", manyBytes, number<&Limits::bytesPerUser>},
    {"drain_bytes_per_second", "1", manyBytes, number<&Limits::drainBytesPerSecond>},
    {"stall_ms", "0", anHour, milliseconds<&Limits::stallTime>},
    {"open_requests_per_initiator", "1", manyThings, number<&Limits::openRequestsPerInitiator>},
    {"open_requests_per_responder", "1", manyThings, number<&Limits::openRequestsPerResponder>},
    {"subscriptions_per_initiator", "0", manyThings, number<&Limits::subscriptionsPerInitiator>},
    {"handshake_ms", "1", anHour, milliseconds<&Limits::handshakeTime>},
    {"progress_ms", "1", anHour, milliseconds<&Limits::progressTime>},
};

std::vector<std::int64_t> valuesOf(const Limits& limits) {
    std::vector<std::int64_t> values;
    for (const Setting& setting : settings) {
        values.push_back(setting.value(limits));
    }
    return values;
}

const std::string noSuchUser = "no-user-has-this-name";

}  // namespace

BOOST_AUTO_TEST_SUITE(defaults)

BOOST_AUTO_TEST_CASE(onlyRootAndTheBrokersOwnUserMayConnectOrManage) {
    const Policy policy = defaultConfig().policy;
    for (const Users& users : {policy.connect, policy.manage}) {
        BOOST_TEST(users.contains(0));
        BOOST_TEST(users.contains(geteuid()));
        BOOST_TEST(!users.contains(geteuid() + 1));
        BOOST_TEST(!users.everybody);
    }
}

BOOST_AUTO_TEST_CASE(whoMayConnectMayDoTheRest) {
    const Policy policy = defaultConfig().policy;
    for (const uid_t user : {0U, 1000U, 65534U}) {
        BOOST_TEST(policy.at("anything").serve.contains(user));
        BOOST_TEST(policy.at("anything").send.contains(user));
        BOOST_TEST(policy.at("anything").subscribe.contains(user));
    }
}

BOOST_FIXTURE_TEST_CASE(anEmptyFileChangesNothing, File) {
    for (const char* text : {"", "# a comment\n", "[limits]\n[access]\n"}) {
        const Config config = read(text);
        BOOST_TEST(valuesOf(config.limits) == valuesOf(Limits{}), boost::test_tools::per_element());
        BOOST_TEST(config.policy.connect.listed == defaultConfig().policy.connect.listed);
        BOOST_TEST(config.policy.categories.empty());
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(thePackagedFile, File)

const std::string packaged = KAVRI_SOURCE_DIR "/packaging/broker.toml";

BOOST_AUTO_TEST_CASE(changesNothing) {
    const Config config = readConfig(packaged);
    BOOST_TEST(valuesOf(config.limits) == valuesOf(Limits{}), boost::test_tools::per_element());
    BOOST_TEST(config.policy.connect.listed == defaultConfig().policy.connect.listed);
    BOOST_TEST(!config.policy.connect.everybody);
    BOOST_TEST(config.policy.categories.empty());
}

// "#name" is a setting, "# word" is not.
BOOST_AUTO_TEST_CASE(showsEveryLimitWithItsDefaultAndExamplesThatCanBeRead) {
    std::ifstream file(packaged);
    std::string text;
    for (std::string line; std::getline(file, line);) {
        const bool isSetting = line.starts_with("#") && line.size() > 1 && line[1] != ' ';
        text += (isSetting ? line.substr(1) : line) + "\n";
    }
    const Config config = read(text);
    BOOST_TEST(valuesOf(config.limits) == valuesOf(Limits{}), boost::test_tools::per_element());
    for (const Setting& setting : settings) {
        BOOST_TEST(text.find("\n" + setting.name + " = ") != std::string::npos, setting.name);
    }
    BOOST_TEST(config.policy.connect.contains(1000));
    BOOST_TEST(!config.policy.at("weather").serve.contains(1000));
    BOOST_TEST(config.policy.at("weather").send.contains(1000));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(limits)

BOOST_FIXTURE_TEST_CASE(eachSettingSetsItsLimitAndNoOther, File) {
    for (std::size_t i = 0; i < settings.size(); ++i) {
        std::vector<std::int64_t> expected = valuesOf(Limits{});
        expected[i] = 70'001;
        const Config config = read("[limits]\n" + settings[i].name + " = 70001\n");
        BOOST_TEST_CONTEXT(settings[i].name) {
            BOOST_TEST(valuesOf(config.limits) == expected, boost::test_tools::per_element());
        }
    }
}

BOOST_FIXTURE_TEST_CASE(everySettingReachesFromItsLeastToItsMost, File) {
    for (const Setting& setting : settings) {
        for (const std::string& value : {setting.least, setting.most}) {
            const Config config = read("[limits]\n" + setting.name + " = " + value + "\n");
            BOOST_TEST(std::to_string(setting.value(config.limits)) == value);
        }
    }
}

BOOST_FIXTURE_TEST_CASE(whatIsOutOfRangeIsRefusedAndTheRangeTold, File) {
    for (const Setting& setting : settings) {
        const std::string expected = "2: " + setting.name + " is to be a whole number from " +
                                     setting.least + " to " + setting.most;
        const std::string below = std::to_string(std::stoll(setting.least) - 1);
        const std::string above = std::to_string(std::stoll(setting.most) + 1);
        for (const std::string& value :
             {below, above, std::string("-9223372036854775808"), std::string("9223372036854775807"),
              std::string("1.5"), std::string("\"100000\""), std::string("true"),
              std::string("[100000]")}) {
            BOOST_TEST(complaint("[limits]\n" + setting.name + " = " + value + "\n") == expected);
        }
    }
}

BOOST_FIXTURE_TEST_CASE(aLimitThatIsNoneIsToldWithThoseThatAre, File) {
    const std::string told = complaint("[limits]\nconnections = 10\nconnection = 10\n");
    BOOST_TEST(told.starts_with("3: unknown limit \"connection\": there are payload_bytes, "),
               told);
    for (const Setting& setting : settings) {
        BOOST_TEST(told.find(setting.name) != std::string::npos);
    }
}

BOOST_FIXTURE_TEST_CASE(limitsIsATable, File) {
    BOOST_TEST(complaint("limits = 5\n") == "1: limits is to be a table: [limits]");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(rights)

BOOST_FIXTURE_TEST_CASE(usersAreGivenByNumber, File) {
    const Users connect = read("[access]\nconnect = [1001, 1002]\n").policy.connect;
    BOOST_TEST(connect.contains(1001));
    BOOST_TEST(connect.contains(1002));
    BOOST_TEST(!connect.contains(1003));
    BOOST_TEST(!connect.everybody);
}

BOOST_FIXTURE_TEST_CASE(whoMayConnectAndWhoMayManageAreTwoThings, File) {
    const Policy policy = read("[access]\nconnect = [\"*\"]\nmanage = [1001]\n").policy;
    BOOST_TEST(policy.connect.contains(1002));
    BOOST_TEST(policy.manage.contains(1001));
    BOOST_TEST(!policy.manage.contains(1002));
}

BOOST_FIXTURE_TEST_CASE(usersAreGivenByName, File) {
    const passwd* self = getpwuid(geteuid());
    BOOST_REQUIRE(self != nullptr);
    const std::string name = self->pw_name;
    const auto config =
        read("[access.category.\"test\"]\nserve = [\"root\"]\nsend = [\"" + name + "\"]\n");
    const CategoryPolicy& rights = config.policy.at("test");
    BOOST_TEST(rights.serve.listed == std::set<uid_t>{0});
    BOOST_TEST(rights.send.listed == std::set<uid_t>{geteuid()});
    BOOST_TEST(!rights.serve.contains(4242));
}

BOOST_FIXTURE_TEST_CASE(aStarIsEverybody, File) {
    const Policy policy = read("[access]\nconnect = [\"*\"]\n").policy;
    BOOST_TEST(policy.connect.contains(4242));
    const Policy mixed = read("[access]\nconnect = [1001, \"*\"]\n").policy;
    BOOST_TEST(mixed.connect.contains(4242));
}

BOOST_FIXTURE_TEST_CASE(theBrokersOwnUserAndRootStayWhoeverIsListed, File) {
    for (const char* list : {"[1001]", "[]"}) {
        const Policy policy =
            read("[access]\nconnect = " + std::string(list) + "\nmanage = " + list + "\n").policy;
        for (const Users& users : {policy.connect, policy.manage}) {
            BOOST_TEST(users.contains(0));
            BOOST_TEST(users.contains(geteuid()));
        }
    }
}

BOOST_FIXTURE_TEST_CASE(eachRightOfACategoryIsSetByItself, File) {
    const Policy policy = read(
                              "[access.category.\"one\"]\nserve = [1001]\n"
                              "[access.category.\"two\"]\nsend = [1001]\n"
                              "[access.category.\"three\"]\nsubscribe = [1001]\n"
                              "[access.category.\"none\"]\nsend = []\n")
                              .policy;
    BOOST_TEST(!policy.at("one").serve.contains(1002));
    BOOST_TEST(policy.at("one").serve.contains(1001));
    BOOST_TEST(policy.at("one").send.contains(1002));
    BOOST_TEST(policy.at("one").subscribe.contains(1002));
    BOOST_TEST(!policy.at("two").send.contains(1002));
    BOOST_TEST(policy.at("two").serve.contains(1002));
    BOOST_TEST(!policy.at("three").subscribe.contains(1002));
    BOOST_TEST(policy.at("three").send.contains(1002));
    BOOST_TEST(!policy.at("none").send.contains(0));
    BOOST_TEST(policy.at("another").serve.contains(1002));
}

BOOST_FIXTURE_TEST_CASE(aUserThatIsNotThereIsToldWithTheLine, File) {
    BOOST_TEST(complaint("[access]\nconnect = [\n  1001,\n  \"" + noSuchUser + "\",\n]\n") ==
               "4: there is no user \"" + noSuchUser + "\" here: give a name, a number or \"*\"");
    for (const char* entry : {"true", "1.5", "\"\"", "[1001]"}) {
        BOOST_TEST(complaint("[access]\nconnect = [" + std::string(entry) + "]\n") ==
                   "2: there is no user \"\" here: give a name, a number or \"*\"");
    }
}

// A number that is cut down to fit would let somebody else in.
BOOST_FIXTURE_TEST_CASE(aNumberThatNoUserCanHaveIsRefused, File) {
    for (const char* number : {"-1", "4294967294", "4294967295", "4294967296", "4294968297"}) {
        BOOST_TEST(complaint("[access]\nconnect = [" + std::string(number) + "]\n") ==
                   "2: " + std::string(number) + " is no user: numbers are from 0 to 4294967293");
    }
    BOOST_TEST(complaint("[access]\nconnect = [0, 4294967293]\n") == "");
}

BOOST_FIXTURE_TEST_CASE(aRightIsAList, File) {
    for (const char* value : {"\"*\"", "1001", "true"}) {
        BOOST_TEST(complaint("[access]\nconnect = " + std::string(value) + "\n") ==
                   "2: connect is to be a list of users: [\"alice\", 1001]");
        BOOST_TEST(complaint("[access.category.\"test\"]\nsend = " + std::string(value) + "\n") ==
                   "2: send is to be a list of users: [\"alice\", 1001]");
    }
}

BOOST_FIXTURE_TEST_CASE(aRightThatIsNoneIsToldWithThoseThatAre, File) {
    BOOST_TEST(complaint("[access]\nserve = [1001]\n") ==
               "2: unknown right \"serve\": there are connect, manage and category");
    BOOST_TEST(complaint("[access.category.\"test\"]\nconnect = [1001]\n") ==
               "2: unknown right \"connect\": there are serve, send and subscribe");
}

BOOST_FIXTURE_TEST_CASE(accessAndItsPartsAreTables, File) {
    BOOST_TEST(complaint("access = 5\n") == "1: access is to be a table: [access]");
    BOOST_TEST(complaint("[access]\ncategory = 5\n") ==
               "2: access.category is to be a table: [access.category]");
    BOOST_TEST(complaint("[access.category]\ntest = 5\n") ==
               "2: access.category.test is to be a table: [access.category.test]");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(files)

BOOST_FIXTURE_TEST_CASE(aTableThatIsNoneIsToldWithThoseThatAre, File) {
    BOOST_TEST(complaint("\n[limit]\nconnections = 5\n") ==
               "2: unknown table \"limit\": there are limits, access and link");
}

BOOST_FIXTURE_TEST_CASE(whatIsNoTomlIsToldWithItsLine, File) {
    const std::string told = complaint("[limits]\nconnections = \n");
    BOOST_TEST(told.starts_with("2: "), told);
    BOOST_TEST(complaint("[limits]\nconnections = 5\nconnections = 6\n").starts_with("3: "));
}

BOOST_FIXTURE_TEST_CASE(aFileThatIsNotThereIsToldByName, File) {
    const std::string missing = folder / "missing.toml";
    const auto namesIt = [&missing](const BadConfig& error) {
        return std::string(error.what()).starts_with(missing + ": ");
    };
    BOOST_CHECK_EXCEPTION(readConfig(missing), BadConfig, namesIt);
}

BOOST_FIXTURE_TEST_CASE(aFolderIsNoFile, File) {
    const auto saysSo = [this](const BadConfig& error) {
        return error.what() == folder.path().string() + ": is a folder, not a file";
    };
    BOOST_CHECK_EXCEPTION(readConfig(folder.path()), BadConfig, saysSo);
}

BOOST_AUTO_TEST_SUITE_END()
