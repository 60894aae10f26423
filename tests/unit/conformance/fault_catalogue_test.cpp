// The catalogue of faults: well formed, and about the module's real cases.
#define BOOST_TEST_MODULE faultCatalogue

#include "conformance/faults/fault_catalogue.h"

#include <algorithm>
#include <array>
#include <boost/test/unit_test.hpp>
#include <fstream>
#include <set>
#include <string>

using kavri::conformance::Fault;
using kavri::conformance::Kill;

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

BOOST_AUTO_TEST_CASE(thereAreEnoughFaultsAndMostAreKilled) {
    const auto all = kavri::conformance::faultCatalogue();
    BOOST_TEST(all.size() >= 60U);
    BOOST_TEST(std::ranges::count_if(all, [](const Fault& f) { return !f.kills.empty(); }) >= 48);
}

BOOST_AUTO_TEST_CASE(namesAreUniqueAndInKebabCase) {
    std::set<std::string_view> names;
    for (const Fault& fault : kavri::conformance::faultCatalogue()) {
        BOOST_TEST(isKebabCase(fault.name), fault.name);
        BOOST_TEST(names.insert(fault.name).second, fault.name << " is there twice");
    }
}

BOOST_AUTO_TEST_CASE(eachSaysWhatItDoesAndWhichRuleItBreaks) {
    for (const Fault& fault : kavri::conformance::faultCatalogue()) {
        BOOST_TEST_CONTEXT(fault.name) {
            BOOST_TEST(isSentence(fault.description));
            BOOST_TEST(isSentence(fault.clause));
        }
    }
}

BOOST_AUTO_TEST_CASE(eachIsKilledOrSaysWhyNot) {
    for (const Fault& fault : kavri::conformance::faultCatalogue()) {
        BOOST_TEST(fault.kills.empty() == isSentence(fault.survivesBecause), fault.name);
        BOOST_TEST(fault.kills.empty() != fault.survivesBecause.empty(), fault.name);
    }
}

// The numbers that the documents have.
BOOST_AUTO_TEST_CASE(theDocumentsSayHowManyFaultsShow) {
    const auto faults = kavri::conformance::faultCatalogue();
    const auto surviving = std::ranges::count_if(
        faults, [](const Fault& fault) { return !fault.survivesBecause.empty(); });
    const auto warned = std::ranges::count_if(faults, [](const Fault& fault) {
        return !fault.kills.empty() && std::ranges::all_of(fault.kills, [](const Kill& kill) {
            return kill.how.starts_with(kavri::conformance::warningMark);
        });
    });
    const auto count = std::ssize(faults);
    const auto says = [](const std::string& document, const std::string& sentence) {
        std::ifstream file(KAVRI_SOURCE_DIR "/" + document);
        std::string words;
        for (std::string word; file >> word;) {
            words += word + " ";
        }
        BOOST_TEST(words.find(sentence) != std::string::npos, document << ": " << sentence);
    };
    says("docs/conformance.md", "Of the " + std::to_string(count) + " faults " +
                                    std::to_string(count - surviving - warned) +
                                    " are killed by a case that does not pass, " +
                                    std::to_string(warned) + " by warnings alone, and " +
                                    std::to_string(surviving) + " survive.");
    says("README.md", "injects " + std::to_string(count) + " faults into the library; " +
                          std::to_string(count - surviving) + " must show, " +
                          std::to_string(surviving) + " cannot");
}

BOOST_AUTO_TEST_CASE(theCasesAreTheModules) {
    for (const Fault& fault : kavri::conformance::faultCatalogue()) {
        std::set<std::pair<std::string_view, std::string_view>> seen;
        for (const Kill& kill : fault.kills) {
            BOOST_TEST_CONTEXT(fault.name << ", " << kill.caseName << ", " << kill.how) {
                BOOST_TEST((std::ranges::find(cases, kill.caseName) != cases.end()));
                BOOST_TEST(!kill.how.empty());
                BOOST_TEST(seen.emplace(kill.caseName, kill.how).second);
            }
        }
    }
}

BOOST_AUTO_TEST_CASE(eachHasRulesThatSayWhatTheyDid) {
    for (const Fault& fault : kavri::conformance::faultCatalogue()) {
        BOOST_TEST_CONTEXT(fault.name) {
            BOOST_TEST(fault.calls.size() + fault.deliveries.size() > 0);
            for (const kavri::conformance::CallRule& rule : fault.calls) {
                BOOST_TEST((rule.instead == nullptr) != (rule.after == nullptr));
                BOOST_TEST(!rule.did.empty());
            }
            for (const kavri::conformance::DeliveryRule& rule : fault.deliveries) {
                BOOST_TEST(rule.instead != nullptr);
                BOOST_TEST(!rule.did.empty());
            }
        }
    }
}

BOOST_AUTO_TEST_CASE(aFaultIsFoundByItsName) {
    BOOST_REQUIRE(kavri::conformance::findFault("send-lost") != nullptr);
    BOOST_TEST(kavri::conformance::findFault("send-lost")->name == "send-lost");
    BOOST_TEST(kavri::conformance::findFault("send") == nullptr);
}
