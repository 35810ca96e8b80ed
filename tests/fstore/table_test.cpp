#include "fstore/terminal/table.h"

#include <sstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "lib/base/printable.h"

namespace fstore {
namespace {

constexpr std::size_t kWhole = Table::Column::kWhole;

std::string printed(const Table& table, std::size_t columns, bool colour) {
    std::string page;
    table.print(columns, colour, [&](std::string_view line) { page += line; });
    return page;
}

Table sample() {
    Table table({{.title = "ADDRESS", .least = kWhole}, {.title = "SUBJECT"}, {.title = "LABEL"}});
    table.add({{"certificates/local/server"}, {"CN=server,O=Example Organisation"}, {"web"}});
    table.add({{"keys/a"}, {}, {"a label that is long"}});
    return table;
}

TEST(TableTest, IsAsWideAsItsContents) {
    EXPECT_EQ(
        "ADDRESS                    SUBJECT                           LABEL\n"
        "certificates/local/server  CN=server,O=Example Organisation  web\n"
        "keys/a                                                       a label that is long\n",
        printed(sample(), 0, false));
}

TEST(TableTest, CutsOnlyWhatMayBeCut) {
    const std::string page = printed(sample(), 60, false);
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(columnsOf(line), 60u) << line;
    }
    EXPECT_NE(std::string::npos, page.find("certificates/local/server"));
    EXPECT_NE(std::string::npos, page.find("…"));
}

TEST(TableTest, LeavesOutColumnsBeforeItCutsWhatMustStayWhole) {
    EXPECT_EQ("ADDRESS\ncertificates/local/server\nkeys/a\n", printed(sample(), 30, false));
}

TEST(TableTest, CutsTheLastColumnWhereNothingElseIsLeft) {
    EXPECT_EQ("ADDRESS\ncertifica…\nkeys/a\n", printed(sample(), 10, false));
}

TEST(TableTest, LeavesOutTheLightestColumnAndOfThoseTheLast) {
    Table table({{.title = "A", .weight = 1, .least = 10},
                 {.title = "B", .weight = 3, .least = 10},
                 {.title = "C", .weight = 2, .least = 10},
                 {.title = "D", .weight = 2, .least = 10}});
    const std::string ten(10, 'x');
    table.add({{ten}, {ten}, {ten}, {ten}});
    EXPECT_EQ("A           B           C\n" + ten + "  " + ten + "  " + ten + "\n",
              printed(table, 40, false));
    EXPECT_EQ("A           B\n" + ten + "  " + ten + "\n", printed(table, 22, false));
}

TEST(TableTest, GivesRoomByWeight) {
    Table table({{.title = "A", .weight = 3}, {.title = "B", .weight = 1}});
    table.add({{std::string(100, 'a')}, {std::string(100, 'b')}});
    EXPECT_EQ("A                               B\n" + std::string(29, 'a') + "…  " +
                  std::string(9, 'b') + "…\n",
              printed(table, 42, false));
}

TEST(TableTest, CutsInsideWhereBothEndsTell) {
    Table table({{.title = "A", .cut = Table::Cut::kInside}});
    table.add({{"certificates/local/server"}});
    EXPECT_EQ("A\ncerti…erver\n", printed(table, 11, false));
}

TEST(TableTest, CutsBetweenWords) {
    Table table({{.title = "A", .cut = Table::Cut::kWords}});
    table.add({{"until 2030-01-31, superseded, key"}});
    const auto cut = [&](std::size_t columns) { return printed(table, columns, false).substr(2); };
    EXPECT_EQ("until 2030-01-31, superseded, key\n", cut(33));
    EXPECT_EQ("until 2030-01-31, superseded…\n", cut(32));
    EXPECT_EQ("until 2030-01-31…\n", cut(28));
    EXPECT_EQ("until 2030-01-31…\n", cut(17));
    EXPECT_EQ("until…\n", cut(16));
    EXPECT_EQ("unt…\n", cut(4));
}

TEST(TableTest, LeavesOutAColumnBeforeItCutsTheBeginningOfACell) {
    Table table({{.title = "A"}, {.title = "B", .least = 2, .cut = Table::Cut::kWords}});
    table.add({{"a-long-name"}, {"2030-01-31 superseded", Style::kPlain, 10}});
    table.add({{"b"}, {"2030-02-28", Style::kPlain, 10}});
    EXPECT_EQ("A       B\na-lon…  2030-01-31…\nb       2030-02-28\n", printed(table, 19, false));
    EXPECT_EQ("A\na-long-name\nb\n", printed(table, 18, false));
}

TEST(TableTest, HasNoLineOfTitlesWithoutTitles) {
    Table table({{.title = {}}, {.title = {}}});
    table.add({{"a"}, {"b"}});
    EXPECT_EQ("a  b\n", printed(table, 0, false));
}

TEST(TableTest, LeavesOutWhatIsEmptyEverywhere) {
    Table table({{.title = "ADDRESS"}, {.title = "SUBJECT"}});
    table.add({{"keys/a"}, {}});
    EXPECT_EQ("ADDRESS\nkeys/a\n", printed(table, 0, false));
}

TEST(TableTest, SortsRowsByTheirKeys) {
    Table table({{.title = "A"}});
    table.add({{"last"}}, "2");
    table.add({{"first"}}, "1");
    table.add({{"second"}}, "1");
    EXPECT_EQ("A\nfirst\nsecond\nlast\n", printed(table, 0, false));
}

TEST(TableTest, EscapesControlCharacters) {
    Table table({{.title = "LABEL"}});
    table.add({{"a\033[2Jb\nc"}});
    EXPECT_EQ("LABEL\na\\x1b[2Jb\\x0ac\n", printed(table, 0, false));
}

TEST(TableTest, ColoursAreAroundTheTextAlone) {
    Table table({{.title = "A"}, {.title = "B"}});
    table.add({{"x", Style::kRed}, {"y"}});
    EXPECT_EQ("\033[1mA\033[0m  \033[1mB\033[0m\n\033[31mx\033[0m  y\n", printed(table, 0, true));
}

}  // namespace
}  // namespace fstore
