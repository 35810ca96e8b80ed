// The models of a crash: which trees they allow after calls that were really made.
#include "tests/crash/disk_model.h"

#include <fcntl.h>

#include <set>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "os/files.h"
#include "tests/crash/tree.h"

namespace crash {
namespace {

using testing::Contains;
using testing::IsSubsetOf;
using testing::UnorderedElementsAre;

// "a=text b/ b/c=" for the files a and b/c.
std::string brief(const Tree& tree) {
    std::string text;
    for (const auto& [path, node] : tree) {
        text += (text.empty() ? "" : " ") + path;
        text += node.folder ? "/" : "=" + node.bytes;
    }
    for (char& c : text) {
        c = c == '\0' ? '0' : c;
    }
    return text;
}

using Trees = std::set<std::string>;

class DiskModelTest : public ::testing::Test {
protected:
    static void write(const char* path, const std::string& bytes, bool isSynced) {
        os::File file = os::openFile(path, O_WRONLY | O_CREAT | O_TRUNC);
        ASSERT_TRUE(os::writeAll(file.get(), bytes.data(), bytes.size()));
        ASSERT_TRUE(isSynced ? os::closeDurably(std::move(file)) : file.close());
    }

    static void rename(const char* from, const char* to) { ASSERT_EQ(0, os::rename(from, to)); }
    static void remove(const char* path) { ASSERT_EQ(0, os::remove(path)); }
    static void makeFolder(const char* path) { ASSERT_EQ(0, os::mkdir(path, 0777)); }
    static void sync(const char* folder) { ASSERT_TRUE(os::syncFolder(folder)); }

    // What is durable before the calls of `run`, and all that may be found after them.
    template <class Run>
    void after(const Tree& start, Run run) {
        clearCurrentFolder();
        writeCurrentFolder(start);
        const fault::Recorder recorder(fault::kLastingCalls);
        run();
        Disk disk(start);
        for (const fault::Event& call : recorder.events()) {
            disk.apply(call);
        }
        for (const Model model : kModels) {
            Trees& trees = found_[static_cast<int>(model)];
            trees.clear();
            EXPECT_TRUE(disk.forEachTree(model, {1000, 1000, 0, 0}, random_,
                                         [&](const Tree& tree) { trees.insert(brief(tree)); }));
        }
        // The present state is among the possible ones, and each model allows more than
        // the one before it.
        EXPECT_THAT(of(Model::kKill), UnorderedElementsAre(brief(readCurrentFolder())));
        EXPECT_THAT(of(Model::kKill), IsSubsetOf(of(Model::kOrdered)));
        EXPECT_THAT(of(Model::kKill), IsSubsetOf(of(Model::kReordered)));
        EXPECT_THAT(of(Model::kReordered), IsSubsetOf(of(Model::kWeakest)));
    }

