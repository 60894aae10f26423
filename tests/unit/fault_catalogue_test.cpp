// The catalogue of faults: well formed, about the module's real cases, and known
// to the probe.
#define BOOST_TEST_MODULE faultCatalogue

#include "probe/fault_catalogue.h"

#include <algorithm>
#include <array>
#include <boost/test/unit_test.hpp>
#include <set>
#include <string>

#include "probe/faults.h"

using kavri::probe::Fault;
using kavri::probe::Notice;

// The probe's own, which is not linked in here.
void kavri::probe::handOver(const Delivery& /*delivery*/) {
    BOOST_FAIL("nothing is delivered here");
}

namespace {

constexpr std::array<std::string_view, 8> cases = {
    "initiatorSend/initiatorSendPass",
    "initiatorSend/initiatorSendRepeat",
    "initiatorSend/initiatorRepeatStaticResponse",
    "initiatorSend/initiatorRepeatEcho",
    "initiatorSend/initiatorRepeatEchoNonBlocking",
    "initiatorSend/initiatorRepeatCallback",
    "initiatorSend/initiatorFailReceiveWithCallback",
    "initiatorEvent/initiatorRepeatEventCallback",
};

bool isKebabCase(std::string_view name) {
    const bool allowed = std::ranges::all_of(
        name, [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'; });
    return allowed && !name.empty() && name.front() != '-' && name.back() != '-' &&
           name.find("--") == std::string_view::npos;
}

bool isSentence(std::string_view text) {
    return text.size() > 10 && text.front() >= 'A' && text.front() <= 'Z' && text.back() == '.';
}

}  // namespace

BOOST_AUTO_TEST_CASE(thereAreEnoughFaultsAndMostAreNoticed) {
    const auto all = kavri::probe::faults();
    BOOST_TEST(all.size() >= 60U);
    BOOST_TEST(std::ranges::count_if(all, [](const Fault& f) { return !f.notices.empty(); }) >= 48);
}

BOOST_AUTO_TEST_CASE(namesAreUniqueAndInKebabCase) {
    std::set<std::string_view> names;
    for (const Fault& fault : kavri::probe::faults()) {
        BOOST_TEST(isKebabCase(fault.name), fault.name);
        BOOST_TEST(names.insert(fault.name).second, fault.name << " is there twice");
    }
}

BOOST_AUTO_TEST_CASE(eachSaysWhatItDoesAndWhichRuleItBreaks) {
    for (const Fault& fault : kavri::probe::faults()) {
        BOOST_TEST_CONTEXT(fault.name) {
            BOOST_TEST(isSentence(fault.description));
            BOOST_TEST(isSentence(fault.clause));
        }
    }
}

BOOST_AUTO_TEST_CASE(eachIsNoticedOrSaysWhyNot) {
    for (const Fault& fault : kavri::probe::faults()) {
        BOOST_TEST(fault.notices.empty() == isSentence(fault.unnoticedBecause), fault.name);
        BOOST_TEST(fault.notices.empty() != fault.unnoticedBecause.empty(), fault.name);
    }
}

BOOST_AUTO_TEST_CASE(theCasesAreTheModules) {
    for (const Fault& fault : kavri::probe::faults()) {
        std::set<std::pair<std::string_view, std::string_view>> seen;
        for (const Notice& notice : fault.notices) {
            BOOST_TEST_CONTEXT(fault.name << ", " << notice.caseName << ", " << notice.how) {
                BOOST_TEST((std::ranges::find(cases, notice.caseName) != cases.end()));
                BOOST_TEST(!notice.how.empty());
                BOOST_TEST(seen.emplace(notice.caseName, notice.how).second);
            }
        }
    }
}

BOOST_AUTO_TEST_CASE(theProbeCanDoEach) {
    for (const Fault& fault : kavri::probe::faults()) {
        BOOST_TEST(kavri::probe::canBreak(fault.name), fault.name);
    }
    BOOST_TEST(!kavri::probe::canBreak("no-such-fault"));
}

BOOST_AUTO_TEST_CASE(aFaultIsFoundByItsName) {
    BOOST_REQUIRE(kavri::probe::findFault("send-lost") != nullptr);
    BOOST_TEST(kavri::probe::findFault("send-lost")->name == "send-lost");
    BOOST_TEST(kavri::probe::findFault("send") == nullptr);
}
