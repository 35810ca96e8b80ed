// Descriptors as files: what is written, what is read, and what is refused.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/file_store.h"
#include "tests/support/test_store.h"

namespace {

using std::string_literals::operator""s;
using support::readFile;
using support::tree;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

using Attrs = std::vector<FileStore::Attr>;

std::string text(const FileStore::Attr& attr) {
    return {reinterpret_cast<const char*>(attr.data), attr.size};
}

// "11000003 00000000 alice." : words and data, with "." for what does not print.
std::vector<std::string> told(const Attrs& attrs) {
    std::vector<std::string> lines;
    for (const FileStore::Attr& attr : attrs) {
        char head[32];
        (void)std::snprintf(head, sizeof head, "%08x %08x ", attr.type, attr.id);
        std::string data = text(attr);
        for (char& c : data) {
            c = c < ' ' || c > '~' ? '.' : c;
        }
        lines.push_back(head + data);
    }
    return lines;
}

class DscFileTest : public testing::Test {
protected:
    void add(unsigned int type, unsigned int id, const std::string& data) {
        ASSERT_EQ(kOk, record.addAttr(type, id, dataOf(data), sizeOf(data)));
    }

    // What writeDSC() makes of the record.
    std::string written(const char* bodyFileName) {
        EXPECT_EQ(kOk, record.writeDSC("./a.dsc", bodyFileName));
        return readFile("./a.dsc");
    }

    // The attributes of a descriptor of this content.
    Status read(const std::string& content, Attrs& attrs) {
        writeFile("./a.dsc", content);
        return FileStore::readDSC("./a.dsc", attrs);
    }

