// Reading the record of the service while it is written, and which of its lines belong to a
// case.
#define BOOST_TEST_MODULE serviceEvidence

#include "conformance/module/service_evidence.h"

#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <fstream>
#include <thread>

#include "base/pipe.h"
#include "process/exit_status.h"
#include "process/temporary_folder.h"

using namespace kavri::conformance;
using kavri::base::Pipe;

namespace {

using Lines = std::vector<std::string>;

constexpr std::chrono::seconds longEnough{20};
constexpr int neverInterrupted = -1;

std::string lineOf(int connection, int process, const std::string& uuid) {
    return R"({"connection":)" + std::to_string(connection) + R"(,"process":)" +
           std::to_string(process) +
           R"(,"request":{"category":"test","identifier":"echo","uuid":")" + uuid +
           R"(","payload":""},"answer":null,"event":null})" + "\n";
}

// Requests with these uuids.
CaseTraffic sent(const Lines& uuids) {
    CaseTraffic traffic;
    for (const std::string& uuid : uuids) {
        traffic.requests.push_back({"test", "echo", uuid, ""});
    }
    return traffic;
}

struct ByPipe {
    Pipe pipe = Pipe::make();
    ServiceEvidence evidence{std::move(pipe.readEnd)};

    void serve(const std::string& text) const {
        BOOST_REQUIRE(write(pipe.writeEnd.get(), text.data(), text.size()) ==
                      static_cast<ssize_t>(text.size()));
    }
    Lines compare(const CaseTraffic& traffic, std::chrono::milliseconds limit = longEnough) {
        return evidence.compare(traffic, ServiceEvidence::Clock::now() + limit, neverInterrupted);
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(whatWasWrittenIsCompared, ByPipe) {
    BOOST_TEST(!evidence.hasSeenRequests());
    serve(lineOf(1, 7, "0") + lineOf(1, 7, "1"));
    BOOST_TEST(compare(sent({"0", "1"})).empty());
    BOOST_TEST(compare(sent({"0", "2"})).size() == 1U);
    BOOST_TEST(evidence.hasSeenRequests());
}

BOOST_FIXTURE_TEST_CASE(aLineMayComeInPieces, ByPipe) {
    const std::string line = lineOf(1, 7, "0");
    serve(line.substr(0, 30));
    evidence.read();
    serve(line.substr(30));
    BOOST_TEST(compare(sent({"0"})).empty());
}

BOOST_FIXTURE_TEST_CASE(aRequestThatIsUnderWayIsWaitedFor, ByPipe) {
    serve(lineOf(1, 7, "0"));
    evidence.read();
    std::thread service([this] { serve(lineOf(1, 7, "1")); });
    const Lines lines = compare(sent({"0", "1"}));
    service.join();
    BOOST_TEST(lines.empty());
}

BOOST_FIXTURE_TEST_CASE(theWaitEndsAtTheDeadlineAndWithTheService, ByPipe) {
    BOOST_TEST(compare(sent({"0"}), std::chrono::milliseconds(5)).size() == 1U);
    pipe.writeEnd.close();
    BOOST_TEST(compare(sent({"0"})).size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(eachCaseHasItsOwnRequests, ByPipe) {
    serve(lineOf(1, 7, "0"));
    BOOST_TEST(compare(sent({"0"})).empty());
    evidence.beginCase();
    serve(lineOf(2, 7, "1"));
    BOOST_TEST(compare(sent({"1"})).empty());
}

// Those of a case that failed before they arrived.
BOOST_FIXTURE_TEST_CASE(lateRequestsAreNotTheNextCases, ByPipe) {
    serve(lineOf(1, 7, "0"));
    evidence.beginCase();
    serve(lineOf(1, 7, "late") + lineOf(2, 7, "1"));
    BOOST_TEST(compare(sent({"1"})).empty());
    evidence.beginCase();
    serve(lineOf(1, 7, "late"));
    BOOST_TEST(compare(sent({})).empty());
}

BOOST_FIXTURE_TEST_CASE(aLibraryMayKeepItsConnection, ByPipe) {
    serve(lineOf(1, 7, "0"));
    evidence.beginCase();
    serve(lineOf(1, 7, "1"));
    BOOST_TEST(compare(sent({"1"})).empty());
}

BOOST_FIXTURE_TEST_CASE(whatAnEndedModuleHadSentBelongsToNobody, ByPipe) {
    serve(lineOf(1, 7, "0"));
    evidence.endModule(7);
    serve(lineOf(2, 7, "late") + lineOf(3, 8, "1"));
    BOOST_TEST(compare(sent({"1"})).empty());
}

BOOST_FIXTURE_TEST_CASE(aFloodIsCountedAndNotKept, ByPipe) {
    for (int i = 0; i < 1200; ++i) {
        serve(lineOf(1, 7, "0"));
        evidence.read();
    }
    const Lines lines = compare(sent({"0"}));
    BOOST_REQUIRE_EQUAL(lines.size(), 2U);
    BOOST_TEST(lines[1] == "the service got 200 further requests");
}

BOOST_FIXTURE_TEST_CASE(aLineOfAnotherFormIsShown, ByPipe) {
    serve("nonsense\n");
    BOOST_TEST(
        compare(sent({})) == Lines{"the service's record has a line of another form: nonsense"},
        boost::test_tools::per_element());
    evidence.beginCase();
    serve(std::string(60000, 'x'));
    evidence.read();
    serve(std::string(10000, 'x'));
    BOOST_TEST(compare(sent({})).size() == 1U);
}

BOOST_AUTO_TEST_CASE(ofAFileWhatIsAppendedCounts) {
    const kavri::process::TemporaryFolder folder;
    const std::filesystem::path file = folder / "record";
    std::ofstream stream(file);
    stream << lineOf(1, 7, "before") << std::flush;
    ServiceEvidence evidence(file);
    BOOST_TEST(evidence.descriptor() == -1);
    const auto compare = [&] {
        return evidence.compare(sent({"0"}), ServiceEvidence::Clock::now() + longEnough,
                                neverInterrupted);
    };
    stream << lineOf(2, 7, "0") << std::flush;
    BOOST_TEST(compare().empty());
    evidence.beginCase();
    stream << lineOf(3, 7, "0") << std::flush;
    BOOST_TEST(compare().empty());
}

BOOST_AUTO_TEST_CASE(aFileThatIsNotThereIsNamed) {
    BOOST_CHECK_EXCEPTION(ServiceEvidence(std::filesystem::path("/no/such/record")),
                          kavri::process::CommandFailure, [](const auto& failure) {
                              return std::string(failure.what()).find("/no/such/record") !=
                                     std::string::npos;
                          });
}
