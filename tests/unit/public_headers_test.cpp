// The public headers are the same thing in C and in C++, and the libraries give
// what they declare: no more, no less. That they compile at all is shown by
// headers_in_c.c and headers_in_cpp.cpp being part of this program.
#define BOOST_TEST_MODULE publicHeaders

#include <kavri/ipc.h>

#include <boost/test/unit_test.hpp>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "process/child_process.h"
#include "unit/headers_in_c.h"

kavri_core_status cppInstall(kavri_core_ipc_initiator* initiator);

namespace {

using Names = std::set<std::string>;

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    BOOST_REQUIRE(file.good());
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string withoutComments(std::string text) {
    for (std::size_t begin = text.find("/*"); begin != std::string::npos; begin = text.find("/*")) {
        text.erase(begin, text.find("*/", begin) + 2 - begin);
    }
    return text;
}

// A name directly before a parenthesis; a callback's type has its own before it.
Names functionsDeclaredIn(const std::string& header) {
    const std::string text =
        withoutComments(contentOf(std::string(KAVRI_SOURCE_DIR "/include/kavri/") + header));
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz_";
    Names names;
    for (std::size_t begin = text.find("kavri_"); begin != std::string::npos;
         begin = text.find("kavri_", begin)) {
        const std::size_t end = text.find_first_not_of(letters, begin);
        if (end != std::string::npos && text[end] == '(') {
            names.insert(text.substr(begin, end - begin));
        }
        begin = end;
    }
    return names;
}

Names namesExportedBy(const std::string& library) {
    kavri::process::ChildProcess nm({.program = "/usr/bin/env",
                                     .arguments = {"nm", "-D", "--defined-only", "--format=posix",
                                                   KAVRI_LIB_DIR "/" + library}});
    const auto ended = nm.wait(std::chrono::seconds(30));
    BOOST_REQUIRE((ended && ended->succeeded()));
    Names names;
    std::istringstream lines(nm.output());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        std::string kind;
        words >> name >> kind;
        if (kind != "A") {  // the names of versions
            names.insert(name.substr(0, name.find('@')));
        }
    }
    return names;
}

}  // namespace

BOOST_AUTO_TEST_CASE(bothLanguagesSeeTheSameSizes) {
    BOOST_TEST(cOptionsBytes() == sizeof(kavri_core_ipc_options));
    BOOST_TEST(cRequestBytes() == sizeof(kavri_core_ipc_request));
    BOOST_TEST(cStatusBytes() == sizeof(kavri_core_status));
}

BOOST_AUTO_TEST_CASE(bothLanguagesCallTheSameFunctions) {
    BOOST_TEST(cSend(nullptr) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(cppInstall(nullptr) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(theLibrariesGiveWhatTheHeadersDeclareAndNothingElse) {
    Names declared = functionsDeclaredIn("core.h");
    declared.merge(functionsDeclaredIn("ipc.h"));
    BOOST_REQUIRE(declared.contains("kavri_core_init"));
    BOOST_REQUIRE(declared.contains("kavri_core_ipc_initiator_command_send"));

    const Names interfaces = namesExportedBy("libkavri-interfaces.so");
    Names exported = namesExportedBy("libkavri-core-test.so");
    for (const std::string& name : interfaces) {
        BOOST_TEST(exported.insert(name).second, name << " is in both libraries");
    }
    BOOST_TEST(exported == declared, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(theCppInterfaceReachesEveryFunction) {
    std::string calls;
    for (const auto& header :
         std::filesystem::directory_iterator(KAVRI_SOURCE_DIR "/include/kavri/cpp")) {
        std::istringstream lines(contentOf(header.path()));
        for (std::string line; std::getline(lines, line);) {
            calls += line.substr(0, line.find("//")) + "\n";
        }
    }
    Names declared = functionsDeclaredIn("core.h");
    declared.merge(functionsDeclaredIn("ipc.h"));
    for (const std::string& name : declared) {
        BOOST_TEST((calls.find(name + "(") != std::string::npos), name << " is not called");
    }
}

BOOST_AUTO_TEST_CASE(theTextsComeFromTheInterfacesLibrary) {
    const Names expected = {"kavri_core_status_text"};
    BOOST_TEST(namesExportedBy("libkavri-interfaces.so") == expected,
               boost::test_tools::per_element());
}
