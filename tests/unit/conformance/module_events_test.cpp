// The events of the observer and the probe, read as their bytes arrive.
#define BOOST_TEST_MODULE moduleEvents

#include "conformance/module/module_events.h"

#include <boost/test/unit_test.hpp>
#include <ostream>

using kavri::conformance::ModuleEvent;
using kavri::conformance::ModuleEvents;
using Kind = kavri::conformance::ModuleEvent::Kind;

namespace kavri::conformance {

static bool operator==(const ModuleEvent& a, const ModuleEvent& b) {
    return a.kind == b.kind && a.atNs == b.atNs && a.thread == b.thread && a.number == b.number &&
           a.text == b.text && a.data == b.data;
}

static std::ostream& operator<<(std::ostream& stream, const ModuleEvent& event) {
    return stream << '{' << static_cast<int>(event.kind) << " at " << event.atNs << " by "
                  << event.thread << ", " << event.number << " '" << event.text << "' "
                  << event.data.dump() << '}';
}

}  // namespace kavri::conformance

namespace {

using Events = std::vector<ModuleEvent>;
using Json = nlohmann::json;

// What no event with JSON in its line has.
const Json none = Json::object();

void checkEvents(const Events& found, const Events& expected) {
    BOOST_CHECK_EQUAL_COLLECTIONS(found.begin(), found.end(), expected.begin(), expected.end());
}

const std::string told =
    "began 9000000000000000001 10 send/first\n"
    "passed 3 10 a folder/t.cpp(8) {\"check\":\"c != { }\"}\n"
    "failed 4 11 a folder/t.cpp(9) {\"check\":\"a == b\",\"left\":\"x\\n\",\"right\":\"…\"}\n"
    "aborted 5 10 {\"message\":\"std::bad_alloc\"}\n"
    "call 6 10 1 kavri_core_init {}\n"
    "return 7 10 1 {\"status\":0}\n"
    "deliver 8 12 4294967295 response {\"uuid\":\"3\",\"payload\":null}\n"
    "delivered 9 12 4294967295\n"
    "fault 10 10 send-lost {\"number\":2,\"did\":\"lost it\"}\n"
    "peer 11 10 missing {\"reason\":\"nobody\"}\n"
    "round 12 10 3 {\"descriptors\":5}\n"
    "breach 12 10 4 {\"rule\":\"a-rule\"}\n"
    "crash 12 10 11 {}\n"
    "exit 12 10 0 {\"function\":\"exit\"}\n"
    "stack 12 10 {\"frames\":[]}\n"
    "left 12 10 {\"threads\":1}\n"
    "ended 13 10 123 send/first\n";

const Events meant = {
    {Kind::began, 9000000000000000001, 10, 0, "send/first", none},
    {Kind::passed, 3, 10, 0, "a folder/t.cpp(8)", Json{{"check", "c != { }"}}},
    {Kind::failed, 4, 11, 0, "a folder/t.cpp(9)",
     Json{{"check", "a == b"}, {"left", "x\n"}, {"right", "…"}}},
    {Kind::aborted, 5, 10, 0, "", Json{{"message", "std::bad_alloc"}}},
    {Kind::call, 6, 10, 1, "kavri_core_init", none},
    {Kind::returned, 7, 10, 1, "", Json{{"status", 0}}},
    {Kind::deliver, 8, 12, 4294967295U, "response", Json{{"uuid", "3"}, {"payload", nullptr}}},
    {Kind::delivered, 9, 12, 4294967295U, "", none},
    {Kind::fault, 10, 10, 0, "send-lost", Json{{"number", 2}, {"did", "lost it"}}},
    {Kind::peer, 11, 10, 0, "missing", Json{{"reason", "nobody"}}},
    {Kind::round, 12, 10, 3, "", Json{{"descriptors", 5}}},
    {Kind::breach, 12, 10, 4, "", Json{{"rule", "a-rule"}}},
    {Kind::crash, 12, 10, 11, "", none},
    {Kind::exit, 12, 10, 0, "", Json{{"function", "exit"}}},
    {Kind::stack, 12, 10, 0, "", Json{{"frames", Json::array()}}},
    {Kind::left, 12, 10, 0, "", Json{{"threads", 1}}},
    {Kind::ended, 13, 10, 123, "send/first", none}};

// The last event shows that only the line is ignored, and not what follows it.
void checkPassedOver(const std::string& line) {
    ModuleEvents events;
    BOOST_TEST_CONTEXT("the line '" << line << "'") {
        checkEvents(events.read(line + "\nbegan 1 2 s/c\n"), {{Kind::began, 1, 2, 0, "s/c", none}});
    }
}

}  // namespace

