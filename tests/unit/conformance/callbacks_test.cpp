// Which callback of the module a delivery reaches, and with what.
#define BOOST_TEST_MODULE callbacks

#include "conformance/agent/callbacks.h"

#include <array>
#include <boost/test/unit_test.hpp>
#include <string>
#include <vector>

#include "conformance/agent/in_library.h"

using kavri::conformance::addInstallation;
using kavri::conformance::eventArrived;
using kavri::conformance::InLibrary;
using kavri::conformance::Installation;
using kavri::conformance::isInLibrary;
using kavri::conformance::responseArrived;

namespace {

struct Received {
    std::string by;
    std::vector<std::string> texts;
    const void* context = nullptr;
    bool wasInLibrary = false;
};

std::vector<Received> received;

void note(const std::string& by, const std::vector<char**>& fields, const void* context) {
    Received delivery{.by = by, .texts = {}, .context = context, .wasInLibrary = isInLibrary};
    for (char** field : fields) {
        delivery.texts.emplace_back(*field);
    }
    received.push_back(delivery);
}

void takeResponse(char** category, char** identifier, char** uuid, char** payload, void* context) {
    note("response", {category, identifier, uuid, payload}, context);
}

void takeResponseInstead(char** category, char** identifier, char** uuid, char** payload,
                         void* context) {
    note("instead", {category, identifier, uuid, payload}, context);
}

void takeEvent(char** category, char** identifier, char** payload, void* context) {
    note("event", {category, identifier, payload}, context);
}

// Delivers as a library does.
struct Library {
    std::array<std::string, 4> texts{"c", "i", "u", "p"};
    char* category = texts[0].data();
    char* identifier = texts[1].data();
    char* uuid = texts[2].data();
    char* payload = texts[3].data();

    Library() { received.clear(); }

    Received respond(void* context) {
        const InLibrary inLibrary(true);
        responseArrived(&category, &identifier, &uuid, &payload, context);
        return last();
    }

    Received publish(void* context) {
        const InLibrary inLibrary(true);
        eventArrived(&category, &identifier, &payload, context);
        return last();
    }

    static Received last() {
        BOOST_TEST_REQUIRE(!received.empty());
        return received.back();
    }
};

int anInitiator;
int firstContext;
int secondContext;

}  // namespace

BOOST_FIXTURE_TEST_SUITE(callbacks, Library)

BOOST_AUTO_TEST_CASE(aDeliveryReachesTheCallbackThatIsItsContextWithTheModulesOne) {
    Installation& first = addInstallation(&anInitiator, takeResponse, &firstContext);
    Installation& second = addInstallation(&anInitiator, takeResponseInstead, &secondContext);
    Installation& event = addInstallation(&anInitiator, takeEvent, &firstContext);
    const Received response = respond(&first);
    BOOST_TEST(response.by == "response");
    BOOST_TEST((response.texts == std::vector<std::string>{"c", "i", "u", "p"}));
    BOOST_TEST(response.context == &firstContext);
    const Received instead = respond(&second);
    BOOST_TEST(instead.by == "instead");
    BOOST_TEST(instead.context == &secondContext);
    const Received published = publish(&event);
    BOOST_TEST(published.by == "event");
    BOOST_TEST((published.texts == std::vector<std::string>{"c", "i", "p"}));
    BOOST_TEST(published.context == &firstContext);
    BOOST_TEST(received.size() == 3U);
}

BOOST_AUTO_TEST_CASE(aWrongContextReachesTheLatestCallbackOfTheStreamAsItIs) {
    addInstallation(&anInitiator, takeResponseInstead, &firstContext);
    addInstallation(&anInitiator, takeResponse, &firstContext);
    addInstallation(&anInitiator, takeEvent, &firstContext);
    const Received response = respond(&secondContext);
    BOOST_TEST(response.by == "response");
    BOOST_TEST(response.context == &secondContext);
    BOOST_TEST(publish(nullptr).by == "event");
}

BOOST_AUTO_TEST_CASE(theModuleIsNoPartOfTheLibraryThatCallsIt) {
    BOOST_TEST(!respond(&addInstallation(&anInitiator, takeResponse, nullptr)).wasInLibrary);
    BOOST_TEST(!isInLibrary);
}

BOOST_AUTO_TEST_CASE(deliveriesAreCountedForEachInstallation) {
    Installation& first = addInstallation(&anInitiator, takeResponse, nullptr);
    Installation& second = addInstallation(&anInitiator, takeResponse, nullptr);
    respond(&first);
    respond(&second);
    respond(&first);
    BOOST_TEST(first.deliveries == 2U);
    BOOST_TEST(second.deliveries == 1U);
}

BOOST_AUTO_TEST_SUITE_END()
