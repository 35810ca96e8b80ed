// A folder into an archive and back, with each call failing.
#include "lib/archive/tree.h"

#include <fcntl.h>
#include <sys/stat.h>

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

void makeDatabase(const std::string& folder, const std::string& content) {
    std::filesystem::create_directories(folder + "/keys");
    support::writeFile(folder + "/keys/a.dsc", content);
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
    std::filesystem::permissions("db/keys", std::filesystem::perms(0500));
    (void)writeArchive("./db", "archive");
    const os::File file = os::openFile("archive", O_RDONLY);
    const ArchiveTotals totals = extractTree(file, "archive", "./new_db");
    EXPECT_EQ(support::tree("db"), support::tree("new_db"));
    EXPECT_EQ(std::filesystem::perms(0500), std::filesystem::status("new_db/keys").permissions());
    EXPECT_EQ(1u, totals.files);
}

TEST(ExtractTreeTest, TheUmaskBindsWhatAnArchiveSays) {
    const support::TempWorkingDir folder;
    makeDatabase("db", "content");
    std::filesystem::permissions("db/keys", std::filesystem::perms(0777));
    std::filesystem::permissions("db/keys/a.dsc", std::filesystem::perms(0666));
    (void)writeArchive("./db", "archive");
    const os::File file = os::openFile("archive", O_RDONLY);
    const mode_t before = umask(027);
    (void)extractTree(file, "archive", "./new_db");
    EXPECT_EQ(027, umask(before));
    EXPECT_EQ(std::filesystem::perms(0750), std::filesystem::status("new_db/keys").permissions());
    EXPECT_EQ(std::filesystem::perms(0640),
              std::filesystem::status("new_db/keys/a.dsc").permissions());
    EXPECT_EQ(support::tree("db"), support::tree("new_db"));
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
    EXPECT_THAT(addTree("./db", writer), ElementsAre(testing::Field(&LeftOut::path, "./db/link")));
    EXPECT_EQ(1u, writer.finish().files);
}

}  // namespace
}  // namespace fstore
