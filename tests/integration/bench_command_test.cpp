// `kavri bench` against the real broker: what it prints, and how it says what
// is wrong. Nothing here depends on how fast anything is.
#define BOOST_TEST_MODULE benchCommand
#include <boost/test/unit_test.hpp>
#include <nlohmann/json.hpp>

#include "process/temporary_folder.h"
#include "support/service_process.h"

using kavri::tests::BrokerProcess;

namespace {

struct Result {
    int status = -1;
    std::string output;
    std::string error;
};

struct Folder {
    kavri::process::TemporaryFolder folder;
    std::filesystem::path socket = folder.path() / "broker.sock";

    Result bench(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"bench", "--socket", socket, "--seconds", "0.05"});
        kavri::process::ChildProcess process(
            {.program = KAVRI_BIN_DIR "/kavri", .arguments = std::move(arguments)});
        const auto exit = process.wait(kavri::tests::patience);
        BOOST_REQUIRE(exit);
        BOOST_TEST(exit->signal == 0);
        return {exit->code, process.output(), process.error()};
    }
};

void refuses(const Result& result, int status, const std::string& reason) {
    BOOST_TEST(result.status == status);
    BOOST_TEST(result.output.empty());
    BOOST_TEST(std::ranges::count(result.error, '\n') == 1);
    BOOST_TEST(result.error.find(reason) != std::string::npos, result.error);
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(benchCommand, Folder)

BOOST_AUTO_TEST_CASE(printsALinePerMeasurementAndNothingElse) {
    const BrokerProcess broker(socket, {.testService = true});
    const Result result = bench({"--in-flight", "8"});
    BOOST_TEST(result.status == 0);
    BOOST_TEST(result.error.empty(), result.error);
    BOOST_TEST(std::ranges::count(result.output, '\n') == 2);
    BOOST_TEST(result.output.starts_with("one at a time"));
    BOOST_TEST(result.output.find("\n8 in flight") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(printsJsonWhoseFiguresFitTogether) {
    const BrokerProcess broker(socket, {.testService = true});
    const Result result = bench({"--json", "--payload", "1000", "--in-flight", "4"});
    BOOST_TEST_REQUIRE(result.status == 0, result.error);
    const auto report = nlohmann::json::parse(result.output);
    BOOST_TEST(report.at("payload_bytes") == 1000);
    BOOST_TEST(report.at("one_at_a_time").at("in_flight") == 1);
    BOOST_TEST(report.at("in_flight").at("in_flight") == 4);
    for (const char* name : {"one_at_a_time", "in_flight"}) {
        const auto& measured = report.at(name);
        BOOST_TEST(measured.at("round_trips") > 0);
        BOOST_TEST(measured.at("round_trips_per_second") > 0);
        double before = 0;
        for (const char* point : {"min", "p50", "p90", "p99", "p99.9", "max"}) {
            const double latency = measured.at("latency_us").at(point);
            BOOST_TEST(latency >= before, point);
            before = latency;
        }
    }
}

BOOST_AUTO_TEST_CASE(aCommandThatIsNoEchoNeedsNoEqualPayload) {
    const BrokerProcess broker(socket, {.testService = true});
    BOOST_TEST(bench({"--command", "static_response"}).status == 0);
}

BOOST_AUTO_TEST_CASE(noBrokerIsSaidInOneLine) {
    refuses(bench({}), 3, "broker unavailable");
}

BOOST_AUTO_TEST_CASE(aCategoryThatNobodyServesIsSaidInOneLine) {
    const BrokerProcess broker(socket);
    refuses(bench({}), 3, "nobody serves category 'test'");
}

BOOST_AUTO_TEST_CASE(aPayloadAboveTheBrokersLimitIsSaidInOneLine) {
    const BrokerProcess broker(socket,
                               {.testService = true, .config = "[limits]\npayload_bytes = 100\n"});
    refuses(bench({"--payload", "101"}), 3, "message too large");
}

BOOST_AUTO_TEST_CASE(wrongUsageIsSaidInOneLine) {
    refuses(bench({"--paylod", "3"}), 64, "did you mean '--payload'?");
    refuses(bench({"--verbose"}), 64, "--verbose; see 'kavri bench --help'");
    refuses(bench({"--in-flight", "0"}), 64, "--in-flight");
    refuses(bench({"--", "--log_level=all"}), 64, "--log_level=all");
}

BOOST_AUTO_TEST_SUITE_END()
