// What repairs take away is never lost: moved and put back, broken off at every call.
#include "lib/database/lost.h"

#include <map>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kTime = 1893455999;  // 2029-12-31T23:59:59Z
constexpr const char* kName = "20291231T235959Z";
const std::optional<Digest> kKey = Digest{1, 2, 3};

const LostPlan kPlan{kTime,
                     kKey,
                     {{"keys/00000003", "unnamed-body", "no descriptor names it"},
                      {"keys/a b.dsc.$n$", "new-descriptor", "a write was broken off"},
                      {"certificates/local/00000004", "unnamed-body", "no descriptor names it"},
                      {"00000005", "unnamed-body", "no descriptor names it"}}};

void makeDatabase() {
    std::filesystem::create_directories("db/keys");
    std::filesystem::create_directories("db/certificates/local");
    for (const LostFile& file : kPlan.files) {
        support::writeFile("db/" + file.path, "content of " + file.path);
    }
    support::writeFile("db/keys/a.dsc", "stays");
}

// The contents of all files but plans, wherever they are.
std::multiset<std::string> contents() {
    std::multiset<std::string> found;
    for (const auto& [path, content] : support::tree(".")) {
        if (content != "<folder>" && !content.starts_with("fstore-lost") && !content.empty()) {
            found.insert(content);
        }
    }
    return found;
}

TEST(LostTest, KeepsPathsAndSaysWhy) {
    const support::TempWorkingDir folder;
    makeDatabase();
    EXPECT_EQ(kName, moveToLost(kPlan));
    const auto lost = support::tree("db.lost");
    for (const LostFile& file : kPlan.files) {
        EXPECT_EQ("content of " + file.path, lost.at(std::string(kName) + "/" + file.path));
        EXPECT_FALSE(std::filesystem::exists("db/" + file.path));
    }
    EXPECT_EQ("stays", support::readFile("db/keys/a.dsc"));
    const auto folders = lostFolders();
    ASSERT_EQ(1u, folders.size());
    EXPECT_EQ(kName, folders[0].name);
    ASSERT_TRUE(folders[0].plan);
    EXPECT_EQ(printPlan(kPlan), printPlan(*folders[0].plan));
}

TEST(LostTest, UndoingRestoresEveryByteAndLeavesNothing) {
    const support::TempWorkingDir folder;
    makeDatabase();
    const auto before = support::tree(".");
    (void)moveToLost(kPlan);
    const UndoReport report = undoLost(kName, kKey);
    EXPECT_EQ(kPlan.files.size(), report.putBack.size());
    EXPECT_THAT(report.taken, IsEmpty());
    EXPECT_EQ(before, support::tree("."));
    EXPECT_THAT(lostFolders(), IsEmpty());
}

TEST(LostTest, TwoRepairsOfOneSecondHaveTwoFolders) {
    const support::TempWorkingDir folder;
    makeDatabase();
    LostPlan first = kPlan;
    LostPlan second = kPlan;
    first.files.resize(1);
    second.files.erase(second.files.begin());
    EXPECT_EQ(kName, moveToLost(first));
    EXPECT_EQ(std::string(kName) + "-2", moveToLost(second));
    EXPECT_EQ(2u, lostFolders().size());
}

TEST(LostTest, ATakenPlaceIsNeverOverwritten) {
    const support::TempWorkingDir folder;
    makeDatabase();
    (void)moveToLost(kPlan);
    support::writeFile("db/keys/00000003", "newer");
    EXPECT_THAT(undoLost(kName, kKey).taken, ElementsAre("keys/00000003"));
    EXPECT_EQ("newer", support::readFile("db/keys/00000003"));
    EXPECT_EQ("content of keys/00000003",
              support::readFile("db.lost/" + std::string(kName) + "/keys/00000003"));
    std::filesystem::remove("db/keys/00000003");
    EXPECT_THAT(undoLost(kName, kKey).putBack, ElementsAre("keys/00000003"));
    EXPECT_THAT(lostFolders(), IsEmpty());
}

TEST(LostTest, AnotherPasswordRefusesAndMovesNothing) {
    const support::TempWorkingDir folder;
    makeDatabase();
    (void)moveToLost(kPlan);
    const auto before = support::tree(".");
    for (const std::optional<Digest>& key : {std::optional<Digest>(Digest{9}), {std::nullopt}}) {
        try {
            (void)undoLost(kName, key);
            ADD_FAILURE() << "was undone";
        } catch (const Failure& failure) {
            EXPECT_EQ(kNoDigest, failure.status());
        }
    }
    EXPECT_EQ(before, support::tree("."));
}

TEST(LostTest, ANameThatIsNoneIsRefused) {
    const support::TempWorkingDir folder;
    makeDatabase();
    (void)moveToLost(kPlan);
    std::filesystem::create_directory_symlink("../db", "db.lost/link");
    for (const char* const name : {"", ".", "..", "../db", "absent", "link"}) {
        SCOPED_TRACE(name);
        EXPECT_THROW((void)undoLost(name, kKey), Failure);
        EXPECT_THROW(purgeLost(name), Failure);
    }
    EXPECT_EQ("stays", support::readFile("db/keys/a.dsc"));
}

