// Rows of texts as columns that fit a terminal: where there is no room for all, columns that
// say the least are left out, and long texts are cut. Elsewhere nothing is.
#ifndef KAVRI_MANAGEMENT_TABLE_H
#define KAVRI_MANAGEMENT_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

#include "base/terminal.h"

namespace kavri::management {

struct Column {
    std::string title;
    bool isNumber = false;       // aligned to the right, and never cut
    std::size_t leastWidth = 0;  // of one that may be cut
    unsigned dropped = 0;        // the order in which columns are left out; 0: never
};

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    bool isEmpty() const { return rows_.empty(); }
    std::string text(const base::DisplayStyle& style) const;

  private:
    using Widths = std::vector<std::size_t>;

    Widths naturalWidths() const;
    static std::size_t total(const Widths& widths);
    void fit(Widths& widths, std::size_t columns) const;
    bool dropNext(Widths& widths) const;
    std::size_t leastTotal(const Widths& widths) const;
    std::string line(const std::vector<std::string>& cells, const Widths& widths) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace kavri::management

#endif
