#include "fstore/terminal/table.h"

#include <sstream>

#include <gtest/gtest.h>

#include "lib/base/printable.h"

namespace fstore {
namespace {

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
        sample().print(0, false));
}

TEST(TableTest, CutsOnlyWhatMayBeCut) {
    const std::string page = sample().print(60, false);
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(columnsOf(line), 60u) << line;
    }
    EXPECT_NE(std::string::npos, page.find("certificates/local/server"));
    EXPECT_NE(std::string::npos, page.find("…"));
}

TEST(TableTest, NeverCutsWhatMustStayWhole) {
    EXPECT_NE(std::string::npos, sample().print(10, false).find("certificates/local/server"));
}

TEST(TableTest, LeavesOutWhatIsEmptyEverywhere) {
    Table table({{"ADDRESS", false}, {"SUBJECT", true}});
    table.add({{"keys/a"}, {}});
    EXPECT_EQ("ADDRESS\nkeys/a\n", table.print(0, false));
}

TEST(TableTest, EscapesControlCharacters) {
    Table table({{"LABEL", true}});
    table.add({{"a\033[2Jb\nc"}});
    EXPECT_EQ("LABEL\na\\x1b[2Jb\\x0ac\n", table.print(0, false));
}

TEST(TableTest, ColoursAreAroundTheTextAlone) {
    Table table({{"A", false}, {"B", false}});
    table.add({{"x", Style::kRed}, {"y"}});
    EXPECT_EQ("\033[1mA\033[0m  \033[1mB\033[0m\n\033[31mx\033[0m  y\n", table.print(0, true));
}

}  // namespace
}  // namespace fstore
