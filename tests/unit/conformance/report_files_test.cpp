// The files of a report: written again as a whole, and what happens where they
// cannot be.
#define BOOST_TEST_MODULE reportFiles

#include "conformance/report/report_files.h"

#include <sys/stat.h>

#include <boost/test/unit_test.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "conformance/report/html/report_page.h"
#include "conformance/report/junit_report.h"
#include "process/exit_status.h"
#include "process/temporary_folder.h"

using kavri::conformance::junitReport;
using kavri::conformance::Report;
using kavri::conformance::ReportFiles;
using kavri::conformance::reportPage;
using kavri::conformance::ReportPlaces;
using kavri::conformance::toJson;
using kavri::process::CommandFailure;
using kavri::process::ExitStatus;
using kavri::process::TemporaryFolder;

namespace {

namespace fs = std::filesystem;

std::string rest(std::istream& stream) {
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    BOOST_TEST_REQUIRE(stream.is_open(), file.string());
    return rest(stream);
}

// A report that differs from those with another number of cases.
Report reportOf(unsigned cases) {
    Report report;
    report.date = "2026-11-20T12:00:00Z";
    report.libraries.emplace_back().name = "a library";
    for (unsigned i = 0; i < cases; ++i) {
        report.libraries.back().cases.emplace_back().name = "send/case" + std::to_string(i);
    }
    return report;
}

std::string jsonOf(const Report& report) {
    return toJson(report).dump(1) + "\n";
}

struct Places {
    TemporaryFolder folder;
    fs::path junit = folder / "report.xml";
    fs::path json = folder / "report.json";
    fs::path html = folder / "page";
    fs::path page = html / "index.html";

    ReportPlaces all() const { return {junit.string(), json.string(), html.string()}; }

    ReportPlaces junitAndJson() const { return {junit.string(), json.string(), std::nullopt}; }

    // Where a file is written before it takes the place of the old one.
    static fs::path freshOf(const fs::path& file) { return file.string() + ".new"; }

    void checkAll(const Report& report) const {
        BOOST_TEST(contentOf(junit) == junitReport(report));
        BOOST_TEST(contentOf(json) == jsonOf(report));
        BOOST_TEST(contentOf(page) == reportPage(toJson(report)));
    }

    void checkEntries(const std::set<std::string>& expected) const {
        std::set<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
            found.insert(fs::relative(entry.path(), folder.path()).string());
        }
        BOOST_TEST(found == expected, boost::test_tools::per_element());
    }

    // That there is no run with these places, and that the file is named.
    void checkRefused(const ReportPlaces& places, const fs::path& named,
                      const std::string& reason) const {
        BOOST_CHECK_EXCEPTION(
            ReportFiles(places, reportOf(0)), CommandFailure, [&](const CommandFailure& failure) {
                const std::string line = failure.what();
                BOOST_TEST(line.find(named.string() + ": " + reason) != line.npos, line);
                return failure.status() == ExitStatus::couldNotRun;
            });
    }

