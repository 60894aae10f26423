// Columns as they fit: what is cut, what is left out, and that numbers never are cut.
#define BOOST_TEST_MODULE table

#include "management/table.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::management;
using kavri::base::DisplayStyle;

namespace {

Table sample() {
    Table table({{"NAME", false, 6}, {"USER", false, 0, 2}, {"AGE", true, 0, 1}, {"COUNT", true}});
    table.add({"a long name", "alice", "5", "12345"});
    table.add({"b", "bob", "17", "6"});
    return table;
}

std::string at(unsigned columns) {
    return sample().text({.terminal = true, .columns = columns});
}

}  // namespace

BOOST_AUTO_TEST_CASE(withRoomNothingIsLeftOut) {
    const std::string whole =
        "NAME         USER   AGE  COUNT\n"
        "a long name  alice    5  12345\n"
        "b            bob     17      6\n";
    BOOST_TEST(at(30) == whole);
    BOOST_TEST(sample().text({}) == whole);
}

BOOST_AUTO_TEST_CASE(longTextsAreCutFirst) {
    BOOST_TEST(at(26) ==
               "NAME     USER   AGE  COUNT\n"
               "a long…  alice    5  12345\n"
               "b        bob     17      6\n");
}

BOOST_AUTO_TEST_CASE(thenColumnsAreLeftOutInTheirOrder) {
    BOOST_TEST(at(22) ==
               "NAME      USER   COUNT\n"
               "a long …  alice  12345\n"
               "b         bob        6\n");
    BOOST_TEST(at(13) ==
               "NAME    COUNT\n"
               "a lon…  12345\n"
               "b           6\n");
}

BOOST_AUTO_TEST_CASE(whatMustBeThereStaysEvenWhereItDoesNotFit) {
    BOOST_TEST(at(5) == at(13));
}

BOOST_AUTO_TEST_CASE(aCharacterOfSeveralBytesIsNotDivided) {
    Table table({{"N", false, 3}});
    table.add({"äöüß"});
    BOOST_TEST(table.text({.terminal = true, .columns = 3}) == "N\näö…\n");
    BOOST_TEST(table.text({.terminal = true, .columns = 4}) == "N\näöüß\n");
}
