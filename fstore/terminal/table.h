// A table for the terminal: columns as wide as their contents, and cut only if the terminal is
// narrower.
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
        bool mayBeCut = true;  // false for what is useless when cut
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<Cell> row);  // a cell a column
    bool empty() const noexcept { return rows_.empty(); }

    // One line a row under a line of titles, each with a line feed. Unless `columns` is 0, no
    // line is wider than that, except for what must not be cut; the widest columns are cut
    // first. A column that is empty in all rows is left out.
    std::string print(std::size_t columns, bool colour) const;

private:
    std::vector<std::size_t> widths(std::size_t columns) const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_TABLE_H
