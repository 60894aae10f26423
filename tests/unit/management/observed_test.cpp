// How what was observed is read, and shown to people and programs.
#define BOOST_TEST_MODULE observed

#include "management/observed.h"

#include <boost/test/unit_test.hpp>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "support/frames.h"

using namespace kavri::tests;
using kavri::management::jsonOf;
using kavri::management::Observed;
using kavri::management::readObserved;
using kavri::management::textOf;

namespace {

// 2026-11-22 13:05:11.000042 UTC.
const std::string moment = "at=1795352711000042\n";

Observed read(const std::string& lines, const Fields& fields = {}, std::uint64_t token = 7,
              std::uint16_t status = 0) {
    Frame frame = makeFrame(FrameType::observed, token, fields, status);
    const std::string payload = moment + lines;
    frame[Field::payload] = payload;
    return readObserved(frame);
}

const std::string responseLines =
    "type=response\nfrom=6/4712/1000\nto=5/4711/0\nbytes=81\npayload_bytes=5\n"
    "elapsed_ns=42100\n";
const Fields echo = {.category = "test", .identifier = "echo", .uuid = "u"};

struct InUtc {
    InUtc() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

}  // namespace

BOOST_TEST_GLOBAL_FIXTURE(InUtc);

BOOST_AUTO_TEST_SUITE(asText)

BOOST_AUTO_TEST_CASE(ofAResponse) {
    BOOST_TEST(textOf(read(responseLines, echo)) ==
               "13:05:11.000042  response      6[4712] -> 5[4711]  test/echo  token 7  81 B "
               "(payload 5)  after 42.1 us");
}

BOOST_AUTO_TEST_CASE(ofWhatIsRefusedOrDropped) {
    BOOST_TEST(
        textOf(read("type=request\nfrom=5/4711/0\nbytes=42\npayload_bytes=0\n", echo, 7, 10)) ==
        "13:05:11.000042  request       5[4711] -> broker  test/echo  token 7  42 B "
        "(payload 0)  status 10: no responder");
    BOOST_TEST(textOf(read("type=completion\nfrom=6/4712/0\nbytes=32\ndropped=1\n",
                           {.category = "test"})) ==
               "13:05:11.000042  completion    6[4712] -> broker  test  token 7  32 B  dropped");
}

BOOST_AUTO_TEST_CASE(ofAnEvent) {
    const auto event = [](int receivers) {
        return textOf(read("type=event\nfrom=6/4712/0\nreceivers=" + std::to_string(receivers) +
                               "\nbytes=45\npayload_bytes=4\n",
                           {.category = "test", .identifier = "news"}, 0));
    };
    BOOST_TEST(event(1000).find("6[4712] -> 1000 subscribers  test/news") != std::string::npos);
    BOOST_TEST(event(1).find("6[4712] -> 1 subscriber  test/news") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(ofAnEnd) {
    BOOST_TEST(
        textOf(read("type=close\nfrom=5/4711/0\nreason=malformed: it \x1b[31m\n", {}, 0, 9)) ==
        "13:05:11.000042  close         5[4711]  status 9: refused by the broker  "
        "malformed: it \\x1b[31m");
}

BOOST_AUTO_TEST_CASE(ofWhatWasLost) {
    BOOST_TEST(textOf(read("lost=1\n", {}, 0)) == "13:05:11.000042  ... 1 lost");
    BOOST_TEST(textOf(read("lost=123\n", {}, 0)) == "13:05:11.000042  ... 123 lost");
    BOOST_TEST(textOf(read("lost=1234567\n", {}, 0)) == "13:05:11.000042  ... 1,234,567 lost");
}

BOOST_AUTO_TEST_CASE(ofAPayload) {
    const std::string lines = "type=event\nfrom=6/1/0\nreceivers=0\nbytes=60\npayload_bytes=";
    BOOST_TEST(textOf(read(lines + "5\n\na\n\nb\x9b")).ends_with("  \"a\\n\\nb\\x9b\""));
    BOOST_TEST(textOf(read(lines + "7\n\nhello")).ends_with("  \"hello… (2 bytes more)\""));
    BOOST_TEST(textOf(read(lines + "0\n\n")).ends_with("  \"\""));
}

BOOST_AUTO_TEST_CASE(ofNamesThatAreMeantToHarm) {
    const std::string control = "\x1b]0;title\x07\n\xff";
    const std::string text = textOf(read(responseLines, {.category = control, .identifier = "\r"}));
    BOOST_TEST(text.find("  \\x1b]0;title\\x07\\n\\xff/\\x0d  ") != std::string::npos);
    const std::string longest(256, 'n');
    const std::string cut =
        textOf(read(responseLines + "category_bytes=65536\n", {.category = longest}));
    BOOST_TEST(cut.find("  " + std::string(60, 'n') + "… (65476 bytes more)  ") !=
               std::string::npos);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(asJson)

BOOST_AUTO_TEST_CASE(ofAResponse) {
    BOOST_TEST(
        jsonOf(read(responseLines, echo)) ==
        R"({"time":"2026-11-22T13:05:11.000042Z","type":"response",)"
        R"("from":{"connection":6,"process":4712,"user":1000},)"
        R"("to":{"connection":5,"process":4711,"user":0},"token":7,"bytes":81,)"
        R"("category":"test","identifier":"echo","uuid":"u","payload_bytes":5,"elapsed_us":42.1})");
}

BOOST_AUTO_TEST_CASE(ofEverythingElse) {
    const auto json = nlohmann::json::parse(
        jsonOf(read("type=event\nfrom=6/4712/0\nreceivers=3\nbytes=45\ndropped=1\nreason=why\n"
                    "uuid_bytes=300\npayload_bytes=5\ncolour=red\n\nhel",
                    {.uuid = "u"}, 0, 14)));
    BOOST_TEST(json.at("receivers") == 3);
    BOOST_TEST(json.at("dropped") == true);
    BOOST_TEST(json.at("reason") == "why");
    BOOST_TEST(json.at("uuid_bytes") == 300);
    BOOST_TEST(json.at("status") == 14);
    BOOST_TEST(json.at("status_text") == "overloaded");
    BOOST_TEST(json.at("payload") == "hel");
    BOOST_TEST(!json.contains("to"));
    BOOST_TEST(!json.contains("category"));
    BOOST_TEST(!json.contains("colour"));
}

BOOST_AUTO_TEST_CASE(ofWhatWasLost) {
    BOOST_TEST(jsonOf(read("lost=1234\n", {}, 0)) ==
               R"({"time":"2026-11-22T13:05:11.000042Z","lost":1234})");
}

BOOST_AUTO_TEST_CASE(isValidWhateverTheTexts) {
    const auto json = nlohmann::json::parse(
        jsonOf(read("type=\xff\nreason=\xc3\nbytes=1\npayload_bytes=3\n\n\xe2\x82",
                    {.category = "\x80\"\\\x01", .identifier = "\xed\xa0\x80", .uuid = "\xc3"})));
    BOOST_TEST(json.at("category") == "\xef\xbf\xbd\"\\\x01");
    BOOST_TEST(json.at("payload") == "\xef\xbf\xbd");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(reading)

BOOST_AUTO_TEST_CASE(numbersThatAreNoneAreZero) {
    const Observed observed =
        read("bytes=x\nfrom=1\nto=//\ntype=ping\nelapsed_ns=-1\n=\nnothing\n");
    BOOST_TEST(observed.frameBytes.value() == 0U);
    BOOST_TEST(observed.from->connection == 1U);
    BOOST_TEST(observed.to->user == 0U);
    BOOST_TEST(textOf(observed).starts_with("13:05:11.000042  ping "));
}

BOOST_AUTO_TEST_CASE(aTimeBeyondTheCalendarIsShown) {
    Frame frame = makeFrame(FrameType::observed, 0);
    frame[Field::payload] = "at=18446744073709551615\ntype=ping\n";
    BOOST_TEST(textOf(readObserved(frame)).starts_with("23:59:59.999999  ping "));
    BOOST_TEST(jsonOf(readObserved(frame)).find("9999-12-31T23:59:59.999999Z") !=
               std::string::npos);
}

BOOST_AUTO_TEST_SUITE_END()
