#include "fstore/terminal/table.h"

#include <sstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "lib/base/printable.h"

namespace fstore {
namespace {

std::string printed(const Table& table, std::size_t columns, bool colour) {
    std::string page;
    table.print(columns, colour, [&](std::string_view line) { page += line; });
    return page;
}

Table sample() {
    Table table({{"ADDRESS", false}, {"SUBJECT", true}, {"LABEL", true}});
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

TEST(TableTest, NeverCutsWhatMustStayWhole) {
    EXPECT_NE(std::string::npos, printed(sample(), 10, false).find("certificates/local/server"));
}

TEST(TableTest, LeavesOutWhatIsEmptyEverywhere) {
    Table table({{"ADDRESS", false}, {"SUBJECT", true}});
    table.add({{"keys/a"}, {}});
    EXPECT_EQ("ADDRESS\nkeys/a\n", printed(table, 0, false));
}

TEST(TableTest, SortsRowsByTheirKeys) {
    Table table({{"A", false}});
    table.add({{"last"}}, "2");
    table.add({{"first"}}, "1");
    table.add({{"second"}}, "1");
    EXPECT_EQ("A\nfirst\nsecond\nlast\n", printed(table, 0, false));
}

TEST(TableTest, EscapesControlCharacters) {
    Table table({{"LABEL", true}});
    table.add({{"a\033[2Jb\nc"}});
    EXPECT_EQ("LABEL\na\\x1b[2Jb\\x0ac\n", printed(table, 0, false));
}

TEST(TableTest, ColoursAreAroundTheTextAlone) {
    Table table({{"A", false}, {"B", false}});
    table.add({{"x", Style::kRed}, {"y"}});
    EXPECT_EQ("\033[1mA\033[0m  \033[1mB\033[0m\n\033[31mx\033[0m  y\n", printed(table, 0, true));
}

}  // namespace
}  // namespace fstore
