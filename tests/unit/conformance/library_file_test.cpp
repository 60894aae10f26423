// Why a file is no library for the module: each reason, with a file made to have it.
#define BOOST_TEST_MODULE libraryFile

#include "conformance/loading/library_file.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>

#include <boost/test/unit_test.hpp>
#include <cstring>
#include <fstream>
#include <iterator>

#include "process/temporary_folder.h"

using kavri::conformance::whyNoLibrary;
namespace fs = std::filesystem;

namespace {

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A shared library that is in use: that of the test framework.
fs::path someLibrary() {
    Dl_info info{};
    BOOST_REQUIRE(dladdr(reinterpret_cast<const void*>(&boost::unit_test::unit_test_main), &info));
    return info.dli_fname;
}

struct Files {
    kavri::process::TemporaryFolder folder;
    fs::path file = folder / "library.so";
    std::string library = contentOf(someLibrary());

    std::string whyNot(const std::string& content) const {
        std::ofstream(file, std::ios::binary) << content;
        return whyNoLibrary(file);
    }
    std::string whyNotWithHeader(const std::function<void(ElfW(Ehdr) &)>& change) const {
        ElfW(Ehdr) header{};
        std::memcpy(&header, library.data(), sizeof header);
        change(header);
        std::string changed = library;
        std::memcpy(changed.data(), &header, sizeof header);
        return whyNot(changed);
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(libraryFile, Files)

BOOST_AUTO_TEST_CASE(aLibraryIsOne) {
    BOOST_TEST(whyNoLibrary(someLibrary()) == "");
    BOOST_TEST(whyNot(library) == "");
    Dl_info libc{};  // which can be run, too
    BOOST_REQUIRE(dladdr(reinterpret_cast<const void*>(&std::fopen), &libc));
    BOOST_TEST(whyNoLibrary(libc.dli_fname) == "");
}

BOOST_AUTO_TEST_CASE(whatCannotBeReadSaysWhy) {
    BOOST_TEST(whyNoLibrary(folder / "missing") == "cannot be read: No such file or directory");
    BOOST_TEST(whyNoLibrary(folder.path()) == "is no regular file");
    BOOST_REQUIRE(mkfifo(file.c_str(), 0600) == 0);
    BOOST_TEST(whyNoLibrary(file) == "is no regular file");
    fs::remove(file);
    std::ofstream(file) << library;
    fs::permissions(file, fs::perms::none);
    if (geteuid() != 0) {
        BOOST_TEST(whyNoLibrary(file) == "cannot be read: Permission denied");
    }
}

BOOST_AUTO_TEST_CASE(anotherSortOfFileIsTold) {
    BOOST_TEST(whyNot("") == "is empty");
    BOOST_TEST(whyNot("INPUT(libother.so)\n") ==
               "is no shared library: it does not begin like one");
    BOOST_TEST(whyNot("ELF") == "is no shared library: it does not begin like one");
    BOOST_TEST(whyNoLibrary("/proc/self/exe") == "is a program, and no shared library");
    BOOST_TEST(whyNotWithHeader([](auto& header) { header.e_type = ET_EXEC; }) ==
               "is a program, and no shared library");
    BOOST_TEST(whyNotWithHeader([](auto& header) { header.e_type = ET_REL; }) ==
               "is an object file, and not linked to a shared library yet");
    BOOST_TEST(whyNotWithHeader([](auto& header) { header.e_phnum = 0; }) ==
               "is no shared library: it has no segments to load");
}

BOOST_AUTO_TEST_CASE(anotherMachineIsNamed) {
    const std::string other = whyNotWithHeader(
        [](auto& header) { header.e_machine = header.e_machine == EM_S390 ? EM_MIPS : EM_S390; });
    BOOST_TEST(other.starts_with("is for S/390; the module is for "), other);
    const std::string narrow = whyNotWithHeader([](auto& header) {
        header.e_ident[EI_CLASS] = ELFCLASS32;
        header.e_machine = EM_386;
    });
    BOOST_TEST(narrow.starts_with("is a 32-bit file for x86; the module is 64-bit"), narrow);
}

BOOST_AUTO_TEST_CASE(aFileThatIsCutOffSaysHowMuchIsThere) {
    BOOST_TEST(whyNot(library.substr(0, 20)) == "is cut off: it ends within its header");
    BOOST_TEST(whyNot(library.substr(0, sizeof(ElfW(Ehdr)))) ==
               "is cut off: it has " + std::to_string(sizeof(ElfW(Ehdr))) +
                   " bytes, and ends within its headers");
    const std::string half = whyNot(library.substr(0, library.size() / 2));
    BOOST_TEST(
        half.starts_with("is cut off: it has " + std::to_string(library.size() / 2) + " of "),
        half);
}

BOOST_AUTO_TEST_SUITE_END()
