// The sentences that warnings quote, against the public headers.
#define BOOST_TEST_MODULE interfaceRules

#include "conformance/cases/interface_rules.h"

#include <boost/test/unit_test.hpp>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "conformance/agent/functions.h"
#include "conformance/faults/fault_catalogue.h"

using kavri::conformance::findInterfaceRule;
using kavri::conformance::findStatusList;
using kavri::conformance::functionCount;
using kavri::conformance::interfaceRules;
using kavri::conformance::listedStatusRule;
using kavri::conformance::statusLists;
using kavri::conformance::statusName;

namespace {

// The words of a header, with one blank between them, and without what makes comments of them.
std::string wordsOf(std::string_view header) {
    std::ifstream file(std::string(KAVRI_HEADERS_DIR "/") + std::string(header));
    BOOST_REQUIRE(file.good());
    std::string words;
    for (std::string word; file >> word;) {
        if (word != "*" && word != "/*" && word != "*/") {
            words += word + " ";
        }
    }
    return words;
}

}  // namespace

BOOST_AUTO_TEST_SUITE(interfaceRulesTest)

BOOST_AUTO_TEST_CASE(everySentenceStandsInItsHeaderWordForWord) {
    const auto check = [](std::string_view name, std::string_view header,
                          std::string_view sentence) {
        BOOST_TEST(wordsOf(header).find(sentence) != std::string::npos,
                   name << ": " << header << " has no \"" << sentence << "\"");
    };
    for (const auto& rule : interfaceRules()) {
        check(rule.name, rule.header, rule.sentence);
    }
    for (const auto& list : statusLists()) {
        check(list.function, list.header, list.sentence);
        check(list.function, list.header, list.listed);
    }
}

BOOST_AUTO_TEST_CASE(everyRuleHasANameOfItsOwn) {
    std::set<std::string_view> names;
    for (const auto& rule : interfaceRules()) {
        BOOST_TEST(names.insert(rule.name).second, rule.name);
        BOOST_TEST(findInterfaceRule(rule.name) == &rule);
    }
    BOOST_TEST(findInterfaceRule("no-such-rule") == nullptr);
}

BOOST_AUTO_TEST_CASE(theFaultsThatAWarningKillsNameARule) {
    using kavri::conformance::warningMark;
    std::size_t named = 0;
    for (const auto& fault : kavri::conformance::faultCatalogue()) {
        for (const auto& kill : fault.kills) {
            if (kill.how.starts_with(warningMark)) {
                ++named;
                const std::string_view rule = kill.how.substr(warningMark.size());
                BOOST_TEST((rule == listedStatusRule || findInterfaceRule(rule) != nullptr),
                           fault.name << ": " << kill.how);
            }
        }
    }
    BOOST_TEST(named > 0U);
}

BOOST_AUTO_TEST_CASE(everyRuleIsInTheDocument) {
    std::ifstream file(KAVRI_SOURCE_DIR "/docs/conformance.md");
    std::ostringstream text;
    text << file.rdbuf();
    for (const auto& rule : interfaceRules()) {
        BOOST_TEST(text.str().find("`" + std::string(rule.name) + "`") != std::string::npos,
                   rule.name);
    }
}

BOOST_AUTO_TEST_CASE(everyFunctionHasAListWithSuccess) {
    for (std::size_t i = 0; i < functionCount; ++i) {
        const char* name =
            kavri::conformance::functionName(static_cast<kavri::conformance::Function>(i));
        BOOST_REQUIRE(findStatusList(name) != nullptr);
        BOOST_TEST(findStatusList(name)->has(0));
        BOOST_TEST(!findStatusList(name)->has(-1));
        BOOST_TEST(!findStatusList(name)->has(17));
    }
    BOOST_TEST(findStatusList("kavri_core_status_text") == nullptr);
}

BOOST_AUTO_TEST_CASE(aListHasTheStatusesThatItNames) {
    BOOST_TEST(findStatusList("kavri_core_ipc_initiator_response_receive")->has(4));
    BOOST_TEST(!findStatusList("kavri_core_ipc_initiator_command_send")->has(4));
    // Those of another function, to which the header refers.
    BOOST_TEST(findStatusList("kavri_core_ipc_initiator_event_unsubscribe")->has(14));
}

BOOST_AUTO_TEST_CASE(theNamesOfTheStatusesAreThoseOfTheHeader) {
    const std::string words = wordsOf("core.h");
    for (int status = 0; !statusName(status).empty(); ++status) {
        const std::string line =
            "KAVRI_CORE_STATUS_" + std::string(statusName(status)) + " = " + std::to_string(status);
        BOOST_TEST(words.find(line) != std::string::npos, line);
    }
    BOOST_TEST(words.find("= 17") == std::string::npos);
    BOOST_TEST(statusName(16) == "IPC_OTHER_PROCESS");
}

BOOST_AUTO_TEST_SUITE_END()
