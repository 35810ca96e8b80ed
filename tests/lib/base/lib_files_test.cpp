#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

void makeTree(const std::string& root) {
    std::filesystem::create_directories(root + "/a/b/c");
    for (const char* const name : {"/x", "/a/x", "/a/b/x", "/a/b/c/x"}) {
        support::writeFile(root + name, "x");
    }
}

TEST(RemoveTreeTest, RemovesAllOfIt) {
    const support::TempWorkingDir folder;
    makeTree("tree");
    removeTree("./tree");
    EXPECT_TRUE(support::tree(".").empty());
    removeTree("./tree");  // there is none
}

TEST(RemoveTreeTest, FollowsNoLink) {
    const support::TempWorkingDir folder;
    makeTree("kept");
    const auto before = support::tree("kept");
    std::filesystem::create_directory_symlink("kept", "link");
    removeTree("./link");
    EXPECT_FALSE(std::filesystem::is_symlink("link"));
    makeTree("tree");
    std::filesystem::create_directory_symlink("../../kept", "tree/a/link");
    std::filesystem::create_symlink("nowhere", "tree/a/dangling");
    removeTree("./tree");
    EXPECT_FALSE(std::filesystem::exists("tree"));
    EXPECT_EQ(before, support::tree("kept"));
}

TEST(RemoveTreeTest, RemovesWhatNoPathCanName) {
    const support::TempWorkingDir folder;
    const std::filesystem::path start = std::filesystem::current_path();
    const std::string step(200, 'd');
    for (int depth = 0; depth < 50; ++depth) {  // twice as long as a path may be
        std::filesystem::create_directory(step);
        std::filesystem::current_path(step);
    }
    support::writeFile("x", "x");
    std::filesystem::current_path(start);
    removeTree("./" + step);
    EXPECT_TRUE(support::tree(".").empty());
}

TEST(RemoveTreeTest, EachFailingCallIsAFailureAndLeaksNothing) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("failing call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        makeTree("tree");
        fault::FailingCall fault(nth, EIO);
        bool failed = false;
        try {
            removeTree("./tree");
        } catch (const Failure& failure) {
            failed = true;
            EXPECT_EQ(kIo, failure.status());
        }
        const bool hit = fault.lift();
        // Closing what was only listed may fail without harm.
        EXPECT_EQ(!failed, !std::filesystem::exists("tree"));
        EXPECT_TRUE(fault::openHandles().empty());
        if (!hit) {
            EXPECT_FALSE(failed);
            break;
        }
    }
}

// Whoever takes such a file for absent may overwrite it, or what stands for it.
TEST(PresenceTest, WhatCannotBeExaminedIsNotAbsent) {
    const support::TempWorkingDir folder;
    support::writeFile("x", "x");
    EXPECT_TRUE(exists("x"));
    EXPECT_TRUE(isA(os::EntryType::kFile, "x"));
    for (const int error : fault::errnosOf(fault::Call::kLstat)) {
        SCOPED_TRACE(error);
        {
            const fault::FailingCall failing(1, error);
            EXPECT_ANY_THROW((void)exists("x"));
        }
        const fault::FailingCall failing(1, error);
        EXPECT_ANY_THROW((void)isA(os::EntryType::kFile, "x"));
    }
    EXPECT_FALSE(exists("y"));
    EXPECT_FALSE(exists("x/y"));
    EXPECT_FALSE(isA(os::EntryType::kFile, "y"));
    EXPECT_FALSE(isA(os::EntryType::kFolder, "x"));
}

// A link is no body and no descriptor, wherever it leads.
TEST(PresenceTest, ALinkIsNotOpened) {
    const support::TempWorkingDir folder;
    support::writeFile("x", "x");
    std::filesystem::create_symlink("x", "link");
    EXPECT_NO_THROW((void)openRegular("x"));
    EXPECT_THROW((void)openRegular("link"), Failure);
    EXPECT_THROW(readInPieces("link", [](std::span<const unsigned char>) {}), Failure);
}

}  // namespace
}  // namespace fstore
