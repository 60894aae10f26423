// The subjects on which brokers publish: one for each category, whatever its bytes, and
// none that a server would take apart in another way.
#define BOOST_TEST_MODULE link_subjects

#include "broker/link/subjects.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <set>

#include "support/fake_bus.h"

using namespace kavri::broker;
using kavri::tests::isPublishableSubject;

BOOST_AUTO_TEST_CASE(anOrdinaryNameIsReadable) {
    BOOST_TEST(serveSubject("test") == "kavri.1.serve.test");
    BOOST_TEST(eventsSubject("Lamp-2_b") == "kavri.1.events.Lamp-2_b");
}

BOOST_AUTO_TEST_CASE(oddBytesAreWrittenAsDigits) {
    BOOST_TEST(serveSubject("a.b") == "kavri.1.serve.a=2eb");
    BOOST_TEST(serveSubject("*") == "kavri.1.serve.=2a");
    BOOST_TEST(serveSubject(">") == "kavri.1.serve.=3e");
    BOOST_TEST(serveSubject("=2a") == "kavri.1.serve.=3d2a");
    BOOST_TEST(serveSubject("") == "kavri.1.serve.=");
    BOOST_TEST(serveSubject(" \r\n") == "kavri.1.serve.=20=0d=0a");
    BOOST_TEST(serveSubject("\xff\x01") == "kavri.1.serve.=ff=01");
}

BOOST_AUTO_TEST_CASE(noTwoCategoriesShareASubject) {
    std::set<std::string> subjects;
    std::size_t categories = 0;
    const auto add = [&](const std::string& category) {
        const std::string subject = serveSubject(category);
        BOOST_TEST(isPublishableSubject(subject), subject);
        BOOST_TEST(std::ranges::count(subject, '.') == 3);
        subjects.insert(subject);
        subjects.insert(eventsSubject(category));
        ++categories;
    };
    add("");
    for (int first = 0; first < 256; ++first) {
        add(std::string(1, static_cast<char>(first)));
        for (int second = 0; second < 256; ++second) {
            add({static_cast<char>(first), static_cast<char>(second)});
        }
    }
    add("=");
    categories -= 1;  // it was there
    add("=3d2a");
    BOOST_TEST(subjects.size() == 2 * categories);
}

BOOST_AUTO_TEST_CASE(theLongestCategoryFitsIntoASubject) {
    BOOST_TEST(eventsSubject(std::string(longestLinkedCategory, '\xff')).size() < 2048U);
}

BOOST_AUTO_TEST_CASE(aUuidIsAnIdentity) {
    const BrokerIdentity identity = identityOf("01234567-89ab-cdef-fedc-ba9876543210");
    BOOST_TEST(hexText(identity) == "0123456789abcdeffedcba9876543210");
    BOOST_TEST(brokerSubject(identity) == "kavri.1.broker.0123456789abcdeffedcba9876543210.in");
    BOOST_TEST(answerSubject(identity, 7) ==
               "kavri.1.broker.0123456789abcdeffedcba9876543210.open.7");
    BOOST_TEST(allAnswersSubject(identity) ==
               "kavri.1.broker.0123456789abcdeffedcba9876543210.open.*");
}

BOOST_AUTO_TEST_CASE(theNumberOfAnAnswerIsFound) {
    const BrokerIdentity identity{};
    for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{7}, UINT64_MAX}) {
        BOOST_TEST((numberOfAnswer(answerSubject(identity, number)) == number));
    }
}

BOOST_AUTO_TEST_CASE(whatHasNoNumberIsNoAnswer) {
    for (const std::string_view subject :
         {"", ".", "open.", "open.x", "open.7x", "open.x7", "open.-1", "open.+1", "open. 7",
          "open.18446744073709551616", "open.7."}) {
        BOOST_TEST(!numberOfAnswer(subject).has_value(), subject);
    }
}
