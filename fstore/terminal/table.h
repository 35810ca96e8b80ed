// A table for the terminal: columns as wide as their contents, and cut only if the terminal is
// narrower. It takes little memory, however many rows it has.
#ifndef FSTORE_TERMINAL_TABLE_H
#define FSTORE_TERMINAL_TABLE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/sorted_texts.h"

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

    explicit Table(std::vector<Column> columns);

    // A cell a column. Rows are printed in the order of their keys, and those with the same key as
    // they were added.
    void add(const std::vector<Cell>& row, std::string_view key = {});
    bool empty() const noexcept { return rows_.size() == 0; }

    // One line a row under a line of titles, each with a line feed, as calls of use(line). Unless
    // `columns` is 0, no line is wider than that, except for what must not be cut; the widest
    // columns are cut first. A column that is empty in all rows is left out.
    void print(std::size_t columns, bool colour, const SortedTexts::User& use) const;

private:
    std::vector<std::size_t> widths(std::size_t columns) const;

    std::vector<Column> columns_;
    std::vector<std::size_t> widest_;  // of each column, in its rows
    SortedTexts rows_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_TABLE_H
