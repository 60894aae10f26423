// Names that the dynamic loader's lists can hold, for paths that they cannot.
#define BOOST_TEST_MODULE loaderPaths

#include "conformance/loading/loader_paths.h"

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "process/exit_status.h"
#include "process/temporary_folder.h"
#include "support/environment_variable.h"

using kavri::conformance::LoaderPaths;
using kavri::process::CommandFailure;
using kavri::process::TemporaryFolder;
namespace fs = std::filesystem;

BOOST_AUTO_TEST_SUITE(loaderPaths)

BOOST_AUTO_TEST_CASE(anOrdinaryPathIsItsOwnName) {
    BOOST_TEST(LoaderPaths().nameFor("/opt/a-b_c+1.0/libx.so") == "/opt/a-b_c+1.0/libx.so");
    BOOST_TEST(LoaderPaths().nameFor("") == "");
}

BOOST_AUTO_TEST_CASE(anyOtherGetsALink) {
    const TemporaryFolder folder;
    const kavri::tests::EnvironmentVariable place("TMPDIR", folder.path().string());
    {
        LoaderPaths paths;
        for (const char* name : {"a b", "a:b", "a;b", "$LIB", "a\nb", "a\tb"}) {
            const fs::path file = folder / name;
            std::ofstream(file) << name;
            const fs::path link = paths.nameFor(file);
            BOOST_TEST(link.string().find_first_of(" :;$\n\t") == std::string::npos, link);
            BOOST_TEST(fs::equivalent(link, file));
            fs::remove(file);
        }
    }
    BOOST_TEST(fs::is_empty(folder.path()));
}

BOOST_AUTO_TEST_CASE(wherePlaceForTheLinkIsNoBetterThatIsTold) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "with blank");
    const kavri::tests::EnvironmentVariable place("TMPDIR", folder / "with blank");
    BOOST_CHECK_EXCEPTION(
        LoaderPaths().nameFor("/a b"), CommandFailure, [](const CommandFailure& failure) {
            return std::string(failure.what()).find("set TMPDIR") != std::string::npos;
        });
}

BOOST_AUTO_TEST_SUITE_END()
