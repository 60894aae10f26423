// The output of the dynamic loader about a program, parsed.
#define BOOST_TEST_MODULE loaderReport

#include "conformance/loading/loader_report.h"

#include <boost/test/unit_test.hpp>

using kavri::conformance::LoaderReport;
using kavri::conformance::parseLoaderReport;

namespace {

using Names = std::vector<std::string>;

const std::string healthy =
    "\tlinux-vdso.so.1 (0x00007f1f3255b000)\n"
    "\tlibone.so => /opt/with space (x)/libone.so (0x00007f1f3254b000)\n"
    "\tlibtwo.so.2 => relative/libtwo.so.2 (0x00007f1f32489000)\n"
    "\t/lib64/ld-linux-x86-64.so.2 (0x00007f1f3255d000)\n";

void checkSame(const Names& found, const Names& expected) {
    BOOST_TEST(found == expected, boost::test_tools::per_element());
}

}  // namespace

BOOST_AUTO_TEST_CASE(librariesAreFoundByTheirNames) {
    const LoaderReport report = parseLoaderReport(healthy, "/bin/program");
    BOOST_TEST(report.found.size() == 2U);
    BOOST_TEST(report.found.at("libone.so") == "/opt/with space (x)/libone.so");
    BOOST_TEST(report.found.at("libtwo.so.2") == "relative/libtwo.so.2");
    checkSame(report.notFound, {});
    checkSame(report.undefined, {});
}

BOOST_AUTO_TEST_CASE(missingLibrariesAreNamed) {
    const LoaderReport report = parseLoaderReport(
        "\tlibone.so => not found\n" + healthy.substr(0, 20) + "\n", "/bin/program");
    checkSame(report.notFound, {"libone.so"});
    BOOST_TEST(report.found.empty());
}

BOOST_AUTO_TEST_CASE(functionsThatTheProgramLacksAreNamedInOrder) {
    const LoaderReport report =
        parseLoaderReport(healthy +
                              "undefined symbol: zulu\t(/bin/program)\n"
                              "undefined symbol: alpha, version V_1\t(/bin/program)\n"
                              "undefined symbol: of_a_library\t(/opt/libone.so)\n"
                              "undefined symbol: cut off",
                          "/bin/program");
    checkSame(report.undefined, {"alpha", "zulu"});
    BOOST_TEST(report.found.size() == 2U);
}

BOOST_AUTO_TEST_CASE(pathsMayHaveBlanks) {
    const LoaderReport report = parseLoaderReport(
        "\tlibone.so => /a b/libone.so (0x00007f0123456789)\n"
        "undefined symbol: alpha, version V_1\t(/a b/program)\n",
        "/a b/program");
    BOOST_TEST(report.found.at("libone.so") == "/a b/libone.so");
    checkSame(report.undefined, {"alpha"});
}

BOOST_AUTO_TEST_CASE(otherLinesMeanNothing) {
    const LoaderReport report = parseLoaderReport(
        "/bin/program: libone.so: no version information available (required by /bin/program)\n"
        "\n => \nundefined symbol: \n",
        "/bin/program");
    checkSame(report.notFound, {});
    checkSame(report.undefined, {});
    BOOST_TEST(!report.found.contains("libone.so"));
}
