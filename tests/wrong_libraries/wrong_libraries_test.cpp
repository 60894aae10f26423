// Proves what the kit says of each wrong library: runs `kavri conformance` once for each row
// of table.toml, several at a time, and compares exit status, verdict and what is shown.
// With names behind --, such as answers.wrong_payload, it runs these rows alone.
#define BOOST_TEST_MODULE wrongLibraries
#include <toml++/toml.h>

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "conformance/run/work_share.h"
#include "process/child_process.h"
#include "process/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using namespace kavri;

const fs::path rooms = fs::path(KAVRI_SOURCE_DIR) / "tests/wrong_libraries";

// Long enough on a busy machine, short enough to end a test that hangs.
constexpr std::chrono::seconds longEnough{60};
constexpr std::chrono::seconds readyTime{20};
// The cases mostly sleep.
constexpr unsigned jobsPerProcessor = 4;

struct Row {
    std::string name;                             // "room.library"
    std::string library;                          // "room/library"
    std::vector<std::vector<std::string>> start;  // programs that must be ready before
    std::vector<std::string> options;
    int exit = 0;
    std::string verdict;
    std::vector<std::string> says;
};

struct Result {
    std::optional<process::ExitState> exit{};
    std::string shown{};
    std::string verdict{};
    bool leftSomething = false;
};

// The texts of a list; the end of the test where it is none.
std::vector<std::string> textsIn(const toml::node* list) {
    std::vector<std::string> texts;
    for (const toml::node& text : *list->as_array()) {
        texts.push_back(text.value<std::string>().value());
    }
    return texts;
}

Row readRow(std::string_view room, std::string_view name, const toml::table& values) {
    Row row;
    row.name = std::string(room) + "." + std::string(name);
    row.library = values["library"].value_or(std::string(room) + "/" + std::string(name));
    for (const auto& [key, value] : values) {
        static const std::set<std::string_view> known = {"library", "start",   "options",
                                                         "exit",    "verdict", "says"};
        BOOST_REQUIRE_MESSAGE(known.contains(key.str()),
                              row.name << " has an unknown key " << key.str());
    }
    if (const toml::array* programs = values["start"].as_array()) {
        for (const toml::node& program : *programs) {
            row.start.push_back(textsIn(&program));
        }
    }
    if (const toml::node* options = values.get("options")) {
        row.options = textsIn(options);
    }
    row.exit = values["exit"].value<int>().value();
    row.verdict = values["verdict"].value<std::string>().value();
    row.says = textsIn(values.get("says"));
    return row;
}

std::vector<Row> readTable() {
    std::vector<Row> rows;
    for (const auto& [room, libraries] : toml::parse_file((rooms / "table.toml").string())) {
        for (const auto& [name, values] : *libraries.as_table()) {
            rows.push_back(readRow(room.str(), name.str(), *values.as_table()));
        }
    }
    return rows;
}

std::vector<Row> chosenRows() {
    const auto& suite = boost::unit_test::framework::master_test_suite();
    const std::set<std::string> chosen(suite.argv + 1, suite.argv + suite.argc);
    std::vector<Row> rows = readTable();
    if (!chosen.empty()) {
        std::erase_if(rows, [&](const Row& row) { return !chosen.contains(row.name); });
        BOOST_REQUIRE_EQUAL(rows.size(), chosen.size());
    }
    return rows;
}

std::string inFolder(std::string text, const fs::path& folder) {
    const std::string mark = "{dir}";
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
        text.replace(at, mark.size(), folder.string());
    }
    return text;
}

process::ChildSpawn spawnOf(const std::string& program, const std::vector<std::string>& arguments,
                            const fs::path& folder) {
    process::ChildSpawn spawn = {.program = fs::path(KAVRI_BIN_DIR) / program};
    for (const std::string& argument : arguments) {
        spawn.arguments.push_back(inFolder(argument, folder));
    }
    spawn.environment["TMPDIR"] = folder / "temporary";
    // Where the library of the other protocol finds its broker.
    spawn.environment["OTHER_BROKER"] = folder / "other.sock";
    return spawn;
}

std::string verdictIn(const fs::path& report) {
    std::ifstream file(report);
    return file ? nlohmann::json::parse(file).at("verdict").get<std::string>() : "";
}

Result run(const Row& row) {
    const process::TemporaryFolder folder;
    fs::create_directory(folder / "temporary");
    std::vector<process::ChildProcess> started;
    for (const std::vector<std::string>& words : row.start) {
        started.emplace_back(
            spawnOf(words.front(), {words.begin() + 1, words.end()}, folder.path()));
        if (!started.back().waitForError("ready", readyTime)) {
            return {.shown = words.front() + " is not ready: " + started.back().error()};
        }
    }
    std::vector<std::string> arguments = {"conformance", "--json", "{dir}/report.json"};
    if (row.library != "good") {
        arguments.insert(arguments.end(), {"--library", KAVRI_WRONG_DIR "/" + row.library});
    }
    arguments.insert(arguments.end(), row.options.begin(), row.options.end());
    process::ChildProcess tool(spawnOf("kavri", arguments, folder.path()));
    Result result;
    result.exit = tool.wait(longEnough);
    result.shown = tool.output() + tool.error();
    result.verdict = verdictIn(folder / "report.json");
    result.leftSomething = !fs::is_empty(folder / "temporary");
    return result;
}

std::vector<Result> runAll(const std::vector<Row>& rows) {
    std::vector<Result> results(rows.size());
    conformance::WorkShare share(rows.size());
    share.runOn(jobsPerProcessor * std::max(1U, std::thread::hardware_concurrency()), [&] {
        while (const auto i = share.take()) {
            results[*i] = run(rows[*i]);
        }
    });
    return results;
}

void compare(const Row& row, const Result& result) {
    BOOST_REQUIRE_MESSAGE(result.exit, row.name << " does not end: " << result.shown);
    BOOST_TEST_INFO(row.name << " shows: " << result.shown);
    BOOST_TEST(result.exit->signal == 0);
    BOOST_TEST_INFO(row.name << " shows: " << result.shown);
    BOOST_TEST(result.exit->code == row.exit);
    BOOST_TEST_INFO(row.name << " shows: " << result.shown);
    BOOST_TEST(result.verdict == row.verdict);
    for (const std::string& text : row.says) {
        BOOST_TEST(result.shown.find(text) != std::string::npos,
                   row.name << " does not say: " << text << "\nbut: " << result.shown);
    }
    BOOST_TEST(!result.leftSomething, row.name << " leaves something in the temporary folder");
}

}  // namespace

BOOST_AUTO_TEST_CASE(everyLibraryIsJudgedAsTheTableSays) {
    const std::vector<Row> rows = chosenRows();
    const std::vector<Result> results = runAll(rows);
    for (size_t i = 0; i < rows.size(); ++i) {
        BOOST_TEST(!rows[i].says.empty(), rows[i].name << " says nothing");
        compare(rows[i], results[i]);
    }
}

BOOST_AUTO_TEST_CASE(everyLibraryHasARow) {
    std::set<std::string> used;
    for (const Row& row : readTable()) {
        used.insert(row.library);
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(rooms)) {
        const fs::path name = fs::relative(entry.path(), rooms);
        if (entry.path().extension() == ".cpp" && name.has_parent_path()) {
            const std::string library = fs::path(name).replace_extension().string();
            BOOST_TEST(used.contains(library), name.string() << " has no row");
        }
    }
}
