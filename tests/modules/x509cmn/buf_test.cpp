#include "modules/x509cmn/buf.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "tests/modules/secret_heap.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace std::string_literals;
using support::readFile;
using support::TempDir;
using support::writeFile;

const unsigned char* raw(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::unique_ptr<Buf> bufOf(const std::string& text) {
    auto made = std::make_unique<Buf>();
    EXPECT_EQ(kOk, made->set(raw(text), static_cast<unsigned int>(text.size())));
    return made;
}

std::string textOf(Buf& buf) {
    return {buf.data(), buf.data() + buf.length()};
}

TEST(BufTest, EmptyBufferHasAddressAndNoLength) {
    Buf buf;
    EXPECT_NE(nullptr, buf.data());
    EXPECT_EQ(0U, buf.length());
    EXPECT_EQ(0U, buf.capacity());
    EXPECT_EQ(Buf::kType, buf.getType());
}

TEST(BufTest, HoldsWhatItIsGiven) {
    const struct {
        const char* name;
        std::string contents;
    } rows[] = {
        {"nothing", ""},
        {"one byte", "a"},
        {"zeros", "\0\0\0"s},
        {"every value",
         [] {
             std::string all;
             for (int value = 0; value < 256; ++value) {
                 all += static_cast<char>(value);
             }
             return all;
         }()},
        {"many bytes", std::string(100'000, 'x')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto buf = bufOf("before");
        ASSERT_EQ(kOk, buf->set(raw(row.contents), static_cast<unsigned int>(row.contents.size())));
        EXPECT_EQ(row.contents, textOf(*buf));
        EXPECT_GE(buf->capacity(), buf->length());

        ASSERT_EQ(kOk, buf->append(buf.get()));
        EXPECT_EQ(row.contents + row.contents, textOf(*buf));
    }
}

TEST(BufTest, TextEndsBeforeItsNul) {
    Buf buf;
    ASSERT_EQ(kOk, buf.set("text"));
    EXPECT_EQ("text", textOf(buf));
    ASSERT_EQ(kOk, buf.set(""));
    EXPECT_EQ("", textOf(buf));
}

TEST(BufTest, NullArgumentsAreInvalidAndChangeNothing) {
    const auto buf = bufOf("kept");
    const unsigned char* const null = nullptr;
    const struct {
        const char* name;
        std::function<Status()> call;
        Status status;
    } rows[] = {
        {"set text", [&] { return buf->set(nullptr); }, kInvalid},
        {"set bytes", [&] { return buf->set(null, 3); }, kInvalid},
        {"append bytes", [&] { return buf->append(null, 3); }, kInvalid},
        {"append no bytes", [&] { return buf->append(null, 0); }, kOk},
        {"append buffer", [&] { return buf->append(nullptr); }, kInvalid},
        {"duplicate", [&] { return buf->duplicate(nullptr); }, kInvalid},
        {"load", [&] { return buf->load(nullptr); }, kInvalid},
        {"save", [&] { return buf->save(nullptr); }, kInvalid},
        {"shift too far", [&] { return buf->shift(5); }, kInvalid},
        {"retreat too far", [&] { return buf->retreat(5); }, kInvalid},
        {"shift by all there is", [&] { return buf->shift(0xFFFFFFFF); }, kInvalid},
        {"append more than fits",
         [&] { return buf->append(buf->data(), 0xFFFFFFFF); },  // refused before it is read
         kNoMemory},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.status, row.call());
        EXPECT_EQ("kept", textOf(*buf));
    }
    EXPECT_EQ(kOk, buf->set(null, 0));
    EXPECT_EQ("", textOf(*buf));
}

TEST(BufTest, DuplicatesOthersAndItself) {
    const auto source = bufOf("source");
    const auto buf = bufOf("longer than the source");
    ASSERT_EQ(kOk, buf->duplicate(source.get()));
    EXPECT_EQ("source", textOf(*buf));
    ASSERT_EQ(kOk, buf->duplicate(buf.get()));
    EXPECT_EQ("source", textOf(*buf));
    source->data()[0] = 'S';
    EXPECT_EQ("source", textOf(*buf));
}

TEST(BufTest, ComparesAsTabled) {
    const struct {
        const char* name;
        std::string left, right;
        bool differ;
    } rows[] = {
        {"both empty", "", "", false},
        {"same", "abc", "abc", false},
        {"first byte", "abc", "xbc", true},
        {"last byte", "abc", "abx", true},
        {"one bit", "abc"s, "ab\xe3"s, true},
        {"prefix", "abc", "ab", true},
        {"longer by a zero", "abc", "abc\0"s, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto left = bufOf(row.left);
        const auto right = bufOf(row.right);
        EXPECT_EQ(row.differ, left->compare(right.get()) != 0);
        EXPECT_EQ(row.differ, right->compare(left.get()) != 0);
        EXPECT_EQ(0, left->compare(left.get()));
        EXPECT_NE(0, left->compare(nullptr));
    }
}

TEST(BufTest, DropsBytesAtBothEnds) {
    const auto buf = bufOf("0123456789");
    EXPECT_EQ(kOk, buf->shift(2));
    EXPECT_EQ(kOk, buf->retreat(3));
    EXPECT_EQ("23456", textOf(*buf));
    EXPECT_EQ(kOk, buf->shift(0));
    EXPECT_EQ(kOk, buf->retreat(0));
    EXPECT_EQ(kOk, buf->shift(5));
    EXPECT_EQ("", textOf(*buf));
    EXPECT_EQ(kInvalid, buf->retreat(1));
}

TEST(BufTest, LeavesNoTraceInMemory) {
    const long before = support::freedWithMarker();
    {
        const auto buf = bufOf(support::kMarker);
        ASSERT_EQ(kOk, buf->append(buf.get()));
        ASSERT_EQ(kOk, buf->append(raw(std::string(10'000, 'x')), 10'000));
        ASSERT_EQ(kOk, buf->clear());
        EXPECT_EQ(0U, buf->length());
        ASSERT_EQ(kOk, buf->set(support::kMarker));
        ASSERT_EQ(kOk, buf->set("short"));
        EXPECT_EQ(std::string::npos,
                  std::string(buf->data(), buf->data() + buf->capacity()).find(support::kMarker));
        ASSERT_EQ(kOk, buf->set(support::kMarker));
    }
    EXPECT_EQ(before, support::freedWithMarker());
}

TEST(BufFileTest, SavesAndLoadsWhole) {
    const TempDir dir;
    for (const std::string& contents : {""s, "a"s, "\0\1\2"s, std::string(300'000, 'x')}) {
        SCOPED_TRACE(contents.size());
        const auto saved = bufOf(contents);
        ASSERT_EQ(kOk, saved->save((dir / "file").c_str()));
        EXPECT_EQ(contents, readFile(dir / "file"));
        const auto loaded = bufOf("before");
        ASSERT_EQ(kOk, loaded->load((dir / "file").c_str()));
        EXPECT_EQ(contents, textOf(*loaded));
    }
    EXPECT_EQ(1U, support::tree(dir.path()).size());
}

TEST(BufFileTest, SavedFileIsItsOwnersAlone) {
    const TempDir dir;
    writeFile(dir / "file", "open to all");
    ASSERT_EQ(0, chmod((dir / "file").c_str(), 0644));
    ASSERT_EQ(kOk, bufOf("secret")->save((dir / "file").c_str()));
    struct stat status {};
    ASSERT_EQ(0, stat((dir / "file").c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 0777U);
}

TEST(BufFileTest, SavesUnderABareName) {
    const support::TempWorkingDir dir;
    ASSERT_EQ(kOk, bufOf("text")->save("file"));
    EXPECT_EQ("text", readFile(dir / "file"));
}

TEST(BufFileTest, SavesThroughNoLink) {
    const TempDir dir;
    writeFile(dir / "target", "target");
    ASSERT_EQ(0, symlink("target", (dir / "link").c_str()));
    EXPECT_EQ(kInvalid, bufOf("text")->save((dir / "link").c_str()));
    EXPECT_EQ("target", readFile(dir / "target"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "link"));
    EXPECT_EQ(2U, support::tree(dir.path()).size());
}

TEST(BufFileTest, SavesThroughAFifo) {
    const TempDir dir;
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
    std::string got;
    std::thread reader([&] { got = readFile(dir / "fifo"); });
    EXPECT_EQ(kOk, bufOf("text")->save((dir / "fifo").c_str()));
    reader.join();
    EXPECT_EQ("text", got);
    EXPECT_TRUE(std::filesystem::is_fifo(dir / "fifo"));
}

TEST(BufFileTest, RemovesWhatAKilledSaveLeft) {
    const TempDir dir;
    writeFile(dir / ".file.new-5d0c9e7b-0", "left");
    ASSERT_EQ(kOk, bufOf("text")->save((dir / "file").c_str()));
    EXPECT_EQ(1U, support::tree(dir.path()).size());
    EXPECT_EQ("text", readFile(dir / "file"));
}

TEST(BufFileTest, LoadTellsWhyNot) {
    const TempDir dir;
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
    ASSERT_EQ(0, mkdir((dir / "folder").c_str(), 0700));
    writeFile(dir / "large", "");
    ASSERT_EQ(0, truncate((dir / "large").c_str(), 0x1'0000'0000));
    const struct {
        const char* name;
        std::string path;
        Status status;
    } rows[] = {
        {"absent", dir / "absent", kMissing},
        {"empty name", "", kMissing},
        {"folder", dir / "folder", kMissing},
        {"pipe", dir / "fifo", kMissing},
        {"one byte more than fits", dir / "large", kNoMemory},
        {"longer than its size", "/proc/self/status", kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto buf = bufOf("kept");
        EXPECT_EQ(row.status, buf->load(row.path.c_str()));
        EXPECT_EQ("kept", textOf(*buf));
    }
}

TEST(BufFileTest, SaveThatCannotLeavesNothingBehind) {
    const TempDir dir;
    ASSERT_EQ(0, mkdir((dir / "folder").c_str(), 0700));
    const auto before = support::tree(dir.path());
    for (const std::string& path : {dir / "folder", dir / "folder/", dir / "absent/file", ""s}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(kIo, bufOf("text")->save(path.c_str()));
        EXPECT_EQ(before, support::tree(dir.path()));
    }
}

}  // namespace
