// Widths of columns; see table.h.
#include "management/table.h"

#include <algorithm>

namespace kavri::management {

namespace {

constexpr std::size_t gap = 2;

// Of a column that is left out.
constexpr std::size_t noWidth = SIZE_MAX;

// The text in just so many columns.
std::string cell(std::string_view text, std::size_t width, bool isNumber) {
    const std::size_t needed = base::widthOf(text);
    std::string shown(text);
    if (needed > width) {
        std::size_t kept = 0;
        for (std::size_t columns = 0; columns < width && kept < text.size();) {
            do {
                ++kept;
            } while (kept < text.size() &&
                     (static_cast<unsigned char>(text[kept]) & 0xc0U) == 0x80);
            if (++columns == width - 1) {
                break;
            }
        }
        return std::string(text.substr(0, kept)) + "…";
    }
    shown.insert(isNumber ? 0 : shown.size(), width - needed, ' ');
    return shown;
}

}  // namespace

Table::Widths Table::naturalWidths() const {
    Widths widths;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        std::size_t width = base::widthOf(columns_[i].title);
        for (const std::vector<std::string>& row : rows_) {
            width = std::max(width, base::widthOf(row[i]));
        }
        widths.push_back(width);
    }
    return widths;
}

std::size_t Table::total(const Widths& widths) {
    std::size_t sum = 0;
    for (const std::size_t width : widths) {
        sum += width == noWidth ? 0 : width + gap;
    }
    return sum - std::min(sum, gap);
}

std::size_t Table::leastTotal(const Widths& widths) const {
    Widths least = widths;
    for (std::size_t i = 0; i < least.size(); ++i) {
        if (widths[i] != noWidth && columns_[i].leastWidth > 0) {
            least[i] = std::min(widths[i], columns_[i].leastWidth);
        }
    }
    return total(least);
}

bool Table::dropNext(Widths& widths) const {
    std::size_t next = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i) {
        const unsigned order = columns_[i].dropped;
        if (order > 0 && widths[i] != noWidth &&
            (next == widths.size() || order < columns_[next].dropped)) {
            next = i;
        }
    }
    if (next == widths.size()) {
        return false;
    }
    widths[next] = noWidth;
    return true;
}

// Leaves out what has to be, then takes from the widest that may be cut, a column at a time.
void Table::fit(Widths& widths, std::size_t columns) const {
    while (leastTotal(widths) > columns && dropNext(widths)) {
    }
    while (total(widths) > columns) {
        std::size_t widest = widths.size();
        for (std::size_t i = 0; i < widths.size(); ++i) {
            const std::size_t least = columns_[i].leastWidth;
            if (least > 0 && widths[i] != noWidth && widths[i] > least &&
                (widest == widths.size() || widths[i] > widths[widest])) {
                widest = i;
            }
        }
        if (widest == widths.size()) {
            return;
        }
        --widths[widest];
    }
}

std::string Table::line(const std::vector<std::string>& cells, const Widths& widths) const {
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (widths[i] != noWidth) {
            text += (text.empty() ? "" : std::string(gap, ' ')) +
                    cell(cells[i], widths[i], columns_[i].isNumber);
        }
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text + "\n";
}

std::string Table::text(const base::DisplayStyle& style) const {
    Widths widths = naturalWidths();
    if (style.terminal) {
        fit(widths, style.columns);
    }
    std::vector<std::string> titles;
    for (const Column& column : columns_) {
        titles.push_back(column.title);
    }
    std::string text = line(titles, widths);
    for (const std::vector<std::string>& row : rows_) {
        text += line(row, widths);
    }
    return text;
}

}  // namespace kavri::management
