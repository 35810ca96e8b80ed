// The moves between the three folders, from each state that they can be in, and broken
// off at every call.
#include "lib/database/folders.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

constexpr const char* kTime = "20300131T235959Z";

void makeFolder(const std::string& folder, const std::string& content) {
    std::filesystem::create_directories(folder + "/keys");
    support::writeFile(folder + "/keys/a.dsc", content);
}

// "d=live n=copy": each folder with what it was made of; one that is kept under another
// name by its first letter and "+". A folder that is there in part has another content.
std::string contents() {
    std::string found;
    for (const auto& [name, shown] :
         {std::pair("db", "d"), std::pair("new_db", "n"), std::pair("old_db", "o"),
          std::pair("db-20300131T235959Z", "d+"), std::pair("db-20300131T235959Z-2", "d+2")}) {
        if (!std::filesystem::exists(name)) {
            continue;
        }
        const auto tree = support::tree(name);
        const auto file = tree.find("keys/a.dsc");
        found += (found.empty() ? "" : " ") + std::string(shown) + "=" +
                 (file == tree.end() ? "partial" : file->second);
    }
    return found;
}

// Makes the folders of a state such as "d-o".
void make(const std::string& state) {
    if (state[0] == 'd') {
        makeFolder("db", "live");
    }
    if (state[1] == 'n') {
        makeFolder("new_db", "copy");
    }
    if (state[2] == 'o') {
        makeFolder("old_db", "previous");
    }
}

struct Row {
    const char* state;
    const char* putBack;
    const char* copyDropped;
    const char* previousDropped;
    const char* previousKept;
    const char* exchanged;  // null where nobody calls it: there is no copy
};

// Every state. What is not there is not made, and what is not meant is not touched.
constexpr Row kRows[] = {
    {"---", "", "", "", "", nullptr},
    {"d--", "d=live", "d=live", "d=live", "d=live", nullptr},
    {"-n-", "n=copy", "", "n=copy", "n=copy", "d=copy"},
    {"--o", "d=previous", "o=previous", "", "d+=previous", nullptr},
    {"dn-", "d=live n=copy", "d=live", "d=live n=copy", "d=live n=copy", "d=copy d+=live"},
    {"d-o", "d=live o=previous", "d=live o=previous", "d=live", "d=live d+=previous", nullptr},
    {"-no", "d=previous n=copy", "o=previous", "", "n=copy d+=previous", "d=copy d+=previous"},
    {"dno", "d=live n=copy o=previous", "d=live o=previous", "d=live", "d=live n=copy d+=previous",
     "d=copy d+=previous d+2=live"},
};

struct Move {
    const char* name;
    std::function<void()> run;
    const char* Row::*result;
};

const Move kMoves[] = {
    {"putPreviousBack", putPreviousBack, &Row::putBack},
    {"dropCopy", dropCopy, &Row::copyDropped},
    {"dropPrevious", dropPrevious, &Row::previousDropped},
    {"keepPrevious", [] { (void)keepPrevious(kTime); }, &Row::previousKept},
    {"exchangeForCopy", [] { (void)exchangeForCopy(kTime); }, &Row::exchanged},
};

// What the next command that locks exclusively makes of the folders.
void recover() {
    putPreviousBack();
    dropCopy();
}

// Calls `body` for each move from each state that it is called in, in a folder of its own.
void forEachCase(const std::function<void(const Row&, const Move&)>& body) {
    for (const Row& row : kRows) {
        for (const Move& move : kMoves) {
            if (row.*move.result != nullptr) {
                SCOPED_TRACE(std::string(move.name) + " from " + row.state);
                body(row, move);
            }
        }
    }
}

TEST(FoldersTest, StateTellsWhichAreThere) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.state);
        const support::TempWorkingDir folder;
        make(row.state);
        const FolderState state = folderState();
        EXPECT_EQ(row.state[0] == 'd', state.live);
        EXPECT_EQ(row.state[1] == 'n', state.copy);
        EXPECT_EQ(row.state[2] == 'o', state.previous);
        EXPECT_EQ(row.state[0] == 'd' || row.state[2] == 'o', state.hasDatabase());
    }
}

