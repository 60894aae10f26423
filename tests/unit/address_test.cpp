// Where the broker is looked for, and which paths cannot be a socket's.
#define BOOST_TEST_MODULE address

#include "wire/address.h"

#include <boost/test/unit_test.hpp>
#include <filesystem>
#include <fstream>

#include "process/temporary_folder.h"
#include "support/environment_variable.h"

using kavri::process::TemporaryFolder;
using kavri::tests::EnvironmentVariable;
using kavri::wire::addressError;
using kavri::wire::brokerAddress;

namespace {

const std::string lastResort = "/run/kavri/broker.sock";

// Neither variable is set, and there is a folder for the run-time one to name.
struct BareEnvironment {
    EnvironmentVariable broker{"KAVRI_BROKER", std::nullopt};
    EnvironmentVariable runtime{"XDG_RUNTIME_DIR", std::nullopt};
    TemporaryFolder folder;

    std::string makeKavriFolder() const {
        std::filesystem::create_directory(folder / "kavri");
        return folder / "kavri/broker.sock";
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(withoutAnythingItIsUnderRun, BareEnvironment) {
    BOOST_TEST(brokerAddress("") == lastResort);
}

BOOST_FIXTURE_TEST_CASE(whatIsChosenGoesBeforeAllElse, BareEnvironment) {
    makeKavriFolder();
    const EnvironmentVariable named("KAVRI_BROKER", "/named");
    const EnvironmentVariable runtimeFolder("XDG_RUNTIME_DIR", folder.path());
    BOOST_TEST(brokerAddress("/chosen") == "/chosen");
}

BOOST_FIXTURE_TEST_CASE(theVariableGoesBeforeTheRuntimeFolder, BareEnvironment) {
    makeKavriFolder();
    const EnvironmentVariable named("KAVRI_BROKER", "/named");
    const EnvironmentVariable runtimeFolder("XDG_RUNTIME_DIR", folder.path());
    BOOST_TEST(brokerAddress("") == "/named");
}

BOOST_FIXTURE_TEST_CASE(anEmptyVariableIsAsGoodAsNone, BareEnvironment) {
    const EnvironmentVariable named("KAVRI_BROKER", "");
    const EnvironmentVariable runtimeFolder("XDG_RUNTIME_DIR", "");
    BOOST_TEST(brokerAddress("") == lastResort);
}

BOOST_FIXTURE_TEST_CASE(theRuntimeFolderIsUsedWhereItHasOneForKavri, BareEnvironment) {
    const EnvironmentVariable runtimeFolder("XDG_RUNTIME_DIR", folder.path());
    BOOST_TEST(brokerAddress("") == lastResort);
    const std::string expected = makeKavriFolder();
    BOOST_TEST(brokerAddress("") == expected);
}

BOOST_FIXTURE_TEST_CASE(aFileOfThatNameIsNoFolder, BareEnvironment) {
    const EnvironmentVariable runtimeFolder("XDG_RUNTIME_DIR", folder.path());
    std::ofstream(folder / "kavri") << "a file";
    BOOST_TEST(brokerAddress("") == lastResort);
}

BOOST_AUTO_TEST_CASE(aPathMayHave107BytesAndNotOneMore) {
    BOOST_TEST(!addressError(std::string(107, 'p')).has_value());
    const auto error = addressError(std::string(108, 'p'));
    BOOST_REQUIRE(error.has_value());
    BOOST_TEST(*error == "the socket path has 108 bytes, the most is 107; choose a shorter one");
}

BOOST_AUTO_TEST_CASE(anEmptyPathIsNone) {
    BOOST_TEST(addressError("").value_or("") == "the socket path is empty");
    BOOST_TEST(!addressError("p").has_value());
}
