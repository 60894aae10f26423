// Widths, wrapping and the escape sequences; see terminal.h.
#include "base/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <ostream>

#include "base/environment.h"
#include "base/text_scanner.h"

namespace kavri::base {

namespace {

constexpr std::string_view eraseLine = "\r\x1b[K";
constexpr std::size_t furtherIndent = 4;

// Takes up to the separator, and the blanks behind it.
std::string_view takePart(std::string_view& text, std::string_view separator) {
    const std::string_view part = text.substr(0, text.find(separator));
    text.remove_prefix(part.size());
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return part;
}

// Puts pieces into lines.
class Lines {
  public:
    Lines(std::size_t columns, std::size_t indent)
        : columns_(columns), indent_(indent), line_(indent, ' ') {}

    // A part is broken only where it does not fit a line of its own.
    void addPart(std::string_view part) {
        if (indent_ + furtherIndent + widthOf(part) <= columns_) {
            add(part, "  ");
            return;
        }
        for (bool isFirst = true; !part.empty(); isFirst = false) {
            add(takePart(part, " "), isFirst ? "  " : " ");
        }
    }

    std::string take() { return done_ + line_; }

  private:
    void add(std::string_view piece, std::string_view separator) {
        if (isEmpty_) {
            separator = "";
        } else if (widthOf(line_) + separator.size() + widthOf(piece) > columns_) {
            done_ += line_ + "\n";
            line_ = std::string(indent_ + furtherIndent, ' ');
            separator = "";
        }
        line_.append(separator).append(piece);
        isEmpty_ = false;
    }

    const std::size_t columns_;
    const std::size_t indent_;
    std::string done_;
    std::string line_;
    bool isEmpty_ = true;
};

std::string fittedLine(std::string_view line, std::size_t columns) {
    if (widthOf(line) <= columns) {
        return std::string(line);
    }
    const std::size_t indent = std::min(line.find_first_not_of(' '), line.size());
    line.remove_prefix(indent);
    Lines lines(columns, indent);
    while (!line.empty()) {
        lines.addPart(takePart(line, "  "));
    }
    return lines.take();
}

}  // namespace

std::size_t widthOf(std::string_view text) {
    std::size_t width = 0;
    bool isInSequence = false;
    for (const char character : text) {
        if (isInSequence) {
            isInSequence = character != 'm';
        } else if (character == '\x1b') {
            isInSequence = true;
        } else {
            width += (static_cast<unsigned char>(character) & 0xc0U) != 0x80 ? 1 : 0;
        }
    }
    return width;
}

DisplayStyle DisplayStyle::of(int descriptor) {
    DisplayStyle style;
    const std::string kind = environmentVariable("TERM");
    style.terminal = isatty(descriptor) == 1 && !kind.empty() && kind != "dumb";
    style.colour = style.terminal && environmentVariable("NO_COLOR").empty();
    winsize size{};
    if (style.terminal && ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        style.columns = size.ws_col;
    }
    return style;
}

DisplayStyle DisplayStyle::ofStandardOutput() {
    return of(STDOUT_FILENO);
}

std::string fitted(std::string_view text, const DisplayStyle& style) {
    if (!style.terminal) {
        return std::string(text);
    }
    const bool endsLine = text.ends_with('\n');
    std::string result;
    while (const auto line = takeLine(text)) {
        result += fittedLine(*line, style.columns) + "\n";
    }
    if (!endsLine && !result.empty()) {
        result.pop_back();
    }
    return result;
}

void ProgressLine::show(std::string line) {
    if (!style_.terminal) {
        return;
    }
    line.resize(std::min<std::size_t>(line.size(), std::max(style_.columns, 1U) - 1));
    if (line != shown_) {
        output_ << eraseLine << line << std::flush;
        shown_ = std::move(line);
    }
}

void ProgressLine::clear() {
    if (!shown_.empty()) {
        output_ << eraseLine << std::flush;
        shown_.clear();
    }
}

}  // namespace kavri::base