    const Trees& of(Model model) const { return found_[static_cast<int>(model)]; }

private:
    Scratch scratch_;
    std::mt19937 random_{1};
    Trees found_[std::size(kModels)];
};

Tree file(const std::string& path, const std::string& bytes) {
    return {{path, {false, bytes}}};
}

TEST_F(DiskModelTest, NewFileWithoutSyncMayBeAnything) {
    after({}, [] { write("a", "1234", false); });
    const auto any = UnorderedElementsAre("", "a=", "a=12", "a=123", "a=1234", "a=0000");
    EXPECT_THAT(of(Model::kOrdered), any);
    EXPECT_THAT(of(Model::kReordered), any);
    EXPECT_THAT(of(Model::kWeakest), any);
}

TEST_F(DiskModelTest, PrefixesEndBehindLines) {
    after({}, [] { write("a", "1\n22\n", false); });
    EXPECT_THAT(of(Model::kOrdered),
                UnorderedElementsAre("", "a=", "a=1\n", "a=1\n22", "a=1\n22\n", "a=00000"));
}

TEST_F(DiskModelTest, SyncOfANewFileKeepsItsName) {
    after({}, [] { write("a", "1234", true); });
    EXPECT_THAT(of(Model::kOrdered), UnorderedElementsAre("a=1234"));
    EXPECT_THAT(of(Model::kReordered), UnorderedElementsAre("a=1234"));
    EXPECT_THAT(of(Model::kWeakest), UnorderedElementsAre("", "a=1234"));
}

TEST_F(DiskModelTest, SyncOfAFileDoesNotKeepALaterName) {
    after({}, [] {
        write("a", "1", true);
        rename("a", "b");
    });
    EXPECT_THAT(of(Model::kOrdered), UnorderedElementsAre("a=1", "b=1"));
    EXPECT_THAT(of(Model::kReordered), UnorderedElementsAre("a=1", "b=1"));
    EXPECT_THAT(of(Model::kWeakest), UnorderedElementsAre("", "a=1", "b=1", "a=1 b=1"));
}

TEST_F(DiskModelTest, SyncOfTheFolderKeepsNamesAndNotBytes) {
    after({}, [] {
        write("a", "12", false);
        rename("a", "b");
        sync(".");
    });
    for (const Model model : {Model::kOrdered, Model::kReordered, Model::kWeakest}) {
        EXPECT_THAT(of(model), UnorderedElementsAre("b=", "b=1", "b=12", "b=00"));
    }
}

TEST_F(DiskModelTest, OverwrittenInPlaceMayBeTheOldBytes) {
    after(file("a", "old"), [] { write("a", "n", false); });
    EXPECT_THAT(of(Model::kOrdered), UnorderedElementsAre("a=old", "a=", "a=n", "a=0"));
    after(file("a", "old"), [] { write("a", "n", true); });
    EXPECT_THAT(of(Model::kOrdered), UnorderedElementsAre("a=n"));
}

TEST_F(DiskModelTest, ReplacingBySavedNameLosesNeither) {
    after({{"d", {false, "old"}}, {"n", {false, "new"}}}, [] {
        rename("d", "o");
        rename("n", "d");
    });
    EXPECT_THAT(of(Model::kOrdered),
                UnorderedElementsAre("d=old n=new", "n=new o=old", "d=new o=old"));
    // The second alone: it replaces what the first has not yet moved.
    EXPECT_THAT(of(Model::kReordered),
                UnorderedElementsAre("d=old n=new", "n=new o=old", "d=new o=old", "d=new"));
    EXPECT_THAT(of(Model::kWeakest), Contains("n=new"));
}

TEST_F(DiskModelTest, RemovalsOfOneFolderComeInAnyOrder) {
    after({{"a", {false, "1"}}, {"b", {false, "2"}}}, [] {
        remove("a");
        remove("b");
    });
    EXPECT_THAT(of(Model::kOrdered), UnorderedElementsAre("a=1 b=2", "b=2", ""));
    EXPECT_THAT(of(Model::kReordered), UnorderedElementsAre("a=1 b=2", "b=2", "a=1", ""));
}

TEST_F(DiskModelTest, SyncOfAnythingKeepsAllOrderedChangesBeforeIt) {
    after({{"x", {true, ""}}, {"x/a", {false, "1"}}}, [] {
        remove("x/a");
        write("b", "2", true);
        rename("b", "c");
    });
    EXPECT_THAT(of(Model::kOrdered), UnorderedElementsAre("b=2 x/", "c=2 x/"));
    EXPECT_THAT(of(Model::kReordered),
                UnorderedElementsAre("b=2 x/", "c=2 x/", "b=2 x/ x/a=1", "c=2 x/ x/a=1"));
}

TEST_F(DiskModelTest, FolderNeverTakesThePlaceOfAFullOne) {
    after(
        {{"db", {true, ""}}, {"db/a", {false, "1"}}, {"new", {true, ""}}, {"new/a", {false, "2"}}},
        [] {
            rename("db", "old");
            rename("new", "db");
        });
    EXPECT_THAT(of(Model::kReordered),
                UnorderedElementsAre("db/ db/a=1 new/ new/a=2", "new/ new/a=2 old/ old/a=1",
                                     "db/ db/a=2 old/ old/a=1"));
}

TEST_F(DiskModelTest, SyncOfTheFileSystemKeepsEverything) {
    after({}, [] {
        makeFolder("x");
        write("x/a", "1", false);
        os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
        ASSERT_EQ(0, os::syncfs(folder.get()));
    });
    for (const Model model : kModels) {
        EXPECT_THAT(of(model), UnorderedElementsAre("x/ x/a=1"));
    }
}

TEST_F(DiskModelTest, FailedSyncKeepsNothing) {
    after({}, [] {
        const fault::FailingCall failure(1, EIO, fault::Mode::kOnce, {fault::Call::kFsync});
        os::File made = os::openFile("a", O_WRONLY | O_CREAT);
        ASSERT_TRUE(os::writeAll(made.get(), "12", 2));
        EXPECT_FALSE(os::closeDurably(std::move(made)));
    });
    EXPECT_THAT(of(Model::kOrdered), Contains(""));
    EXPECT_THAT(of(Model::kOrdered), Contains("a="));
}

TEST_F(DiskModelTest, BeyondTheLimitItSamplesAndSaysSo) {
    Tree start;
    for (char name = 'a'; name <= 'p'; ++name) {
        start[std::string(1, name)] = {false, "x"};
    }
    Disk disk(start);
    clearCurrentFolder();
    writeCurrentFolder(start);
    const fault::Recorder recorder(fault::kLastingCalls);
    for (const auto& [path, node] : start) {
        remove(path.c_str());
    }
    for (const fault::Event& call : recorder.events()) {
        disk.apply(call);
    }
    std::mt19937 random(1);
    Trees trees;
    const auto add = [&](const Tree& tree) { trees.insert(brief(tree)); };
    EXPECT_FALSE(disk.forEachTree(Model::kReordered, {1000, 10, 50, 1}, random, add));
    EXPECT_LT(20U, trees.size());
    EXPECT_GE(50U, trees.size());
    trees.clear();
    EXPECT_TRUE(disk.forEachTree(Model::kReordered, {1U << 16, 10, 0, 0}, random, add));
    EXPECT_EQ(1U << 16, trees.size());
}

}  // namespace
}  // namespace crash
