// Fills the template of the page: each {{NAME}} in it once. What is filled in is not
// searched for names.
#include "conformance/report/html/report_page.h"

#include <fmt/format.h>
#include <zlib.h>

#include <new>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "base/text_scanner.h"
#include "conformance/report/html/page_text.h"

namespace kavri::conformance {

namespace {

using nlohmann::json;

std::string escaped(std::string_view text) {
    std::string html;
    for (const char character : text) {
        switch (character) {
            case '&':
                html += "&amp;";
                break;
            case '<':
                html += "&lt;";
                break;
            case '>':
                html += "&gt;";
                break;
            case '"':
                html += "&quot;";
                break;
            default:
                html += character;
        }
    }
    return html;
}

std::string textOf(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? escaped(found->get<std::string>()) : "";
}

// Three bytes in four characters, the last filled up with "=".
std::string base64(std::string_view bytes) {
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto byteAt = [bytes](std::size_t at) {
        return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
    };
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const unsigned three = (byteAt(i) << 16U) | (byteAt(i + 1) << 8U) | byteAt(i + 2);
        for (std::size_t j = 0; j < 4; ++j) {
            const bool isFilling = i + j > bytes.size();
            text += isFilling ? '=' : digits[(three >> (18U - 6U * j)) & 63U];
        }
    }
    return text;
}

std::string compressed(const std::string& text) {
    uLongf size = compressBound(text.size());
    std::string packed(size, '\0');
    const int result = compress(reinterpret_cast<Bytef*>(packed.data()), &size,
                                reinterpret_cast<const Bytef*>(text.data()), text.size());
    if (result != Z_OK) {  // only without memory, since the room is enough
        throw std::bad_alloc();
    }
    packed.resize(size);
    return packed;
}

std::string embeddedJson(const json& report) {
    return base64(compressed(report.dump(-1, ' ', false, json::error_handler_t::replace)));
}

// In JSON "<" occurs in strings only, where an escape means the same. Unescaped, it could
// end the element, or begin a comment in it.
std::string plainJson(const json& value) {
    std::string embedded;
    for (const char character : value.dump()) {
        if (character == '<') {
            embedded += "\\u003c";
        } else {
            embedded += character;
        }
    }
    return embedded;
}

std::string titleOf(const json& report) {
    std::string title = textOf(report, "verdict");
    for (const json& library : report.at("libraries")) {
        title += " – " + textOf(library, "name");
    }
    return title + " – conformance report";
}

std::string caseRow(const json& one) {
    unsigned failed = 0;
    for (const json& check : one.at("checks")) {
        failed += check.at("passed").get<bool>() ? 0 : 1;
    }
    return fmt::format("<tr><th scope=\"row\">{}</th><td>{}</td><td>{}</td><td>{}</td></tr>\n",
                       textOf(one, "name"), textOf(one, "verdict"), one.at("checks").size(),
                       failed);
}

std::string libraryTable(const json& library) {
    std::string html = fmt::format(
        "<h2>{}: {}</h2>\n<p>{}</p>\n<table><caption>Cases of {}</caption>\n<thead><tr>"
        "<th scope=\"col\">Case</th><th scope=\"col\">Verdict</th><th scope=\"col\">Checks</th>"
        "<th scope=\"col\">Failed checks</th></tr></thead>\n<tbody>\n",
        textOf(library, "name"), textOf(library, "verdict"), textOf(library, "reason"),
        textOf(library, "core"));
    for (const json& one : library.at("cases")) {
        html += caseRow(one);
    }
    html += "</tbody></table>\n";
    if (const auto repeats = library.find("repeats");
        repeats != library.end() && !repeats->is_null()) {
        html += fmt::format("<p>{} of {} runs passed.</p>\n", repeats->at("passed").get<unsigned>(),
                            repeats->at("runs").get<unsigned>());
    }
    return html;
}

std::string matrixSummary(const json& matrix) {
    const json& faults = matrix.at("faults");
    std::size_t unexpected = 0;
    std::string list;
    for (const json& fault : faults) {
        const json& wrong = fault.at("wrong");
        unexpected += wrong.empty() ? 0 : 1;
        for (const json& text : wrong) {
            list += fmt::format("<li>{}: {}</li>\n", textOf(fault, "name"),
                                escaped(text.get<std::string>()));
        }
    }
    return fmt::format(
        "<h2>Kill matrix</h2>\n<p>{} of {} faults did not do what the catalogue "
        "says.</p>\n<ul>\n{}</ul>\n",
        unexpected, faults.size(), list);
}

// What the page shows where its script does not run.
std::string plainSummary(const json& report) {
    std::string html =
        fmt::format("<h1>Conformance report: {}</h1>\n<p>{}</p>\n<p><code>{}</code></p>\n",
                    textOf(report, "verdict"), textOf(report, "date"), textOf(report, "command"));
    for (const json& library : report.at("libraries")) {
        html += libraryTable(library);
    }
    if (const auto matrix = report.find("matrix"); matrix != report.end() && !matrix->is_null()) {
        html += matrixSummary(*matrix);
    }
    return html + "<p>Records, time lines and the matrix itself need JavaScript.</p>\n";
}

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (const auto line = base::takeLine(text)) {
        lines.push_back(*line);
    }
    return lines;
}

std::string joinedScripts() {
    std::string joined;
    for (const std::string_view script : page_text::scripts) {
        joined += script;
    }
    return joined;
}

std::string valueOf(std::string_view name, const json& report) {
    if (name == "title") {
        return titleOf(report);
    }
    if (name == "style") {
        return std::string(page_text::style);
    }
    if (name == "summary") {
        return plainSummary(report);
    }
    if (name == "report") {
        return embeddedJson(report);
    }
    if (name == "sources") {
        return plainJson({{"test_ipc_initiator.cpp", linesOf(page_text::moduleSource)}});
    }
    return joinedScripts();
}

}  // namespace

std::string reportPage(const json& report) {
    std::string page;
    std::string_view rest = page_text::html;
    for (auto begin = rest.find("{{"); begin != std::string_view::npos; begin = rest.find("{{")) {
        const auto end = rest.find("}}", begin);
        page += rest.substr(0, begin);
        page += valueOf(rest.substr(begin + 2, end - begin - 2), report);
        rest.remove_prefix(end + 2);
    }
    page += rest;
    return page;
}

}  // namespace kavri::conformance
