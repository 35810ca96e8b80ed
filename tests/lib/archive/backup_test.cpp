// The exchange of one database for another, broken off at every call.
#include "lib/archive/backup.h"

#include <fcntl.h>

#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "os/files.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

constexpr const char* kMoment = "20300131T235959Z";

void makeDatabase(const std::string& folder, const std::string& content) {
    std::filesystem::create_directories(folder + "/keys");
    support::writeFile(folder + "/keys/a.dsc", content);
}

std::string contentOf(const std::string& folder) {
    const auto tree = support::tree(folder);
    const auto found = tree.find("keys/a.dsc");
    return found == tree.end() ? "none" : found->second;
}

// What any start does: the database that was moved aside alone is put back.
void startAgain() {
    if (!std::filesystem::exists("db") && std::filesystem::exists("old_db")) {
        std::filesystem::rename("old_db", "db");
    }
}

// All databases that are there, wherever they stand.
std::multiset<std::string> contents() {
    std::multiset<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        found.insert(contentOf(entry.path().string()));
    }
    return found;
}

TEST(ExchangeDatabaseTest, OldOneKeepsAllUnderAnotherName) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "old");
    makeDatabase("new_db", "new");
    EXPECT_EQ("./db-20300131T235959Z", exchangeDatabase(kMoment));
    EXPECT_EQ("new", contentOf("db"));
    EXPECT_EQ("old", contentOf("db-20300131T235959Z"));
    EXPECT_EQ(2u, contents().size());
}

TEST(ExchangeDatabaseTest, WithoutAnOldOneNothingIsKept) {
    const support::TempWorkingDir folder;
    makeDatabase("new_db", "new");
    EXPECT_EQ("", exchangeDatabase(kMoment));
    EXPECT_EQ("new", contentOf("db"));
    EXPECT_EQ(1u, contents().size());
}

TEST(ExchangeDatabaseTest, DeathAnywhereLeavesTheOldOrTheNewOne) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("death at call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        makeDatabase("db", "old");
        makeDatabase("old_db", "older");
        makeDatabase("new_db", "new");
        const int ended = fault::inChild([&] {
            const fault::DyingCall death(nth);
            (void)exchangeDatabase(kMoment);
            return 0;
        });
        EXPECT_THAT(contents(), ElementsAre("new", "old", "older"));
        startAgain();
        EXPECT_THAT(contentOf("db"), testing::AnyOf("old", "new"));
        if (ended == 0) {
            EXPECT_EQ("new", contentOf("db"));
            break;
        }
        ASSERT_EQ(fault::kDeath, ended);
    }
}

TEST(ExchangeDatabaseTest, FailureAnywhereLosesNothing) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("failing call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        makeDatabase("db", "old");
        makeDatabase("new_db", "new");
        fault::FailingCall fault(nth, EIO);
        bool failed = false;
        try {
            (void)exchangeDatabase(kMoment);
        } catch (const Failure& failure) {
            failed = true;
            EXPECT_EQ(kIo, failure.status());
        }
        const bool hit = fault.lift();
        EXPECT_EQ(hit, failed);
        EXPECT_THAT(contents(), ElementsAre("new", "old"));
        startAgain();
        EXPECT_THAT(contentOf("db"), testing::AnyOf("old", "new"));
        if (!hit) {
            break;
        }
    }
}

// The archive of a small folder, as a file.
std::string writeArchive(const std::string& folder, const std::string& name) {
    std::string bytes;
    ArchiveWriter writer([&](std::span<const unsigned char> piece) {
        bytes.append(reinterpret_cast<const char*>(piece.data()), piece.size());
    });
    EXPECT_THAT(addTree(folder, writer), ElementsAre());
    (void)writer.finish();
    support::writeFile(name, bytes);
    return bytes;
}

TEST(ExtractTreeTest, MakesTheSameFolder) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "content");
    std::filesystem::permissions("db/keys", std::filesystem::perms(0710));
    (void)writeArchive("./db", "archive");
    const os::File file = os::openFile("archive", O_RDONLY);
    const ArchiveTotals totals = extractTree(file, "archive", "./new_db");
    EXPECT_EQ(support::tree("db"), support::tree("new_db"));
    EXPECT_EQ(std::filesystem::perms(0710), std::filesystem::status("new_db/keys").permissions());
    EXPECT_EQ(1u, totals.files);
}

TEST(ExtractTreeTest, IsDurableBeforeItReturns) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "content");
    (void)writeArchive("./db", "archive");
    const os::File file = os::openFile("archive", O_RDONLY);
    const fault::Recorder recorder({fault::Call::kSyncfs, fault::Call::kWrite});
    (void)extractTree(file, "archive", "./new_db");
    EXPECT_EQ("syncfs ./new_db", recorder.lines().back());
}

TEST(ExtractTreeTest, AnyFailingCallIsToldAndLeaksNothing) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "content");
    (void)writeArchive("./db", "archive");
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("failing call " + std::to_string(nth));
        std::filesystem::remove_all("new_db");
        const os::File file = os::openFile("archive", O_RDONLY);
        fault::FailingCall fault(nth, EIO);
        bool failed = false;
        try {
            (void)extractTree(file, "archive", "./new_db");
        } catch (const Failure& failure) {
            failed = true;
            EXPECT_EQ(kIo, failure.status());
        }
        const bool hit = fault.lift();
        // Closing what was only read, or listed, may fail without harm.
        EXPECT_TRUE(failed || !hit || support::tree("db") == support::tree("new_db"));
        EXPECT_THAT(fault::openHandles(), ElementsAre("archive"));
        if (!hit) {
            EXPECT_FALSE(failed);
            break;
        }
    }
}

TEST(ExtractTreeTest, WhatReadsBackOtherwiseIsToldAsSuch) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "content");
    (void)writeArchive("./db", "archive");
    const os::File file = os::openFile("archive", O_RDONLY);
    std::filesystem::create_directory("new_db");
    EXPECT_THROW((void)extractTree(file, "archive", "./new_db"), Failure);
}

TEST(AddTreeTest, LeavesOutAndTellsWhatIsNoFile) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "content");
    std::filesystem::create_symlink("/etc/passwd", "db/link");
    ArchiveWriter writer([](std::span<const unsigned char>) {});
    EXPECT_THAT(addTree("./db", writer), ElementsAre("./db/link"));
    EXPECT_EQ(1u, writer.finish().files);
}

}  // namespace
}  // namespace fstore
