#include "fstore/terminal/recovery_sheet.h"

#include <array>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/base/printable.h"
#include "lib/base/recovery_key.h"

namespace fstore {
namespace {

SecretText key() {
    std::array<unsigned char, kRecoveryKeySize> bytes{};
    bytes.fill(0x5a);
    return printRecoveryKey(bytes);
}

RecoverySheet sheet() {
    return {.folder = "/srv/keys",
            .database = "7bdc25d1",
            .slot = 2,
            .label = "safe",
            .made = "2026-11-21T12:00:00Z"};
}

std::vector<std::string> linesOf(const RecoverySheet& sheet, std::size_t columns) {
    std::istringstream text(std::string(printSheet(sheet, key(), columns).view()));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string withoutBreaks(const RecoverySheet& sheet, std::size_t columns) {
    std::string all;
    for (const std::string& line : linesOf(sheet, columns)) {
        const std::size_t first = line.find_first_not_of(' ');
        all += first == std::string::npos ? std::string() : line.substr(first);
    }
    return all;
}

TEST(RecoverySheetTest, SaysWhatTheKeyOpensAndWhatToDo) {
    const std::string text(printSheet(sheet(), key(), 80).view());
    for (const char* const part :
         {"/srv/keys", "7bdc25d1", "slot      2\n", "safe", "2026-11-21T12:00:00Z",
          "Type it where the password is asked for", "`fstore key test`",
          "`fstore passwd --rotate --recovery`"}) {
        EXPECT_NE(std::string::npos, text.find(part)) << part << " in " << text;
    }
}

TEST(RecoverySheetTest, TheKeyCanBeReadOffIt) {
    for (const std::size_t columns : {40u, 72u, 80u}) {
        EXPECT_NE(std::string::npos, withoutBreaks(sheet(), columns).find(key().view()));
    }
}

TEST(RecoverySheetTest, NoLineIsWiderThanThePage) {
    RecoverySheet wide = sheet();
    wide.folder = "/" + std::string(300, 'x') + "/\xc3\xbc\xe2\x82\xac" + std::string(4000, 'y');
    for (int i = 0; i < 32; ++i) {
        wide.label += "\xc3\xbc";
    }
    for (std::size_t columns = 40; columns <= 80; ++columns) {
        for (const std::string& line : linesOf(wide, columns)) {
            EXPECT_LE(columnsOf(line), columns) << line;
            EXPECT_TRUE(isUtf8(line)) << line;
        }
        EXPECT_NE(std::string::npos, withoutBreaks(wide, columns).find(wide.folder));
        EXPECT_NE(std::string::npos, withoutBreaks(wide, columns).find(wide.label));
    }
}

TEST(RecoverySheetTest, ShowsNoControlCharacters) {
    RecoverySheet hostile = sheet();
    hostile.folder = "/a\033[2Jb";
    hostile.label = "c\nd";
    const std::string text(printSheet(hostile, key(), 80).view());
    EXPECT_EQ(std::string::npos, text.find('\033'));
    EXPECT_EQ(std::string::npos, text.find("c\nd"));
}

TEST(RecoverySheetTest, AnEmptyLabelTakesNoLine) {
    RecoverySheet plain = sheet();
    plain.label.clear();
    EXPECT_EQ(linesOf(sheet(), 80).size(), linesOf(plain, 80).size() + 1);
}

}  // namespace
}  // namespace fstore
