// A table for the terminal: columns as wide as what stands in them, and cut only
// where the terminal is narrower than that.
#ifndef FSTORE_TERMINAL_TABLE_H
#define FSTORE_TERMINAL_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace fstore {

enum class Style { kPlain, kBold, kRed, kYellow, kGreen, kDim };

// The text with the terminal's code for the style around it.
std::string styled(std::string_view text, Style style);

struct Cell {
    std::string text;  // escaped by the table
    Style style = Style::kPlain;
};

class Table {
public:
    struct Column {
        std::string title;
        bool mayBeCut = true;  // false for what is useless in part
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<Cell> row);  // a cell a column
    bool empty() const noexcept { return rows_.empty(); }

    // One line a row under a line of titles, each ended by a line feed. With `columns`
    // not 0 no line is wider than that, unless what must not be cut is; the widest
    // columns give way first. A column that is empty in all rows is left out.
    std::string print(std::size_t columns, bool colour) const;

private:
    std::vector<std::size_t> widths(std::size_t columns) const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_TABLE_H
