// Texts that refer to those of others, statuses in exceptions, and messages that own theirs.
#define BOOST_TEST_MODULE cppText

#include <boost/test/unit_test.hpp>
#include <kavri/kavri.hpp>
#include <sstream>

namespace {

char* copyOf(const char* text) {
    return ::strdup(text);
}

}  // namespace

BOOST_AUTO_TEST_CASE(aTextRefersToWhatItIsMadeFrom) {
    const std::string string = "string";
    const char* const literal = "literal";
    BOOST_TEST(kavri::TextView(string).c_str() == string.c_str());
    BOOST_TEST(kavri::TextView(literal).c_str() == literal);
}

BOOST_AUTO_TEST_CASE(aTextEndsAtItsFirstNul) {
    const std::string withNul("before\0behind", 13);
    BOOST_TEST(kavri::TextView(withNul).view() == "before");
}

BOOST_AUTO_TEST_CASE(aTextComparesByWhatItHolds) {
    const kavri::TextView text = "text";
    BOOST_TEST((text == "text"));
    BOOST_TEST((text == std::string("text")));
    BOOST_TEST((std::string_view("text") == text));
    BOOST_TEST((text != "texts"));
    BOOST_TEST((text != ""));
}

BOOST_AUTO_TEST_CASE(nullIsEmptyAndEqualsNullAlone) {
    const kavri::TextView null;
    BOOST_TEST(null.isNull());
    BOOST_TEST(null.view().empty());
    BOOST_TEST(null.str().empty());
    BOOST_TEST((null == kavri::TextView(nullptr)));
    BOOST_TEST((null != kavri::TextView("")));
    BOOST_TEST((kavri::TextView("") != null));
}

BOOST_AUTO_TEST_CASE(aTextIsPrinted) {
    std::ostringstream out;
    out << kavri::TextView("text") << kavri::TextView();
    BOOST_TEST(out.str() == "text");
}

BOOST_AUTO_TEST_CASE(aMessageThatWasMovedFromIsEmpty) {
    kavri::Response first(copyOf("c"), copyOf("i"), copyOf("u"), nullptr);
    const kavri::Response second(std::move(first));
    BOOST_TEST((second.category() == "c"));
    BOOST_TEST((second.identifier() == "i"));
    BOOST_TEST((second.uuid() == "u"));
    BOOST_TEST(second.payload().isNull());
    BOOST_TEST(first.category().isNull());  // NOLINT(bugprone-use-after-move)
    BOOST_TEST(first.uuid().isNull());
}

// What it held before is freed: the address sanitizer sees it otherwise.
BOOST_AUTO_TEST_CASE(aMessageIsReplaced) {
    kavri::Request request({1, 2}, copyOf("c"), copyOf("i"), copyOf("u"), copyOf("p"));
    request = kavri::Request({3, 4}, copyOf("C"), copyOf("I"), copyOf("U"), copyOf("P"));
    BOOST_TEST(request.name().token == 3U);
    BOOST_TEST(request.name().connection == 4U);
    BOOST_TEST((request.payload() == "P"));
}

BOOST_AUTO_TEST_CASE(anErrorHasTheStatusAndSaysTheCall) {
    const kavri::Error error(KAVRI_CORE_STATUS_IPC_NO_RESPONDER, "asking");
    BOOST_TEST(error.status() == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    BOOST_TEST(error.what() == "asking: no responder");
}

BOOST_AUTO_TEST_CASE(aResultHasAValueOrAStatus) {
    kavri::Result<std::string> value(std::string("value"));
    BOOST_TEST(value.hasValue());
    BOOST_TEST(value.status() == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(*value == "value");
    BOOST_TEST(value->size() == 5U);
    BOOST_TEST(std::move(value).value() == "value");

    const kavri::Result<std::string> failure(KAVRI_CORE_STATUS_IPC_REFUSED);
    BOOST_TEST(!failure);
    BOOST_TEST(failure.status() == KAVRI_CORE_STATUS_IPC_REFUSED);
    BOOST_CHECK_EXCEPTION((void)failure.value(), kavri::Error, [](const kavri::Error& error) {
        return error.status() == KAVRI_CORE_STATUS_IPC_REFUSED;
    });
}

// As the opening comment of ipc.h lists them.
BOOST_AUTO_TEST_CASE(someFailuresAreKnownNotToBeDelivered) {
    for (const kavri::Status status :
         {KAVRI_CORE_STATUS_IPC_NO_RESPONDER, KAVRI_CORE_STATUS_IPC_REFUSED,
          KAVRI_CORE_STATUS_IPC_TOO_LARGE, KAVRI_CORE_STATUS_IPC_OVERLOADED,
          KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE}) {
        BOOST_TEST(kavri::isCertainlyNotDelivered(status));
    }
    for (const kavri::Status status :
         {KAVRI_CORE_STATUS_NO_ERROR, KAVRI_CORE_STATUS_IPC_NO_MESSAGE,
          KAVRI_CORE_STATUS_IPC_RESPONDER_LOST, KAVRI_CORE_STATUS_IPC_CONNECTION_LOST}) {
        BOOST_TEST(!kavri::isCertainlyNotDelivered(status));
    }
}