TEST(FoldersTest, EachMoveFromEachState) {
    forEachCase([](const Row& row, const Move& move) {
        const support::TempWorkingDir folder;
        make(row.state);
        move.run();
        EXPECT_EQ(row.*move.result, contents());
    });
}

TEST(FoldersTest, AnExchangeIsUndone) {
    const support::TempWorkingDir folder;
    make("d-o");
    undoExchange();
    EXPECT_EQ("d=previous n=live", contents());
}

TEST(FoldersTest, NamesThatAreTakenAreLeftAlone) {
    const support::TempWorkingDir folder;
    make("dn-");
    makeFolder("db-20300131T235959Z", "earlier");
    EXPECT_EQ("./db-20300131T235959Z-2", exchangeForCopy(kTime));
    EXPECT_EQ("d=copy d+=earlier d+2=live", contents());
}

// Whether a folder, but for the copy, is there in part, or two hold the same.
bool isBroken(const std::string& found) {
    for (const char* const folder : {"d=partial", "o=partial", "+=partial"}) {
        if (found.find(folder) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// What the database is after a recovery, and what is kept.
std::string recovered() {
    EXPECT_FALSE(isBroken(contents())) << contents();
    recover();
    return contents();
}

// What a recovery may find after the move has died or failed: the database is the one from
// before or the one from after, whole, and nothing that is kept is lost.
std::set<std::string> beforeOrAfter(const Row& row, const Move& move) {
    std::set<std::string> allowed;
    for (const bool moved : {false, true}) {
        const support::TempWorkingDir folder;
        make(row.state);
        if (moved) {
            move.run();
        }
        allowed.insert(recovered());
    }
    if (move.result == &Row::exchanged && row.state[0] == 'd') {
        // ./old_db is kept under its name or under another; so is what was the database.
        allowed.insert("d=live d+=previous");
        allowed.insert("d=copy o=live");
        allowed.insert("d=copy o=live d+=previous");
    }
    if (move.result == &Row::exchanged && row.state == std::string("-no")) {
        allowed.insert("d=copy o=previous");
    }
    return allowed;
}

TEST(FoldersTest, DeathAnywhereLeavesTheOldOrTheNewDatabase) {
    forEachCase([](const Row& row, const Move& move) {
        const std::set<std::string> allowed = beforeOrAfter(row, move);
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE("death at call " + std::to_string(nth));
            const support::TempWorkingDir folder;
            make(row.state);
            const int ended = fault::inChild([&] {
                const fault::DyingCall death(nth);
                move.run();
                return 0;
            });
            EXPECT_THAT(allowed, testing::Contains(recovered()));
            if (ended == 0) {
                break;
            }
            ASSERT_EQ(fault::kDeath, ended);
        }
    });
}

TEST(FoldersTest, FailureAnywhereIsReportedAndLosesNothing) {
    forEachCase([](const Row& row, const Move& move) {
        const std::set<std::string> allowed = beforeOrAfter(row, move);
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE("failing call " + std::to_string(nth));
            const support::TempWorkingDir folder;
            make(row.state);
            fault::FailingCall fault(nth, EIO);
            bool failed = false;
            try {
                move.run();
            } catch (const Failure& failure) {
                failed = true;
                EXPECT_EQ(kIo, failure.status());
            }
            const bool hit = fault.lift();
            // The closing of a folder that was listed may fail: nothing is lost with it.
            EXPECT_TRUE(failed || !hit || contents() == row.*move.result) << contents();
            EXPECT_THAT(allowed, testing::Contains(recovered()));
            if (!hit) {
                EXPECT_FALSE(failed);
                break;
            }
        }
    });
}

TEST(FoldersTest, WhatARestoreMadeIsDurableBeforeTheOldOneIsKept) {
    const support::TempWorkingDir folder;
    make("dno");
    const fault::Recorder recorder({fault::Call::kRename, fault::Call::kFsync});
    (void)exchangeForCopy(kTime);
    EXPECT_THAT(recorder.lines(),
                testing::ElementsAre("rename ./old_db ./db-20300131T235959Z", "fsync .",
                                     "rename ./db ./old_db", "rename ./new_db ./db", "fsync .",
                                     "rename ./old_db ./db-20300131T235959Z-2", "fsync ."));
}

}  // namespace
}  // namespace fstore
