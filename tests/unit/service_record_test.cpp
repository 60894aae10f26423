// What the test service writes of each request, and where it cannot.
#define BOOST_TEST_MODULE serviceRecord

#include "test_service/service_record.h"

#include <boost/test/unit_test.hpp>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "process/temporary_folder.h"

using kavri::test_service::RecordedRequest;
using kavri::test_service::ServiceRecord;

namespace {

struct InAFolder {
    kavri::process::TemporaryFolder folder;
    const std::string file = folder / "record";

    std::vector<std::string> lines() const {
        std::ifstream stream(file);
        std::vector<std::string> result;
        for (std::string line; std::getline(stream, line);) {
            result.push_back(line);
        }
        return result;
    }
};

const RecordedRequest echo = {.connection = 3,
                              .process = 4711,
                              .category = "test",
                              .identifier = "echo",
                              .uuid = "0",
                              .payload = "a"};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aRequestIsALineWithItsAnswer, InAFolder) {
    ServiceRecord(file).add(echo, {.answers = true, .publishes = false, .payload = "b"});
    BOOST_REQUIRE_EQUAL(lines().size(), 1U);
    BOOST_TEST(lines()[0] ==
               R"({"connection":3,"process":4711,)"
               R"("request":{"category":"test","identifier":"echo","uuid":"0","payload":"a"},)"
               R"("answer":{"category":"test","identifier":"echo","uuid":"0","payload":"b"},)"
               R"("event":null})");
}

BOOST_FIXTURE_TEST_CASE(anEventHasTheRequestsPayload, InAFolder) {
    ServiceRecord(file).add(echo, {.answers = false, .publishes = true, .payload = ""});
    const auto line = nlohmann::json::parse(lines().at(0));
    BOOST_TEST(line["answer"].is_null());
    BOOST_TEST(line["event"].dump() == R"({"category":"test","identifier":"event","payload":"a"})");
}

BOOST_FIXTURE_TEST_CASE(whoAskedMayBeUnknown, InAFolder) {
    RecordedRequest request = echo;
    request.connection = std::nullopt;
    request.process = std::nullopt;
    ServiceRecord(file).add(request, {});
    const auto line = nlohmann::json::parse(lines().at(0));
    BOOST_TEST(line["connection"].is_null());
    BOOST_TEST(line["process"].is_null());
}

BOOST_FIXTURE_TEST_CASE(aLongTextIsCut, InAFolder) {
    RecordedRequest request = echo;
    const std::string payload(300, 'x');
    request.payload = payload;
    ServiceRecord(file).add(request, {.answers = true, .publishes = false, .payload = payload});
    const auto line = nlohmann::json::parse(lines().at(0));
    BOOST_TEST(line["request"]["payload"] == std::string(200, 'x') + "…");
    BOOST_TEST(line["answer"]["payload"] == std::string(200, 'x') + "…");
}

BOOST_FIXTURE_TEST_CASE(bytesThatAreNoTextStayOnTheLine, InAFolder) {
    RecordedRequest request = echo;
    request.payload = "a\n\xff\"";
    ServiceRecord(file).add(request, {});
    BOOST_REQUIRE_EQUAL(lines().size(), 1U);
    BOOST_TEST(nlohmann::json::parse(lines()[0])["request"]["payload"] == "a\n\xef\xbf\xbd\"");
}

BOOST_FIXTURE_TEST_CASE(aFileThatIsThereIsAppendedTo, InAFolder) {
    ServiceRecord(file).add(echo, {});
    ServiceRecord(file).add(echo, {});
    BOOST_TEST(lines().size() == 2U);
}

BOOST_AUTO_TEST_CASE(aFileThatCannotBeWrittenIsNamed) {
    const auto names = [](const char* file) {
        return [file](const std::system_error& error) {
            return std::string(error.what()).find(file) != std::string::npos;
        };
    };
    BOOST_CHECK_EXCEPTION(ServiceRecord("/no/such/folder/record"), std::system_error,
                          names("/no/such/folder/record"));
    const ServiceRecord full("/dev/full");
    BOOST_CHECK_EXCEPTION(full.add(echo, {}), std::system_error, names("/dev/full"));
}