    // A folder that is not empty: it can be neither written to nor taken away.
    static void obstruct(const fs::path& file) { fs::create_directories(file / "in the way"); }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(reportFiles, Places)

BOOST_AUTO_TEST_CASE(allThreeAreThereFromTheBeginning) {
    const ReportFiles files(all(), reportOf(0));
    checkAll(reportOf(0));
    checkEntries({"report.xml", "report.json", "page", "page/index.html"});
    BOOST_TEST(files.complaint().empty());
}

BOOST_AUTO_TEST_CASE(onlyWhatIsAskedForIsWritten) {
    ReportFiles nothing({}, reportOf(1));
    nothing.update(reportOf(2));
    checkEntries({});
    const ReportFiles oneFile(ReportPlaces{junit.string(), std::nullopt, std::nullopt},
                              reportOf(1));
    checkEntries({"report.xml"});
    const ReportFiles onePage(ReportPlaces{std::nullopt, std::nullopt, html.string()}, reportOf(1));
    checkEntries({"report.xml", "page", "page/index.html"});
}

BOOST_AUTO_TEST_CASE(theFoldersOfThePageAreMade) {
    html = folder / "not/there/yet";
    const ReportFiles files({std::nullopt, std::nullopt, html.string()}, reportOf(1));
    BOOST_TEST(contentOf(html / "index.html") == reportPage(toJson(reportOf(1))));
}

BOOST_AUTO_TEST_CASE(anUpdateReplacesEachFileAsAWhole) {
    ReportFiles files(all(), reportOf(5));
    files.update(reportOf(1));
    checkAll(reportOf(1));
    checkEntries({"report.xml", "report.json", "page", "page/index.html"});
    files.update(reportOf(9));
    checkAll(reportOf(9));
}

BOOST_AUTO_TEST_CASE(aReaderReadsTheOldFileToItsEnd) {
    ReportFiles files(all(), reportOf(5));
    std::ifstream old(json);
    std::string firstLine;
    std::getline(old, firstLine);
    files.update(reportOf(1));
    BOOST_TEST(firstLine + "\n" + rest(old) == jsonOf(reportOf(5)));
}

BOOST_AUTO_TEST_CASE(aReportFromBeforeIsReplaced) {
    std::ofstream(json) << "from the last run";
    const ReportFiles files(all(), reportOf(1));
    checkAll(reportOf(1));
}

BOOST_AUTO_TEST_CASE(textsThatAreNoUtf8AreWrittenToo) {
    Report report = reportOf(1);
    report.libraries[0].cases[0].crash = "\xff";
    const ReportFiles files(all(), report);
    BOOST_TEST(nlohmann::json::parse(contentOf(json))["libraries"][0]["cases"][0]["crash"] ==
               "\xef\xbf\xbd");
}

BOOST_AUTO_TEST_CASE(withoutItsFolderAFileCannotBeWritten) {
    const fs::path nowhere = folder / "not there" / "report";
    checkRefused({nowhere.string(), std::nullopt, std::nullopt}, nowhere,
                 "No such file or directory");
    checkRefused({std::nullopt, nowhere.string(), std::nullopt}, nowhere,
                 "No such file or directory");
}

BOOST_AUTO_TEST_CASE(noFolderCanReplaceAFile) {
    std::ofstream(html) << "a file";
    checkRefused(all(), html, "Not a directory");
    BOOST_TEST(contentOf(html) == "a file");
}

BOOST_AUTO_TEST_CASE(noFileCanReplaceAFolder) {
    obstruct(page);
    checkRefused(all(), page, "Is a directory");
    obstruct(freshOf(json));
    checkRefused(junitAndJson(), json, "Is a directory");
}

BOOST_AUTO_TEST_CASE(withAFullDiskThereIsNoRun) {
    fs::create_symlink("/dev/full", freshOf(json));
    checkRefused(all(), json, "No space left on device");
    BOOST_TEST(!fs::exists(json));
}

BOOST_AUTO_TEST_CASE(aDiskThatIsFullLaterLeavesTheOldFile) {
    ReportFiles files(all(), reportOf(1));
    fs::create_symlink("/dev/full", freshOf(json));
    files.update(reportOf(2));
    BOOST_TEST(contentOf(json) == jsonOf(reportOf(1)));
    BOOST_TEST(contentOf(junit) == junitReport(reportOf(2)));
    BOOST_TEST(contentOf(page) == reportPage(toJson(reportOf(2))));
    BOOST_TEST(files.complaint() == "cannot write " + json.string() +
                                        ": No space left on device; what was there before is kept");
    checkEntries({"report.xml", "report.json", "page", "page/index.html"});
    // There is room again.
    files.update(reportOf(3));
    checkAll(reportOf(3));
}

BOOST_AUTO_TEST_CASE(aFileThatCannotBeWrittenAnyMoreIsComplainedOfOnce) {
    ReportFiles files(junitAndJson(), reportOf(1));
    obstruct(freshOf(junit));
    files.update(reportOf(2));
    const std::string complaint =
        "cannot write " + junit.string() + ": Is a directory; what was there before is kept";
    BOOST_TEST(files.complaint() == complaint);
    files.update(reportOf(3));
    BOOST_TEST(contentOf(junit) == junitReport(reportOf(1)));
    BOOST_TEST(contentOf(json) == jsonOf(reportOf(3)));
    obstruct(freshOf(json));
    files.update(reportOf(4));
    BOOST_TEST(files.complaint() == complaint);
    BOOST_TEST(contentOf(json) == jsonOf(reportOf(3)));
}

// It keeps all that was written: who reads the first report would take it for the verdict.
BOOST_AUTO_TEST_CASE(aPipeGetsTheLastReportAlone) {
    BOOST_REQUIRE(mkfifo(json.c_str(), 0600) == 0);
    std::ifstream reader;
    ReportFiles files(junitAndJson(), reportOf(1));
    files.update(reportOf(2));
    std::thread reading([&] { reader.open(json); });
    files.finish(reportOf(3));
    reading.join();
    BOOST_TEST(rest(reader) == jsonOf(reportOf(3)));
    BOOST_TEST(contentOf(junit) == junitReport(reportOf(3)));
    BOOST_TEST(files.complaint() == "");
}

BOOST_AUTO_TEST_CASE(aDeviceThatIsFullIsComplainedOf) {
    ReportFiles files({std::nullopt, "/dev/full", std::nullopt}, reportOf(1));
    BOOST_TEST(files.complaint() == "");
    files.finish(reportOf(2));
    BOOST_TEST(files.complaint() == "cannot write /dev/full: No space left on device");
}

BOOST_AUTO_TEST_CASE(aFolderThatGoesAwayStopsNothing) {
    ReportFiles files(all(), reportOf(1));
    fs::remove_all(html);
    files.update(reportOf(2));
    BOOST_TEST(files.complaint() == "cannot write " + page.string() +
                                        ": No such file or directory; what was there before is "
                                        "kept");
    BOOST_TEST(contentOf(json) == jsonOf(reportOf(2)));
}

BOOST_AUTO_TEST_SUITE_END()
