// Temporary folders: made, removed, and after a kill removed by the next.
#define BOOST_TEST_MODULE temporaryFolder

#include "process/temporary_folder.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "base/pipe.h"
#include "support/environment_variable.h"

using kavri::base::Pipe;
using kavri::process::removeAbandonedFolders;
using kavri::process::TemporaryFolder;
namespace fs = std::filesystem;

namespace {

// A folder of the test's own, in which all others are made.
struct Parent {
    TemporaryFolder folder;
    kavri::tests::EnvironmentVariable place{"TMPDIR", folder.path().string()};

    // Makes a folder in another process, which is killed.
    fs::path leftBehind() const {
        Pipe made = Pipe::make();
        const pid_t child = fork();
        if (child == 0) {
            const TemporaryFolder mine;
            std::ofstream(mine / "file") << "something";
            const std::string path = mine.path();
            static_cast<void>(!write(made.writeEnd.get(), path.data(), path.size()));
            raise(SIGKILL);
        }
        made.writeEnd.close();
        BOOST_REQUIRE(waitpid(child, nullptr, 0) == child);
        std::string path;
        kavri::base::readAvailable(made.readEnd, path);
        return path;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(temporaryFolder, Parent)

BOOST_AUTO_TEST_CASE(itIsEmptyAndGoneAfterwards) {
    {
        const TemporaryFolder made;
        BOOST_TEST(fs::is_empty(made.path()));
        std::ofstream(made / "file") << "something";
        BOOST_TEST((fs::status(made.path().parent_path()).permissions() == fs::perms::owner_all));
    }
    BOOST_TEST(fs::is_empty(folder.path()));
}

BOOST_AUTO_TEST_CASE(whatAKilledOwnerLeftIsRemoved) {
    const fs::path left = leftBehind();
    BOOST_TEST(fs::exists(left / "file"));
    removeAbandonedFolders();
    BOOST_TEST(fs::is_empty(folder.path()));
}

BOOST_AUTO_TEST_CASE(whatIsInUseIsKept) {
    const TemporaryFolder made;
    std::ofstream(made / "file") << "something";
    leftBehind();
    removeAbandonedFolders();
    BOOST_TEST(fs::exists(made / "file"));
    BOOST_TEST(std::distance(fs::directory_iterator(folder.path()), {}) == 1);
}

BOOST_AUTO_TEST_CASE(whatOthersMadeIsKept) {
    fs::create_directories(folder / "kavri-report");  // no lock
    std::ofstream(folder / "kavri-a-file") << "something";
    fs::rename(leftBehind().parent_path(), folder / "kavri-elsewhere");  // the name is another
    removeAbandonedFolders();
    for (const auto* name : {"kavri-report", "kavri-a-file", "kavri-elsewhere/files/file"}) {
        BOOST_TEST(fs::exists(folder / name), name);
    }
}

BOOST_AUTO_TEST_CASE(whatOnlyLooksLikeOneIsKept) {
    const fs::path other = folder / "kavri-backup";
    fs::rename(leftBehind().parent_path(), other);
    std::ofstream(other / "letters") << "something";
    removeAbandonedFolders();
    for (const auto* name : {"lock", "files/file", "letters"}) {
        BOOST_TEST(fs::exists(other / name), name);
    }
}

BOOST_AUTO_TEST_CASE(aLinkToAFolderIsNotFollowed) {
    const fs::path left = leftBehind().parent_path();
    const fs::path elsewhere = folder / "kavri-elsewhere";
    fs::rename(left, elsewhere);
    fs::create_directory_symlink(elsewhere, folder / "kavri-symbol");
    removeAbandonedFolders();
    BOOST_TEST(fs::exists(elsewhere / "files" / "file"));
}

BOOST_AUTO_TEST_CASE(withoutAPlaceThereIsAReason) {
    const kavri::tests::EnvironmentVariable nowhere("TMPDIR", folder / "nowhere");
    BOOST_CHECK_EXCEPTION(TemporaryFolder(), std::system_error, [](const std::system_error& error) {
        return std::string(error.what()).find("set TMPDIR") != std::string::npos;
    });
    BOOST_CHECK_NO_THROW(removeAbandonedFolders());
}

BOOST_AUTO_TEST_SUITE_END()
