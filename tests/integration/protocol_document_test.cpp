// docs/protocol.md says what is true: its tables are those of the code, the
// conversation in it takes place byte by byte as shown, and the client in it
// works. Needs python3 for the client.
#define BOOST_TEST_MODULE protocolDocument

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <fstream>
#include <sstream>

#include "kavri/core.h"
#include "process/temporary_folder.h"
#include "support/hex_text.h"
#include "support/raw_peer.h"
#include "support/service_process.h"

using namespace kavri::tests;

namespace {

std::vector<std::string> linesOfDocument() {
    std::ifstream file(KAVRI_SOURCE_DIR "/docs/protocol.md");
    BOOST_REQUIRE(file.good());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The lines between a fence that begins with "```" and the language, and its end.
std::vector<std::string> blocksOf(const std::string& language) {
    std::vector<std::string> found;
    bool inside = false;
    for (const std::string& line : linesOfDocument()) {
        if (line == "```" + language) {
            inside = true;
        } else if (line == "```") {
            inside = false;
        } else if (inside) {
            found.push_back(line);
        }
    }
    BOOST_REQUIRE(!found.empty());
    return found;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::string trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? std::string()
                                      : text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

// The cells of the rows of the table with this head.
std::vector<std::vector<std::string>> rowsUnder(const std::string& head) {
    const std::vector<std::string> lines = linesOfDocument();
    auto line = std::find(lines.begin(), lines.end(), head);
    BOOST_REQUIRE_MESSAGE(line != lines.end(), "no table \"" << head << "\"");
    std::vector<std::vector<std::string>> rows;
    for (line += 2; line != lines.end() && line->starts_with("|"); ++line) {
        std::vector<std::string> cells = split(line->substr(1), '|');
        std::transform(cells.begin(), cells.end(), cells.begin(), trimmed);
        rows.push_back(std::move(cells));
    }
    return rows;
}

// Of "c i u, p: the reason": "ciup"; of what is optional: nothing.
std::string requiredFields(const std::string& cell) {
    std::string fields;
    for (const std::string& part : split(cell, ',')) {
        if (!part.ends_with("optional")) {
            fields += part.substr(0, part.find(':'));
        }
    }
    std::erase(fields, ' ');
    return fields;
}

struct Said {
    bool byClient;
    std::string bytes;
};

// The frames of the conversation: a line with '>' or '<' begins one. Lines are
// "> 0010  6f 6b                                            ok".
std::vector<Said> conversation() {
    constexpr std::size_t offsetColumn = 2;
    constexpr std::size_t bytesColumn = 8;
    constexpr std::size_t bytesWidth = 47;
    std::vector<Said> said;
    for (const std::string& line : blocksOf("text")) {
        BOOST_REQUIRE_MESSAGE(line.size() > bytesColumn, "no line of bytes: " << line);
        if (line[0] != ' ') {
            said.push_back({line[0] == '>', ""});
        }
        std::string& bytes = said.back().bytes;
        BOOST_TEST(std::stoul(line.substr(offsetColumn, 4), nullptr, 16) == bytes.size(), line);
        std::istringstream digits(line.substr(bytesColumn, bytesWidth));
        bytes += bytesOfHexText(digits);
    }
    return said;
}

// The same but for the broker's identity, which no other broker has.
std::string withoutIdentity(std::string bytes) {
    const Frame frame = framesIn(bytes).at(0);
    if (frame.type == FrameType::welcome) {
        const std::string_view identity = frame[Field::uuid];
        bytes.replace(static_cast<std::size_t>(identity.data() - bytes.data()), identity.size(),
                      identity.size(), '?');
    }
    return bytes;
}

struct WithBroker {
    explicit WithBroker(const BrokerSettings& settings = {.testService = true})
        : broker(socket, settings) {}

    kavri::process::TemporaryFolder folder;
    const std::string socket = folder / "broker.sock";
    BrokerProcess broker;
};

struct WithClient : WithBroker {
    const std::string script = folder / "client.py";

    explicit WithClient(const BrokerSettings& settings = {.testService = true})
        : WithBroker(settings) {
        std::ofstream file(script);
        for (const std::string& line : blocksOf("python")) {
            file << line << '\n';
        }
    }

    struct Result {
        int code;
        std::string output;
        std::string error;
    };
    Result run(const std::string& category, const std::string& identifier,
               const std::string& payload) const {
        kavri::process::ChildProcess client(
            {.program = "/usr/bin/env",
             .arguments = {"python3", script, socket, category, identifier, payload}});
        const auto ended = client.wait(patience);
        BOOST_REQUIRE((ended && ended->signal == 0));
        return {ended->code, client.output(), client.error()};
    }
};

}  // namespace

BOOST_AUTO_TEST_CASE(theTypesAreThoseOfTheCode) {
    const auto rows = rowsUnder("| number | type | from, to | token | status | fields |");
    BOOST_TEST(rows.size() == allTypes.size());
    for (const auto& cells : rows) {
        const auto type = static_cast<FrameType>(std::stoi(cells.at(0)));
        BOOST_TEST(cells.at(1) == kavri::wire::typeName(type));
        const Frame smallest = smallestFrame(type, 0);
        std::string fields;
        for (std::size_t i = 0; i < smallest.fields.size(); ++i) {
            fields += smallest.fields[i].data() != nullptr ? std::string(1, "ciup"[i]) : "";
        }
        BOOST_TEST(requiredFields(cells.at(5)) == fields, cells.at(1));
    }
}

BOOST_AUTO_TEST_CASE(theStatusNumbersAreThoseOfTheCode) {
    const auto rows = rowsUnder("| number | text |");
    BOOST_TEST(rows.size() == 9U);
    for (const auto& cells : rows) {
        const auto status = static_cast<kavri_core_status>(std::stoi(cells.at(0)));
        BOOST_TEST(cells.at(1) == kavri_core_status_text(status));
    }
}

BOOST_FIXTURE_TEST_CASE(theConversationTakesPlaceByteByByte, WithBroker) {
    const std::vector<Said> all = conversation();
    BOOST_REQUIRE(all.size() == 8U);
    RawPeer client(socket);
    for (const Said& said : all) {
        if (said.byClient) {
            client.write(said.bytes);
        } else {
            const auto heard = client.receive().bytes;
            const std::string bytes(heard.begin(), heard.end());
            BOOST_TEST((withoutIdentity(bytes) == withoutIdentity(said.bytes)),
                       describeAll(bytes) << " instead of " << describeAll(said.bytes));
        }
    }
}

BOOST_FIXTURE_TEST_CASE(theClientPrintsTheAnswer, WithClient) {
    const Result result = run("test", "echo", "hello");
    BOOST_TEST(result.error == "");
    BOOST_TEST(result.output == "hello\n");
    BOOST_TEST(result.code == 0);
}

BOOST_FIXTURE_TEST_CASE(theClientCarriesMuch, WithClient) {
    const std::string payload(100'000, 'x');
    const Result result = run("test", "echo", payload);
    BOOST_TEST(result.error == "");
    BOOST_TEST((result.output == payload + "\n"));
}

BOOST_FIXTURE_TEST_CASE(theClientKnowsThatNoAnswerComes, WithClient) {
    const Result result = run("test", "inc_repeat_count", "");
    BOOST_TEST(result.output == "done; no answer comes\n");
    BOOST_TEST(result.code == 0);
    BOOST_TEST(run("test", "get_repeat_count", "").output == "1\n");
}

BOOST_FIXTURE_TEST_CASE(theClientSaysWhyNoneComes, WithClient) {
    const Result result = run("nobody", "echo", "hello");
    BOOST_TEST(result.error == "no answer: status 10\n");
    BOOST_TEST(result.code == 1);
}

struct WithSmallPayloads : WithClient {
    WithSmallPayloads()
        : WithClient({.testService = true, .config = "[limits]\npayload_bytes = 10\n"}) {}
};

BOOST_FIXTURE_TEST_CASE(theClientSaysWhyItWasClosed, WithSmallPayloads) {
    BOOST_TEST(run("test", "echo", "ten bytes.").output == "ten bytes.\n");
    const Result result = run("test", "echo", "this is more");
    BOOST_TEST(result.error ==
               "closed by the broker, status 9: malformed: the payload is above the limit of this "
               "connection\n");
    BOOST_TEST(result.code == 1);
}