TEST(LostTest, PurgingRemovesOneOfThemForGood) {
    const support::TempWorkingDir folder;
    makeDatabase();
    (void)moveToLost(kPlan);
    purgeLost(kName);
    EXPECT_FALSE(std::filesystem::exists("db.lost"));
    EXPECT_EQ("stays", support::readFile("db/keys/a.dsc"));
}

TEST(LostTest, AFolderThatIsALinkInTheMeantimeIsNotEntered) {
    const support::TempWorkingDir folder;
    makeDatabase();
    std::filesystem::create_directory("elsewhere");
    (void)moveToLost(kPlan);
    std::filesystem::rename("db/keys", "aside");
    std::filesystem::create_directory_symlink("../elsewhere", "db/keys");
    EXPECT_THROW((void)undoLost(kName, kKey), Failure);
    EXPECT_THAT(support::tree("elsewhere"), IsEmpty());
}

TEST(LostTest, DeathAnywhereLosesNothingAndCanBeUndone) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("death at call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        makeDatabase();
        const auto before = support::tree("db");
        const auto all = contents();
        const int ended = fault::inChild([&] {
            const fault::DyingCall death(nth);
            (void)moveToLost(kPlan);
            return 0;
        });
        EXPECT_EQ(all, contents());
        for (const LostFolder& lost : lostFolders()) {
            (void)undoLost(lost.name, kKey);
        }
        EXPECT_EQ(before, support::tree("db"));
        if (ended == 0) {
            break;
        }
        ASSERT_EQ(fault::kDeath, ended);
    }
}

TEST(LostTest, DeathAnywhereInTheUndoingCanBeGoneOnFrom) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("death at call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        makeDatabase();
        const auto before = support::tree("db");
        (void)moveToLost(kPlan);
        const int ended = fault::inChild([&] {
            const fault::DyingCall death(nth);
            (void)undoLost(kName, kKey);
            return 0;
        });
        for (const LostFolder& lost : lostFolders()) {
            (void)undoLost(lost.name, kKey);
        }
        EXPECT_EQ(before, support::tree("db"));
        EXPECT_THAT(lostFolders(), IsEmpty());
        if (ended == 0) {
            break;
        }
        ASSERT_EQ(fault::kDeath, ended);
    }
}

TEST(LostTest, AnyFailingCallLosesNothing) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("failing call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        makeDatabase();
        const auto all = contents();
        fault::FailingCall fault(nth, EIO);
        try {
            (void)undoLost(moveToLost(kPlan), kKey);
        } catch (const Failure& failure) {
            EXPECT_EQ(kIo, failure.status());
        }
        const bool hit = fault.lift();
        EXPECT_EQ(all, contents());
        EXPECT_THAT(fault::openHandles(), IsEmpty());
        if (!hit) {
            EXPECT_FALSE(std::filesystem::exists("db.lost"));
            break;
        }
    }
}

TEST(LostTest, ThePlanIsDurableBeforeAnythingMoves) {
    const support::TempWorkingDir folder;
    makeDatabase();
    LostPlan plan = kPlan;
    plan.files.resize(1);
    const fault::Recorder recorder(
        {fault::Call::kMkdir, fault::Call::kRename, fault::Call::kFsync});
    (void)moveToLost(plan);
    const std::string lost = std::string("./db.lost/") + kName;
    EXPECT_THAT(
        recorder.lines(),
        ElementsAre("mkdir ./db.lost", "fsync .", "mkdir " + lost, "fsync ./db.lost",
                    "fsync " + lost + "/plan.new", "rename " + lost + "/plan.new " + lost + "/plan",
                    "fsync " + lost, "mkdir " + lost + "/keys", "fsync " + lost,
                    "rename ./db/keys/00000003 " + lost + "/keys/00000003",
                    "fsync " + lost + "/keys", "fsync ./db/keys"));
}

TEST(LostPlanTest, WhatWasPrintedIsRead) {
    LostPlan odd{
        kTime, std::nullopt, {{"keys/\\ \n\xff\\", "k", "why \x1b it went"}, {"x", "k", ""}}};
    const auto read = parsePlan(printPlan(odd));
    ASSERT_TRUE(read);
    ASSERT_EQ(2u, read->files.size());
    EXPECT_EQ(odd.files[0].path, read->files[0].path);
    EXPECT_EQ(odd.files[0].reason, read->files[0].reason);
    EXPECT_FALSE(read->key);
}

TEST(LostPlanTest, EveryCutIsNoticed) {
    const std::string text = printPlan(kPlan);
    for (std::size_t size = 0; size < text.size(); ++size) {
        EXPECT_FALSE(parsePlan(text.substr(0, size))) << size;
    }
    EXPECT_FALSE(parsePlan(text + "x"));
    EXPECT_FALSE(parsePlan(text + text));
}

TEST(LostPlanTest, NoPathLeadsOutOfTheDatabase) {
    for (const char* const path : {"/etc/passwd", "../x", "a/../x", "a//x", "./x", "a/.", "", "a/",
                                   "a\\00b", "\\2e\\2e/x"}) {
        LostPlan plan = kPlan;
        std::string text = printPlan({kTime, kKey, {}});
        text.insert(text.rfind("end"), std::string("file kind ") + path + " why\n");
        EXPECT_FALSE(parsePlan(text)) << path;
    }
}

}  // namespace
}  // namespace fstore
