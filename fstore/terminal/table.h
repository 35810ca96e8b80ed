// A table for the terminal: columns as wide as their contents, and cut or left out only if the
// terminal is narrower. It takes little memory, however many rows it has.
#ifndef FSTORE_TERMINAL_TABLE_H
#define FSTORE_TERMINAL_TABLE_H

#include <cstddef>
#include <optional>
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
    std::size_t whole = 0;  // so many columns at its beginning are not cut, but the column left out
};

class Table {
public:
    enum class Cut { kEnd, kInside, kWords };  // where: kWords is at the end, but not amid a word

    struct Column {
        std::string title;
        unsigned int weight = 1;      // one of twice the weight gets twice the room
        std::size_t least = kNarrow;  // is not cut below this, but left out
        Cut cut = Cut::kEnd;
        static constexpr std::size_t kNarrow = 6;
        static constexpr std::size_t kWhole = ~std::size_t{0};  // for what is useless when cut
    };

    explicit Table(std::vector<Column> columns);

    // A cell a column. Rows are printed in the order of their keys, and those with the same key as
    // they were added.
    void add(const std::vector<Cell>& row, std::string_view key = {});
    bool empty() const noexcept { return rows_.size() == 0; }

    // One line a row under a line of titles, if there are titles, each with a line feed, as calls
    // of use(line). Unless `columns` is 0, no line is wider than that: the columns that are widest
    // for their weight are cut, and the last of those with the least weight are left out, but never
    // the first of all. A column that is empty in all rows is left out.
    void print(std::size_t columns, bool colour, const SortedTexts::User& use) const;

private:
    std::vector<std::size_t> widths(std::size_t columns) const;
    void leaveOut(std::vector<std::size_t>& widths, std::size_t columns) const;
    std::optional<std::size_t> widest(const std::vector<std::size_t>& widths) const;
    std::string lineOf(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                       bool colour) const;

    std::vector<Column> columns_;
    std::vector<std::size_t> widest_;  // of each column, in its rows
    SortedTexts rows_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_TABLE_H
