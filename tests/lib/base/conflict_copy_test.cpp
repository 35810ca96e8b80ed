#include "lib/base/conflict_copy.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

TEST(ConflictCopyTest, NamesTheFileThatItRivals) {
    const struct {
        const char* file;
        std::optional<std::string> rival;
    } rows[] = {
        {"a.sync-conflict-20261123-101500-ABCDEFG.dsc", "a.dsc"},
        {"a.dsc.sync-conflict-20261123-101500-ABCDEFG", "a.dsc"},
        {"a.b.sync-conflict-20261123-101500-ABCDEFG.dsc.$o$", "a.b.dsc.$o$"},
        {"0000002a.sync-conflict-20261123-101500-ABCDEFG", "0000002a"},
        {"a.sync-conflict-", "a"},
        {"a (conflicted copy 2026-11-23).dsc", "a.dsc"},
        {"a b (Alice's conflicted copy 2026-11-23 101500).dsc", "a b.dsc"},
        {"a (1) (conflicted copy 2026-11-23).dsc", "a (1).dsc"},
        {"a.dsc (conflicted copy)", "a.dsc"},
        {"a.dsc.orig", "a.dsc"},
        {"a.orig", "a"},
        {"a.dsc", std::nullopt},
        {"a.orig.dsc", std::nullopt},
        {".orig", std::nullopt},
        {".sync-conflict-20261123-101500-ABCDEFG.dsc", std::nullopt},
        {".sync-conflict-20261123", std::nullopt},
        {"sync-conflict-20261123.dsc", std::nullopt},
        {"a(conflicted copy).dsc", std::nullopt},
        {"a conflicted copy.dsc", std::nullopt},
        {"a (conflicted copy.dsc", std::nullopt},
        {"a conflicted copy).dsc", std::nullopt},
        {" (conflicted copy)", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.rival, rivalOf(row.file)) << row.file;
    }
}

TEST(ConflictCopyTest, TellsTheTwoStatesOfAMerge) {
    const auto sides = mergeSidesOf(
        "1\n"
        "<<<<<<< HEAD\n"
        "ours\n"
        "=======\n"
        "theirs\n"
        ">>>>>>> other\n"
        "2\n"
        "<<<<<<< HEAD\n"
        "||||||| base\n"
        "base\n"
        "=======\n"
        "added\n"
        ">>>>>>> other\n"
        "3");
    ASSERT_TRUE(sides);
    EXPECT_EQ("1\nours\n2\n3", sides->ours);
    EXPECT_EQ("1\ntheirs\n2\nadded\n3", sides->theirs);
}

TEST(ConflictCopyTest, TakesNoOtherTextForAMerge) {
    for (const char* const text :
         {"", "a\n", "=======\n", "<<<<<<< a\n=======\n", "<<<<<<< a\n>>>>>>> b\n",
          "<<<<<<< a\n=======\n=======\n>>>>>>> b\n", "<<<<<<< a\n<<<<<<< a\n=======\n>>>>>>> b\n",
          ">>>>>>> b\n=======\n<<<<<<< a\n", "<<<<<<a\n======\n>>>>>>b\n",
          "<<<<<<<a\n=======\n>>>>>>>b\n", "||||||| a\n"}) {
        EXPECT_FALSE(mergeSidesOf(text)) << text;
    }
}

}  // namespace
}  // namespace fstore
