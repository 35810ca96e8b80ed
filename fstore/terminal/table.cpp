#include "fstore/terminal/table.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "lib/base/printable.h"

namespace fstore {
namespace {

constexpr std::size_t kGap = 2;  // columns between two columns
constexpr const char* kBetweenWords = " ,";

const char* codeOf(Style style) {
    switch (style) {
        case Style::kBold:
            return "1";
        case Style::kRed:
            return "31";
        case Style::kYellow:
            return "33";
        case Style::kGreen:
            return "32";
        case Style::kDim:
            return "2";
        case Style::kPlain:
            break;
    }
    return "0";
}

// A row as it is kept. A cell that is ready to be printed has no line feed.
void appendCell(std::string& row, const Cell& cell) {
    row += static_cast<char>(cell.style);
    row += cell.text;
    row += '\n';
}

std::vector<Cell> cellsOf(std::string_view row) {
    std::vector<Cell> cells;
    while (!row.empty()) {
        const std::size_t end = row.find('\n');
        cells.push_back({std::string(row.substr(1, end - 1)), static_cast<Style>(row.front())});
        row.remove_prefix(end + 1);
    }
    return cells;
}

// Half a date would be another one.
std::string clippedBetweenWords(const std::string& text, std::size_t columns) {
    std::string cut = clipped(text, columns);
    const auto kept = static_cast<std::size_t>(std::ranges::mismatch(cut, text).in1 - cut.begin());
    const std::size_t end = text.find_last_of(kBetweenWords, kept);
    if (cut == text || end == std::string::npos) {
        return cut;
    }
    const std::size_t last = text.find_last_not_of(kBetweenWords, end);
    return last == std::string::npos ? cut : text.substr(0, last + 1) + cut.substr(kept);
}

std::string cutTo(std::size_t width, const std::string& text, Table::Cut cut) {
    switch (cut) {
        case Table::Cut::kInside:
            return clippedInside(text, width);
        case Table::Cut::kWords:
            return clippedBetweenWords(text, width);
        case Table::Cut::kEnd:
            break;
    }
    return clipped(text, width);
}

// Of a line with columns of these widths.
std::size_t lengthOf(const std::vector<std::size_t>& widths) {
    std::size_t length = 0;
    for (const std::size_t width : widths) {
        if (width != 0) {
            length += width + (length != 0 ? kGap : 0);
        }
    }
    return length;
}

}  // namespace

std::string styled(std::string_view text, Style style) {
    return style == Style::kPlain ? std::string(text)
                                  : fmt::format("\033[{}m{}\033[0m", codeOf(style), text);
}

Table::Table(std::vector<Column> columns)
    : columns_(std::move(columns)), widest_(columns_.size(), 0) {}

void Table::add(const std::vector<Cell>& row, std::string_view key) {
    std::string kept;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const Cell cell{printable(row[i].text), row[i].style};
        const std::size_t width = columnsOf(cell.text);
        widest_[i] = std::max(widest_[i], width);
        if (row[i].whole != 0) {  // and an ellipsis
            columns_[i].least = std::max(columns_[i].least, std::min(row[i].whole + 1, width));
        }
        appendCell(kept, cell);
    }
    rows_.add(key, kept);
}

std::string Table::lineOf(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                          bool colour) const {
    std::string line;
    std::size_t owed = 0;  // blanks up to the next column, left out at the end of a line
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (widths[i] == 0) {
            continue;
        }
        const std::string text = cutTo(widths[i], cells[i].text, columns_[i].cut);
        if (!text.empty()) {
            line.append(owed, ' ');
            owed = 0;
            line += colour ? styled(text, cells[i].style) : text;
        }
        owed += widths[i] - columnsOf(text) + kGap;
    }
    return line + "\n";
}

void Table::print(std::size_t columns, bool colour, const SortedTexts::User& use) const {
    const std::vector<std::size_t> fitting = widths(columns);
    std::vector<Cell> titles;
    bool hasTitles = false;
    for (const Column& column : columns_) {
        titles.push_back({column.title, Style::kBold});
        hasTitles = hasTitles || !column.title.empty();
    }
    if (hasTitles) {
        use(lineOf(titles, fitting, colour));
    }
    rows_.visit([&](std::string_view row) { use(lineOf(cellsOf(row), fitting, colour)); });
}

std::vector<std::size_t> Table::widths(std::size_t columns) const {
    std::vector<std::size_t> widths = widest_;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        if (widths[i] != 0) {
            widths[i] = std::max(widths[i], columnsOf(columns_[i].title));
        }
    }
    if (columns == 0) {
        return widths;
    }
    leaveOut(widths, columns);
    for (std::size_t length = lengthOf(widths); length > columns; --length) {
        const auto cut = widest(widths);
        if (!cut) {  // one is left, and has to do
            widths.front() = columns;
            break;
        }
        --widths[*cut];
    }
    return widths;
}

// Those for which there is no room even when all are cut as far as they may be.
void Table::leaveOut(std::vector<std::size_t>& widths, std::size_t columns) const {
    for (;;) {
        std::vector<std::size_t> least = widths;
        std::size_t lightest = 0;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            least[i] = std::min(widths[i], columns_[i].least);
            const bool isCandidate = i != 0 && widths[i] != 0;
            if (isCandidate && (lightest == 0 || columns_[i].weight <= columns_[lightest].weight)) {
                lightest = i;
            }
        }
        if (lightest == 0 || lengthOf(least) <= columns) {
            return;
        }
        widths[lightest] = 0;
    }
}

// The column that is widest for its weight, of those that may still be cut.
std::optional<std::size_t> Table::widest(const std::vector<std::size_t>& widths) const {
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        if (widths[i] > columns_[i].least &&
            (!found || widths[i] * columns_[*found].weight > widths[*found] * columns_[i].weight)) {
            found = i;
        }
    }
    return found;
}

}  // namespace fstore