BOOST_AUTO_TEST_CASE(eachLineIsAnEvent) {
    ModuleEvents events;
    checkEvents(events.read(told), meant);
}

BOOST_AUTO_TEST_CASE(linesMayArriveInPiecesOfAnySize) {
    for (size_t size = 1; size <= 80; ++size) {
        ModuleEvents events;
        Events found;
        for (size_t start = 0; start < told.size(); start += size) {
            for (ModuleEvent& event : events.read(told.substr(start, size))) {
                found.push_back(std::move(event));
            }
        }
        BOOST_TEST_INFO("pieces of " << size << " bytes");
        checkEvents(found, meant);
    }
}

BOOST_AUTO_TEST_CASE(anEventIsThereAsSoonAsItsLineIsWhole) {
    ModuleEvents events;
    checkEvents(events.read("began 1 2 s/c"), {});
    checkEvents(events.read("\nbeg"), {{Kind::began, 1, 2, 0, "s/c", none}});
    checkEvents(events.read("an 3 2 s/d\n"), {{Kind::began, 3, 2, 0, "s/d", none}});
}

BOOST_AUTO_TEST_CASE(linesOfAnotherFormArePassedOver) {
    for (const auto* line :
         {"", " ", "began", "began 1", "beganx 1 2 s/c", "nothing known", "began x 2 s/c",
          "began 1 y s/c", "began  1 2 s/c", "began 1x 2 s/c", "began 99999999999999999999 2 s/c",
          "ended 1 2 s/c", "ended 1 2 3x s/c", "ended 1 2 -3 s/c", "delivered 1 2",
          "BEGAN 1 2 s/c"}) {
        checkPassedOver(line);
    }
}

BOOST_AUTO_TEST_CASE(whatIsMissingOrTooMuchMakesAnotherForm) {
    for (const auto* line : {"began 1 2", "began 1 2 ", "ended 1 2 3", "reached 1 2 t.cpp(8)",
                             "aborted 1 2 now {}", "delivered 1 2 3 x", "call 1 2 3  {}"}) {
        checkPassedOver(line);
    }
}

BOOST_AUTO_TEST_CASE(linesWithoutAWholeJsonObjectAreIgnored) {
    for (const auto* line :
         {"passed 1 2 t.cpp(8)", "passed 1 2 t.cpp(8) {", "passed 1 2 {\"check\":\"c\"}",
          "failed 1 2 t.cpp(8) {\"check\":\"c\"} x", "call 1 2 3 f", "call 1 2 f {}",
          "call 1 2 3 f []", "return 1 2 3", "return 1 2 3 0", "return 1 2 3 [0]",
          "return 1 2 3 {\"status\":}", "deliver 1 2 3 event", "fault 1 2 send-lost", "peer 1 2 ok",
          "left 1 2", "left 1 2 null", "aborted 1 2", "return 1 2 3 {\"uuid\":\"\xff\"}"}) {
        checkPassedOver(line);
    }
}

BOOST_AUTO_TEST_CASE(bytesWithoutALineBreakAreNotKeptForEver) {
    ModuleEvents events;
    const std::string garbage(65536, 'x');
    BOOST_TEST(events.read(garbage).empty());
    BOOST_TEST(events.read("x").empty());  // too much: all of it is dropped
    BOOST_TEST(events.read("began 1 2 s/c\n").size() == 1U);
}
