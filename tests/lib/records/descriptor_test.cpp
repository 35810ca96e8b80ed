#include "lib/records/descriptor.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/file_store.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using namespace std::string_literals;
using Form = DescriptorLine::Form;

TEST(DescriptorTest, ReadsTheLinesOfARecord) {
    const auto lines = parseDescriptor(
        "11000003 00000000 00000003\n"
        "00000003 00000001 alice\n"
        "01000002 00000003 00ff\n"
        "! a comment\n"
        "   \n"
        "zz 1 x\n"
        "00000001 00000005 zz\n"
        "00000004 00000007 ");
    ASSERT_EQ(8u, lines.size());
    EXPECT_EQ("00000003", lines[0].data);
    EXPECT_EQ("00000003\0"s, lines[0].value);
    EXPECT_EQ("alice", lines[1].data);
    EXPECT_EQ(1u, lines[1].id);
    EXPECT_EQ(kFlagEncrypted, lines[2].type & kFlagEncrypted);
    EXPECT_EQ("\0\xff"s, lines[2].value);
    EXPECT_EQ(Form::kSkipped, lines[3].form);
    EXPECT_EQ(Form::kSkipped, lines[4].form);
    EXPECT_EQ(Form::kNoNumbers, lines[5].form);
    EXPECT_EQ("zz 1 x", lines[5].text);
    EXPECT_EQ(Form::kBadData, lines[6].form);
    EXPECT_EQ(5u, lines[6].id);
    EXPECT_EQ("zz", lines[6].data);
    EXPECT_EQ(Form::kAttribute, lines[7].form);
    EXPECT_EQ("", lines[7].data);
    EXPECT_EQ("00000003", bodyNameOf(lines));
    EXPECT_FALSE(isSound(lines));
}

TEST(DescriptorTest, TheFirstLineWithFlagAndId0NamesTheBody) {
    const struct {
        const char* name;
        std::string text;
        std::optional<std::string> body;
        bool isSound;
    } rows[] = {
        {"no flag", "00000003 00000000 a\n", std::nullopt, true},
        {"another id", "10000003 00000001 a\n", std::nullopt, true},
        {"not the first line", "00000003 00000001 a\n10000003 0 b\n", "b", true},
        {"two", "10000003 0 a\n10000003 0 b\n", "a", true},
        {"empty descriptor", "", std::nullopt, true},
        {"of another data type", "10000002 0 6162\n", "ab", true},
        {"up to a NUL", "10000002 0 610062\n", "a", true},
        {"data that is not of its type", "10000002 0 6x\n", std::nullopt, false},
        {"elsewhere", "10000003 0 ../keys/00000001\n", "../keys/00000001", false},
        {"a descriptor", "10000003 0 b.dsc\n", "b.dsc", false},
        {"empty name", "10000003 0 \n", "", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto lines = parseDescriptor(row.text);
        EXPECT_EQ(row.body, bodyNameOf(lines));
        EXPECT_EQ(row.isSound, isSound(lines));
    }
}

// As a loop of fgets() has it: what it took with the NUL is lost, and what it takes next
// follows directly.
TEST(DescriptorTest, ANulHidesTheRestOfItsLineAndJoinsTheNext) {
    const auto joined = parseDescriptor("10000003 0 a\0b\nc\n"s);
    ASSERT_EQ(1u, joined.size());
    EXPECT_EQ("10000003 0 ac", joined[0].text);
    EXPECT_EQ("ac", bodyNameOf(joined));

    const auto ended = parseDescriptor("10000003 0 a\n\0b\n10000003 0 c\n"s);
    ASSERT_EQ(2u, ended.size());
    EXPECT_EQ(Form::kNul, ended[1].form);
    EXPECT_EQ("a", bodyNameOf(ended));
    EXPECT_FALSE(isSound(ended));
}

// Descriptors near to those that the store writes, with all that its reader minds.
class Descriptors {
public:
    std::string next() {
        std::string text;
        for (unsigned int lines = below(5); lines > 0; --lines) {
            text += line();
            text += below(9) == 0 ? "" : "\n";
        }
        return text;
    }

private:
    unsigned int below(unsigned int n) { return static_cast<unsigned int>(random_()) % n; }

    std::string oneOf(const std::vector<std::string>& choices) {
        return choices[below(static_cast<unsigned int>(choices.size()))];
    }

    std::string number() {
        if (below(12) == 0) {
            return oneOf({"g", "", "0x", "-", "+ 1", "0x-1"});
        }
        return oneOf({"", "", "+", "-", "0x", "-0X"}) +
               oneOf({"1", "2", "3", "4", "3", "4", "10000003", "10000002", "01000002", "0",
                      "00000001", "7", "ffffffff", "123456789"});
    }

    std::string data() {
        switch (below(6)) {
            case 0:
                return std::string(below(3000), oneOf({"a", "0", " "})[0]);
            case 1:
                return std::string(1020 + below(10), 'f');  // where fgets() stops
            case 2:
                return "00ff1";
            default:
                return oneOf({"", "00000001", "alice", "zz", "a b", " \t", "12 34", "../a"});
        }
    }

    std::string line() {
        std::string text = oneOf({"", "", "", " ", "!", "\t! "}) + number() +
                           oneOf({" ", "\t", "  "}) + number() + oneOf({" ", " ", " ", ""}) +
                           data();
        for (unsigned int nuls = below(8) == 0 ? 1 + below(2) : 0; nuls > 0; --nuls) {
            text.insert(below(static_cast<unsigned int>(text.size()) + 1), 1, '\0');
        }
        return text;
    }

    std::mt19937 random_{20};
};

struct Reading {
    std::vector<DscLine> lines;
    bool isWhole = false;

    bool operator==(const Reading& other) const {
        return isWhole == other.isWhole &&
               std::ranges::equal(lines, other.lines, [](const DscLine& a, const DscLine& b) {
                   return a.type == b.type && a.id == b.id && a.data == b.data;
               });
    }
};

Reading readByStore(const std::string& path) {
    std::vector<FileStore::Attr> attributes;
    Reading reading;
    reading.isWhole = FileStore::readDSC(path.c_str(), attributes) == kOk;
    for (const FileStore::Attr& attribute : attributes) {
        reading.lines.push_back({attribute.type, attribute.id, std::string(attribute.bytes())});
    }
    return reading;
}

// What the store would see of it: all up to the first line that is damaged.
Reading readByTool(const std::string& path) {
    Reading reading{.lines = {}, .isWhole = true};
    for (const DescriptorLine& line : readDescriptor(path)) {
        if (line.isDamaged()) {
            reading.isWhole = false;
            break;
        }
        if (line.form == Form::kAttribute) {
            reading.lines.push_back({line.type, line.id, line.value});
        }
    }
    return reading;
}

TEST(DescriptorTest, ReadsWhatTheStoreReads) {
    const support::TempDir folder;
    const std::string path = folder.path() + "/a.dsc";
    Descriptors descriptors;
    std::size_t whole = 0, damaged = 0, lines = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string text = descriptors.next();
        std::ofstream(path, std::ios::binary) << text;
        const Reading expected = readByStore(path);
        ASSERT_TRUE(expected == readByTool(path)) << testing::PrintToString(text);
        ++(expected.isWhole ? whole : damaged);
        lines += expected.lines.size();
    }
    EXPECT_LT(1000u, whole);
    EXPECT_LT(1000u, damaged);
    EXPECT_LT(5000u, lines);
}

}  // namespace
}  // namespace fstore
