#include "lib/base/key_file.h"

#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "tests/support/fs_fault.h"
#include "tests/support/status_of.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::statusOf;

constexpr std::string_view kLine =
    "fstore-key-1:3b9c358f36f0a31b6ad3e14f309c7cf198ac9246e8316f9ce543d5b19ac02b80:7502baf7";

Sha256Digest knownKey() {
    const std::string name = "file";
    return sha256({reinterpret_cast<const unsigned char*>(name.data()), name.size()});
}

// What the failure to take this text says; empty when it is taken.
std::string refusalOf(std::string_view text) {
    try {
        (void)parseKeyFile(text, "host.key");
    } catch (const Failure& failure) {
        EXPECT_EQ(kMalformed, failure.status());
        EXPECT_EQ("host.key", failure.path());
        return failure.what();
    }
    return {};
}

mode_t permissionsOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(KeyFileTest, PrintsAndReadsTheKnownLine) {
    EXPECT_EQ(std::string(kLine) + "\n", printKeyFile(knownKey()).view());
    for (const std::string end : {"", "\n"}) {
        EXPECT_TRUE(std::ranges::equal(knownKey(), parseKeyFile(std::string(kLine) + end, "f")));
    }
}

TEST(KeyFileTest, EveryOtherByteIsNamed) {
    const std::string line = std::string(kLine) + "\n";
    for (std::size_t place = 0; place < line.size(); ++place) {
        for (int value = 0; value < 256; ++value) {
            std::string text = line;
            text[place] = static_cast<char>(value);
            if (text == line) {
                continue;
            }
            const bool isHead = place < kLine.find(':') + 1;
            const std::string refusal = refusalOf(text);
            ASSERT_NE(std::string::npos,
                      refusal.find(isHead ? "host.key is not a key file of fstore"
                                          : "the key file host.key is damaged"))
                << place << " " << value << ": " << refusal;
        }
    }
}

TEST(KeyFileTest, EveryOtherSizeIsNamed) {
    const std::string line(kLine);
    for (std::size_t size = 0; size < line.size(); ++size) {
        EXPECT_NE("", refusalOf(line.substr(0, size))) << size;
    }
    for (const char* const more : {" ", "\r\n", "\n\n", "\nx", "0"}) {
        EXPECT_NE("", refusalOf(line + more));
    }
    EXPECT_NE("", refusalOf(" " + line));
    std::string upper = line;
    upper.replace(13, 4, "3B9C");
    EXPECT_NE("", refusalOf(upper));
    EXPECT_EQ(std::string::npos, refusalOf(upper).find("3B9C"));  // what may be a key is not shown
}

TEST(KeyFileTest, ANewOneIsPrivateAndOpensAgain) {
    const support::TempWorkingDir folder;
    const SecretKey key = createKeyFile("host.key");
    EXPECT_EQ(kKeyFileSize, key.size());
    EXPECT_EQ(0600u, permissionsOf("host.key"));
    EXPECT_EQ(1u, support::tree(".").size());
    const KeyFile file("host.key");
    EXPECT_FALSE(file.othersCanRead());
    EXPECT_EQ(key, file.read());
    EXPECT_NE(key, createKeyFile("other.key"));
}

TEST(KeyFileTest, ReplacesNothing) {
    const support::TempWorkingDir folder;
    support::writeFile("file", "x");
    std::filesystem::create_directory("folder");
    std::filesystem::create_symlink("nowhere", "link");
    ASSERT_EQ(0, ::mkfifo("fifo", 0600));
    const auto before = support::tree(".");
    for (const char* const name :
         {"file", "folder", "link", "fifo", "-", "/dev/null", "/dev/tty"}) {
        EXPECT_EQ(kInvalid, statusOf([&] { (void)createKeyFile(name); })) << name;
    }
    EXPECT_EQ(before, support::tree("."));
}

TEST(KeyFileTest, EachFailingCallLeavesNothingOrTheWholeFile) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("failing call " + std::to_string(nth));
        const support::TempWorkingDir folder;
        fault::FailingCall fault(nth, EIO);
        const Status status = statusOf([] { (void)createKeyFile("host.key"); });
        const bool hit = fault.lift();
        EXPECT_TRUE(fault::openHandles().empty());
        const auto left = support::tree(".");
        EXPECT_LE(left.size(), 1u);
        if (left.contains("host.key")) {
            EXPECT_EQ(kKeyFileSize, KeyFile("host.key").read().size());
        } else {
            EXPECT_NE(kOk, status);
        }
        if (!hit) {
            EXPECT_EQ(kOk, status);
            EXPECT_GT(nth, 5);
            break;
        }
    }
}

TEST(KeyFileTest, OpensOnlyRegularFilesAndNeverWaits) {
    const support::TempWorkingDir folder;
    std::filesystem::create_directory("folder");
    ASSERT_EQ(0, ::mkfifo("fifo", 0600));
    for (const char* const name : {"folder", "fifo", "/dev/zero"}) {
        EXPECT_EQ(kMalformed, statusOf([&] { (void)KeyFile(name); })) << name;
    }
    EXPECT_EQ(kMissing, statusOf([&] { (void)KeyFile("missing"); }));
}

TEST(KeyFileTest, ReadsNoMoreThanAKeyFileHas) {
    const support::TempWorkingDir folder;
    support::writeFile("host.key", std::string(kLine) + "\n");
    std::filesystem::resize_file("host.key", std::uintmax_t{1} << 40);
    EXPECT_EQ(kMalformed, statusOf([] { (void)KeyFile("host.key").read(); }));
}

TEST(KeyFileTest, ShowsThatOthersCanReadIt) {
    const support::TempWorkingDir folder;
    support::writeFile("host.key", std::string(kLine));
    for (const mode_t mode : {0600u, 0400u, 0640u, 0604u}) {
        ASSERT_EQ(0, ::chmod("host.key", mode));
        EXPECT_EQ((mode & 077u) != 0, KeyFile("host.key").othersCanRead()) << mode;
    }
}

}  // namespace
}  // namespace fstore