    TestStore store;
    CMN_GRefPtr<FileStore> held{new FileStore};
    FileStore& record = *held.get();
};

TEST_F(DscFileTest, WritesTheWorkedExample) {
    ASSERT_EQ(kOk, record.setBodyFlag(1));
    add(3, 1, "alice");
    add(1, 2, "\x2a\0\0\0"s);
    add(2, 3, "\x01\xab\xff");
    EXPECT_EQ(
        "11000003 00000000 00000003\n"
        "00000003 00000001 alice\n"
        "00000001 00000002 0000002a\n"
        "00000002 00000003 01abff\n",
        written("00000003"));
}

TEST_F(DscFileTest, BodyReferenceTellsWhetherTheBodyIsEncrypted) {
    EXPECT_EQ("10000003 00000000 0000000a\n", written("0000000a"));
    ASSERT_EQ(kOk, record.setBodyFlag(1));
    EXPECT_EQ("11000003 00000000 0000000a\n", written("0000000a"));
}

TEST_F(DscFileTest, NoBodyMeansNoReference) {
    EXPECT_EQ("", written(nullptr));
    EXPECT_EQ("", written(""));
    add(2, 1, "a");
    EXPECT_EQ("00000002 00000001 61\n", written(nullptr));
}

TEST_F(DscFileTest, WritesOverWhatIsThere) {
    writeFile("./a.dsc", std::string(5000, 'x'));
    add(2, 1, "a");
    EXPECT_EQ("00000002 00000001 61\n", written(nullptr));
}

TEST_F(DscFileTest, TextEndsAtItsFirstNul) {
    add(4, 1, "ab\0cd"s);
    EXPECT_EQ("00000004 00000001 ab\n", written(nullptr));
}

TEST_F(DscFileTest, RefusalsLeaveNoFile) {
    std::filesystem::create_directory("./folder");
    EXPECT_EQ(kInvalid, record.writeDSC(nullptr, nullptr));
    EXPECT_EQ(kIo, record.writeDSC("./no such folder/a.dsc", nullptr));
    EXPECT_EQ(kIo, record.writeDSC("./folder", nullptr));
    EXPECT_EQ(kMalformed, record.writeDSC("./a.dsc", "line\nfeed"));
    add(2, 1, "a");
    for (const unsigned int type : {0U, 5U, 15U}) {
        SCOPED_TRACE(type);
        add(type, 2, "unprintable");
        EXPECT_EQ(kMalformed, record.writeDSC("./a.dsc", nullptr));
        ASSERT_EQ(kOk, record.removeAttr(1));
    }
    ASSERT_EQ(kOk, record.setAttrFlag(0, 1));
    EXPECT_EQ(kIo, record.writeDSC("./a.dsc", nullptr)) << "no cipher, so nothing encrypted";
    store.services().x509cmn().watch().failAt("createTBuf");
    ASSERT_EQ(kOk, record.setAttrFlag(0, 0));
    EXPECT_EQ(kIo, record.writeDSC("./a.dsc", nullptr)) << "no buffer";
    EXPECT_TRUE(store.services().x509cmn().watch().lift());
    EXPECT_FALSE(std::filesystem::exists("./a.dsc"));
    EXPECT_EQ(kOk, record.writeDSC("./a.dsc", nullptr));
}

TEST_F(DscFileTest, LinesAreMadeAsTabled) {
    const struct {
        const char* name;
        unsigned int type;
        std::string data;
        Status status;
        const char* line;
    } rows[] = {
        {"number", 1, "\x2a\0\0\x80"s, kOk, "00000001 00000007 8000002a"},
        {"number of other size", 1, "abc", kMalformed, ""},
        {"binary", 2, "\x01\xab\xff", kOk, "00000002 00000007 01abff"},
        {"binary of no bytes", 2, "", kOk, "00000002 00000007 "},
        {"string", 3, "alice\0"s, kOk, "00000003 00000007 alice"},
        {"string cut at its NUL", 3, "ab\0cd\0"s, kOk, "00000003 00000007 ab"},
        {"string without NUL", 3, "ab", kOk, "00000003 00000007 ab"},
        {"text", 4, "alice", kOk, "00000004 00000007 alice"},
        {"unknown flags are carried", 0x2e0000f2, "a", kOk, "2e0000f2 00000007 61"},
        {"body references stay plain", 0x11000003, "x\0"s, kOk, "11000003 00000007 x"},
        {"encrypted without cipher", 0x01000002, "a", kIo, ""},
        {"not printable", 5, "a", kMalformed, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FileStore::Attr attr;
        attr.adopt(row.type, 7, std::make_unique<unsigned char[]>(row.data.size()),
                   sizeOf(row.data));
        std::copy(row.data.begin(), row.data.end(), attr.data);
        std::string line;
        EXPECT_EQ(row.status, record.bringAttr(attr, line));
        EXPECT_EQ(row.line, line);
    }
}

TEST_F(DscFileTest, LinesAreTakenApartAsTabled) {
    const struct {
        const char* name;
        const char* line;
        Status status;
        std::vector<std::string> attr;
    } rows[] = {
        {"null", nullptr, kInvalid, {}},
        {"no numbers", "zz 1 x", kMalformed, {}},
        {"one number", "00000003", kMalformed, {}},
        {"string", "00000003 00000001 alice", kOk, {"00000003 00000001 alice."}},
        {"lone last digit", "00000002 00000007 abc", kOk, {"00000002 00000007 .."}},
        {"binary of no bytes", "00000002 00000007 ", kOk, {"00000002 00000007 "}},
        {"number without digits", "00000001 00000007 ", kMalformed, {}},
        {"leading blanks are lost", "3 1    padded", kOk, {"00000003 00000001 padded."}},
        {"flags are kept", "11000004 00000000 x", kOk, {"11000004 00000000 x"}},
        {"unknown type", "00000005 00000001 x", kMalformed, {}},
        {"not hexadecimal", "00000002 00000001 0g", kMalformed, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Attrs attrs(1);
        attrs[0].pending = 1;
        EXPECT_EQ(row.status, FileStore::parseAttr(row.line, attrs[0]));
        EXPECT_EQ(1U, attrs[0].pending) << "is the caller's";
        if (row.status == kOk) {
            EXPECT_EQ(row.attr, told(attrs));
        } else {
            EXPECT_EQ(nullptr, attrs[0].data);
        }
    }
}

TEST_F(DscFileTest, ReadsContentsAsTabled) {
    const std::string longText(5000, 'x');
    const std::string huge(10 << 20, 'x');
    const struct {
        const char* name;
        std::string content;
        Status status;
        std::vector<std::string> attrs;  // those before a bad line are there
    } rows[] = {
        {"empty file", "", kOk, {}},
        {"comments and blank lines",
         "! a\n\n   \n \t! 1 2 3\n4 1 a\n!",
         kOk,
         {"00000004 00000001 a"}},
        {"last line without its end",
         "4 1 a\n4 2 b",
         kOk,
         {"00000004 00000001 a", "00000004 00000002 b"}},
        {"line of 5000 characters",
         "4 1 " + longText + "\n4 2 b\n",
         kOk,
         {"00000004 00000001 " + longText, "00000004 00000002 b"}},
        {"line of 10 MiB", "4 1 " + huge, kOk, {"00000004 00000001 " + huge}},
        {"bad line", "4 1 a\nzz\n4 2 b\n", kMalformed, {"00000004 00000001 a"}},
        {"NUL at the start of a line", "4 1 a\n\0 2 b\n"s, kMalformed, {"00000004 00000001 a"}},
        {"NUL alone", "\0"s, kMalformed, {}},
        {"zeros", std::string(100000, '\0'), kMalformed, {}},
        {"white space alone", " \t\r\n \v\f", kOk, {}},
        {"carriage returns are data", "4 1 a\r\n", kOk, {"00000004 00000001 a."}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Attrs attrs;
        EXPECT_EQ(row.status, read(row.content, attrs));
        EXPECT_TRUE(row.attrs == told(attrs));  // without a message of 10 MiB
    }
}

TEST_F(DscFileTest, ReadingAppends) {
    Attrs attrs;
    ASSERT_EQ(kOk, read("4 1 a\n", attrs));
    ASSERT_EQ(kOk, read("4 2 b\n", attrs));
    ASSERT_EQ(kMalformed, read("4 3 c\nbad\n", attrs));
    EXPECT_THAT(told(attrs),
                ElementsAre("00000004 00000001 a", "00000004 00000002 b", "00000004 00000003 c"));
}

TEST_F(DscFileTest, WhatCannotBeOpenedIsMissing) {
    Attrs attrs;
    EXPECT_EQ(kInvalid, FileStore::readDSC(nullptr, attrs));
    EXPECT_EQ(kMissing, FileStore::readDSC("./no such file", attrs));
    EXPECT_EQ(kMissing, FileStore::readDSC("", attrs));
    std::filesystem::create_directory("./folder");
    EXPECT_EQ(kMalformed, FileStore::readDSC("./folder", attrs)) << "opened, but not read";
    EXPECT_THAT(attrs, IsEmpty());
}

TEST_F(DscFileTest, StringsLoseWhatStandsBehindTheirNul) {
    Attrs attrs(1);
    attrs[0].adopt(3, 1, std::make_unique<unsigned char[]>(6), 6);
    std::copy_n("ab\0cd", 6, attrs[0].data);
    std::string line;
    ASSERT_EQ(kOk, record.bringAttr(attrs[0], line));
    Attrs again;
    ASSERT_EQ(kOk, read(line, again));
    ASSERT_EQ(1U, again.size());
    EXPECT_EQ("ab\0"s, text(again[0]));
}

TEST_F(DscFileTest, EncryptedAttributesHoldCipherBytes) {
    aFileStore mine = TestStore::record("a");
    fill(mine, {{{kTypeBinary, 3, "secret", true}, {kTypeBinary, 4, "plain", false}}, {}, false});
    ASSERT_EQ(kOk, mine.write());
    Attrs attrs;
    ASSERT_EQ(kOk, FileStore::readDSC(store.path("a.dsc").c_str(), attrs));
    ASSERT_EQ(2U, attrs.size());
    EXPECT_EQ(0x01000002U, attrs[0].type);
    EXPECT_NE("secret", text(attrs[0]));
    EXPECT_EQ("plain", text(attrs[1]));
    aBuf plain(static_cast<TBuf*>(nullptr));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.decode(aBuf(static_cast<TBuf*>(nullptr)),
                                          aBuf(attrs[0].data, attrs[0].size), plain));
    EXPECT_EQ("secret", bytesOf(plain.target()));
}

// A failure of any of the buffers or encryptions that a descriptor takes is one of
// the write, which leaves the old record.
TEST_F(DscFileTest, NoCipherFailureGoesForSuccess) {
    const Contents old{{{kTypeBinary, 1, "old", true}}, "old body", true};
    const Contents fresh{
        {{kTypeBinary, 1, "new", true}, {kTypeBinary, 2, "more", true}}, "new body", true};
    ASSERT_EQ(kOk, TestStore::save("a", old));
    for (const char* const what : {"createTBuf", "encrypt"}) {
        int failures = 0;
        for (int nth = 1; nth < 1000; ++nth) {
            SCOPED_TRACE(what + std::to_string(nth));
            CallWatch& watch = what == "encrypt"s ? store.services().pkcs5().watch()
                                                  : store.services().x509cmn().watch();
            aFileStore mine = TestStore::record("a");
            fill(mine, fresh);
            watch.failAt(what, nth);
            const Status status = mine.write();
            if (!watch.lift()) {
                EXPECT_EQ(kOk, status);
                break;
            }
            ++failures;
            EXPECT_EQ(kIo, status);
            EXPECT_EQ(old, TestStore::load("a"));
            EXPECT_EQ(2U, TestStore::files().size());
        }
        EXPECT_GE(failures, 3) << "a body and two attributes";
        EXPECT_EQ(fresh, TestStore::load("a"));
        ASSERT_EQ(kOk, TestStore::save("a", old));
    }
}

// Descriptors kept as files: the data expected of each stands beside it, one line of
// type word, id and bytes for each attribute.

class GoldenDescriptorTest : public testing::TestWithParam<std::string> {
protected:
    static std::string file(const std::string& extension) {
        return std::string(TEST_DATA) + "/descriptors/" + GetParam() + extension;
    }

    static std::vector<std::string> expected() {
        std::istringstream lines(readFile(file(".expected")));
        std::vector<std::string> all;
        for (std::string line; std::getline(lines, line);) {
            all.push_back(line);
        }
        return all;
    }

    static std::vector<std::string> inHex(const Attrs& attrs) {
        std::vector<std::string> lines;
        for (const FileStore::Attr& attr : attrs) {
            std::string line;
            EXPECT_EQ(kOk, appendDscLine(kTypeBinary, attr.id, attr.data, attr.size, line));
            char word[16];
            (void)std::snprintf(word, sizeof word, "%08x", attr.type);
            lines.push_back(line.replace(0, 8, word) + (attr.size == 0 ? "-" : ""));
        }
        return lines;
    }

    // As the store itself would have written it.
    static std::string canonical() {
        return readFile(std::filesystem::exists(file(".canonical")) ? file(".canonical")
                                                                    : file(".dsc"));
    }
};

TEST_P(GoldenDescriptorTest, IsReadAsExpectedAndRewrittenToTheSameBytes) {
    Attrs attrs;
    ASSERT_EQ(kOk, FileStore::readDSC(file(".dsc").c_str(), attrs));
    EXPECT_EQ(expected(), inHex(attrs));
    std::string all;
    for (const FileStore::Attr& attr : attrs) {
        ASSERT_EQ(kOk, appendDscLine(attr.type, attr.id, attr.data, attr.size, all));
        all += '\n';
    }
    EXPECT_EQ(canonical(), all);
}

// Through a record, which takes the body reference out and puts it in again. What is
// encrypted is another text each time, and other lines flagged as references go.
class GoldenRecordTest : public GoldenDescriptorTest {};

TEST_P(GoldenRecordTest, WritesWhatItHasRead) {
    TestStore store;
    writeFile(store.path("a.dsc"), readFile(file(".dsc")));
    writeFile(store.path("00000003"), "the body");
    const CMN_GRefPtr<FileStore> record(new FileStore);
    ASSERT_EQ(kOk, record.get()->setFolderName(TestStore::kFolder));
    ASSERT_EQ(kOk, record.get()->setName("a"));
    ASSERT_EQ(kOk, record.get()->read());
    ASSERT_EQ(kOk, record.get()->writeDSC("./again.dsc",
                                          record.get()->hasBody() != 0 ? "00000003" : nullptr));
    EXPECT_EQ(canonical(), readFile("./again.dsc"));
}

INSTANTIATE_TEST_SUITE_P(, GoldenRecordTest,
                         testing::Values("worked_example", "empty", "all_types", "long_lines",
                                         "duplicates", "by_hand"),
                         [](const auto& param) { return param.param; });

INSTANTIATE_TEST_SUITE_P(, GoldenDescriptorTest,
                         testing::Values("worked_example", "encrypted", "empty", "all_types",
                                         "carried_flags", "long_lines", "duplicates", "by_hand"),
                         [](const auto& param) { return param.param; });

TEST(GoldenDescriptorsTest, AllAreInTheList) {
    std::size_t descriptors = 0;
    for (const auto& entry : std::filesystem::directory_iterator(TEST_DATA "/descriptors")) {
        descriptors += entry.path().extension() == ".dsc" ? 1 : 0;
    }
    EXPECT_EQ(8U, descriptors);
}

}  // namespace
