// What the observer in the module tells, read as it comes.
#define BOOST_TEST_MODULE moduleEvents

#include "cli/module_events.h"

#include <boost/test/unit_test.hpp>
#include <ostream>

using kavri::cli::ModuleEvent;
using kavri::cli::ModuleEvents;
using Kind = kavri::cli::ModuleEvent::Kind;
using std::chrono::microseconds;

namespace kavri::cli {

static bool operator==(const ModuleEvent& a, const ModuleEvent& b) {
    return a.kind == b.kind && a.text == b.text && a.time == b.time;
}

static std::ostream& operator<<(std::ostream& stream, const ModuleEvent& event) {
    return stream << '{' << static_cast<int>(event.kind) << " '" << event.text << "' "
                  << event.time.count() << " us}";
}

}  // namespace kavri::cli

namespace {

using Events = std::vector<ModuleEvent>;

void checkEvents(const Events& found, const Events& expected) {
    BOOST_CHECK_EQUAL_COLLECTIONS(found.begin(), found.end(), expected.begin(), expected.end());
}

const std::string told =
    "began send/first\n"
    "reached a folder/t.cpp(8)\n"
    "passed a folder/t.cpp(8)\n"
    "reached a folder/t.cpp(9)\n"
    "failed a folder/t.cpp(9)\n"
    "aborted\n"
    "ended 123 send/first\n";

const Events meant = {{Kind::began, "send/first"},
                      {Kind::reached, "a folder/t.cpp(8)"},
                      {Kind::passed, "a folder/t.cpp(8)"},
                      {Kind::reached, "a folder/t.cpp(9)"},
                      {Kind::failed, "a folder/t.cpp(9)"},
                      {Kind::aborted, ""},
                      {Kind::ended, "send/first", microseconds(123)}};

}  // namespace

BOOST_AUTO_TEST_CASE(eachLineIsAnEvent) {
    ModuleEvents events;
    checkEvents(events.read(told), meant);
}

BOOST_AUTO_TEST_CASE(linesMayArriveInPiecesOfAnySize) {
    for (size_t size = 1; size <= 50; ++size) {
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
    checkEvents(events.read("passed t.cpp(8)"), {});
    checkEvents(events.read("\nfail"), {{Kind::passed, "t.cpp(8)"}});
    checkEvents(events.read("ed t.cpp(9)\n"), {{Kind::failed, "t.cpp(9)"}});
}

BOOST_AUTO_TEST_CASE(linesOfAnotherFormArePassedOver) {
    ModuleEvents events;
    checkEvents(events.read("\nbegan\nbeganx y\nnothing known\naborted now\n"
                            "ended send/first\nended 12x send/first\nended 5 send/first\n"),
                {{Kind::ended, "send/first", microseconds(5)}});
}
