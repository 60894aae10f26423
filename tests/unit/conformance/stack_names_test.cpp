// Names for the frames of a stack, with this test's own file and code.
#define BOOST_TEST_MODULE stackNames

#include "conformance/module/stack_names.h"

#include <link.h>

#include <boost/test/unit_test.hpp>
#include <cstdint>
#include <filesystem>
#include <sstream>

using kavri::conformance::namedStack;

extern "C" __attribute__((noinline, used)) int nameInThisStack(int number) {
    return number * 7 + 1;
}

namespace {

const std::string self = std::filesystem::read_symlink("/proc/self/exe");

std::string frameOf(const void* address) {
    dl_find_object object{};
    BOOST_REQUIRE(_dl_find_object(const_cast<void*>(address), &object) == 0);
    std::ostringstream text;
    text << self << "+0x" << std::hex
         << reinterpret_cast<std::uintptr_t>(address) - object.dlfo_link_map->l_addr;
    return text.str();
}

std::string frameInFunction() {
    return frameOf(reinterpret_cast<const void*>(&nameInThisStack));
}

}  // namespace

BOOST_AUTO_TEST_SUITE(stackNamesTest)

BOOST_AUTO_TEST_CASE(aFrameGetsTheNameOfItsFunction) {
    const std::string frame = frameInFunction();
    BOOST_TEST(namedStack({frame}, false) ==
               "#0 nameInThisStack, " + frame.substr(frame.rfind('/') + 1) + "\n");
}

// The first instruction of a function is where no call returns to, but where one may have
// ended that never returns.
BOOST_AUTO_TEST_CASE(aFrameThatIsReturnedToBelongsToTheCallBeforeIt) {
    const std::string frame = frameInFunction();
    const std::string inBetween = "libfoo.so+0x12";
    const std::string stack = namedStack({frame, inBetween, frame}, false);
    BOOST_TEST(stack.find("#0 nameInThisStack, ") == 0U);
    BOOST_TEST(stack.find("#2 nameInThisStack, ") == std::string::npos);
    BOOST_TEST(stack.find("#2 ") != std::string::npos);
    BOOST_TEST(namedStack({frame}, true).find("nameInThisStack") == std::string::npos);
}

BOOST_AUTO_TEST_CASE(aRecursionIsCutShort) {
    BOOST_TEST(namedStack({"/a.so+0x1", "/a.so+0x2", "/a.so+0x2", "/a.so+0x2", "/a.so+0x3"},
                          false) == "#0 a.so+0x1\n#1 a.so+0x2\n   and so on\n#4 a.so+0x3\n");
}

BOOST_AUTO_TEST_CASE(theFrameworkBelowTheCaseIsLeftOut) {
    BOOST_TEST(
        namedStack({"/a.so+0x1", "/lib/libboost_unit_test_framework.so.1.74.0+0x2", "/a.so+0x3"},
                   false) == "#0 a.so+0x1\n");
}

BOOST_AUTO_TEST_CASE(whatHasNoNameKeepsItsAddress) {
    BOOST_TEST(namedStack({"/no/such/libfoo.so+0x12"}, false) == "#0 libfoo.so+0x12\n");
    BOOST_TEST(namedStack({"/etc/hostname+0x12"}, false) == "#0 hostname+0x12\n");
    BOOST_TEST(namedStack({self + "+0x0"}, false).find(", ") == std::string::npos);
    BOOST_TEST(namedStack({"nonsense"}, false) == "#0 nonsense\n");
    BOOST_TEST(namedStack({}, false) == "");
}

BOOST_AUTO_TEST_SUITE_END()
