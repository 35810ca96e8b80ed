// A generated corpus of folders reads and is written alike in every build: what the store
// makes of it, statuses, records and bytes, is kept here as digests, which 32-bit and 64-bit
// builds both must give.
//
// Whoever changes what is read or written on purpose, or the generator, replaces them by
// what the failing test prints, in both builds the same.
#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "format/dsc_text.h"
#include "gtest/gtest.h"
#include "service/md5.h"
#include "tests/support/doubles/toy_cipher.h"
#include "tests/support/test_store.h"

namespace {

using support::writeFile;

constexpr const char* kPassword = "corpus";

std::string hex(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        (void)std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

std::string digest(const std::string& bytes) {
    unsigned char value[16];
    EXPECT_EQ(1, rk5_MD5Compute(nullptr, value, bytes.data(), sizeOf(bytes)));
    return hex({reinterpret_cast<const char*>(value), sizeof value});
}

// Draws numbers by itself: the distributions of the standard library may go by the width
// of their types.
class Random {
public:
    explicit Random(unsigned int seed) : engine_(seed) {}

    unsigned int below(unsigned int bound) { return static_cast<unsigned int>(engine_()) % bound; }
    bool once(unsigned int in) { return below(in) == 0; }

    template <std::size_t size>
    const char* oneOf(const char* const (&texts)[size]) {
        return texts[below(size)];
    }

    std::string bytes(unsigned int size) {
        std::string made(size, '\0');
        for (char& byte : made) {
            byte = static_cast<char>(below(256));
        }
        return made;
    }

private:
    std::mt19937 engine_;
};

// Descriptors and bodies as nobody's store writes them, most of them well-formed.
class HostileCorpus {
public:
    explicit HostileCorpus(unsigned int seed) : random_(seed) {}

    // Writes one record, under one of the names that a descriptor may have.
    void write(const std::string& folder, const std::string& name) {
        std::string text;
        if (random_.below(3) != 0) {
            const std::string body = "body of " + name;
            const bool encrypted = random_.once(2);
            const std::string plain = random_.bytes(random_.below(200));
            if (!random_.once(20)) {
                writeFile(folder + "/" + body, encrypted ? sealed(plain) : plain);
            }
            text += encrypted ? "11000003 0 " : "10000003 0 ";
            text += random_.once(30) ? "../" + body : body;
            text += '\n';
        }
        for (unsigned int lines = random_.below(6); lines != 0; --lines) {
            text += line() + (lines == 1 && random_.once(2) ? "" : "\n");
        }
        writeFile(folder + "/" + name + (random_.once(10) ? ".dsc.$o$" : ".dsc"), text);
    }

private:
    std::string sealed(const std::string& plain) {
        const char* const password = random_.once(10) ? "another" : kPassword;
        return toy::seal(toy::derive({password, "", 1000, 16, 0x20000, 9, 0}), random_.below(1000),
                         plain);
    }

    // Every way to write a number that a reader knows, and some that none knows.
    std::string number() {
        if (random_.once(100)) {
            return random_.oneOf({"zz", "-", "+", "--1", "", "g1"});
        }
        std::string text = random_.oneOf({"", "", "", "+", "-", "0x", "0X", "-0x", "0"});
        for (unsigned int digits = 1 + random_.below(20); digits != 0; --digits) {
            text += "0123456789abcdefABCDEF"[random_.below(22)];
        }
        return text;
    }

    std::string spaces() { return random_.oneOf({" ", " ", " ", "  ", "\t", "\v\f\r "}); }

    std::string text() {
        std::string made;
        for (unsigned int size = random_.below(random_.once(20) ? 3000 : 40); size != 0; --size) {
            const char next = static_cast<char>(1 + random_.below(255));
            made += next == '\n' ? ' ' : next;
        }
        return made;
    }

    std::string line() {
        if (random_.once(30)) {
            return random_.oneOf({"! comment", "  ! 1 2 x", "", " \t", "bad", "1"});
        }
        const unsigned int type = random_.below(random_.once(30) ? 16 : 4) + 1;
        const bool encrypted = type == kTypeBinary && random_.once(3);
        std::string word = random_.oneOf({"0000000", "0", "-fffffff", "0x8000000", "7fffff0"});
        if (encrypted) {
            word = "0100000";
        }
        word += "0123456789abcdef0"[type];
        return word + spaces() + number() + spaces() + data(type, encrypted);
    }

    std::string data(unsigned int type, bool encrypted) {
        if (type == kTypeNumber) {
            return number();
        }
        if (type != kTypeBinary) {
            return text();
        }
        const std::string plain = random_.bytes(random_.below(60));
        std::string digits = hex(encrypted ? sealed(plain) : plain);
        if (random_.once(20)) {
            digits += random_.oneOf({"a", " behind", "x", "\t"});
        }
        return digits;
    }

    Random random_;
};

std::string tell(aFileStore& record) {
    const Contents contents = contentsOf(record);
    std::string told;
    for (const Contents::Attribute& attribute : contents.attributes) {
        told += "  " + std::to_string(attribute.type) + ' ' + std::to_string(attribute.id) + ' ' +
                (attribute.encrypted ? "encrypted " : "plain ") + hex(attribute.data) + '\n';
    }
    told += "  body ";
    told += contents.body ? hex(*contents.body) : "none";
    told += contents.encrypted ? " encrypted\n" : " plain\n";
    return told;
}

// The folder's files, but for the names of bodies, which count the files of a process.
std::string tellFiles() {
    std::string told;
    const auto files = TestStore::files();
    for (const auto& [name, content] : files) {
        if (name.find(".dsc") == std::string::npos) {
            continue;
        }
        told += name + ": ";
        const std::string first = content.substr(0, content.find('\n'));
        const auto body = files.find(first.substr(std::min<std::size_t>(18, first.size())));
        if (first.starts_with("1") && body != files.end()) {
            told += first.substr(0, 18) + hex(body->second) + hex(content.substr(first.size()));
        } else {
            told += hex(content);
        }
        told += '\n';
    }
    return told;
}

std::vector<std::string> recordNames() {
    aFileStoreList list;
    EXPECT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
    std::vector<std::string> names;
    for (aFileStore record = list.getFirst(); record.target() != nullptr; record = list.getNext()) {
        names.emplace_back(record.getName());
    }
    std::sort(names.begin(), names.end());  // listed in the order of the file system
    return names;
}

TEST(ShapeCorpusTest, HostileRecordsReadAndAreRewrittenAlike) {
    const TestStore store(kPassword);
    HostileCorpus corpus(20401);
    for (int i = 0; i < 3000; ++i) {
        corpus.write(TestStore::kFolder, "record " + std::to_string(i));
    }
    EXPECT_EQ("2f5084ee92b785112351a6977cced5d3", digest(tellFiles())) << "the corpus itself";

    std::string read;
    std::string decrypted;
    std::string written;
    int good = 0;
    for (const std::string& name : recordNames()) {
        aFileStore record = TestStore::record(name);
        const Status status = record.read();
        good += status == kOk ? 1 : 0;
        read += name + ": " + std::to_string(status) + '\n' + tell(record);
        decrypted += name + ": " + std::to_string(record.decrypt()) + '\n' + tell(record);
        written += name + ": " + std::to_string(record.write()) + '\n';
    }
    written += tellFiles();
    EXPECT_LT(1500, good);
    EXPECT_EQ("f5a13ab1b40c52c54762f1ef792a2223", digest(read));
    EXPECT_EQ("e8bdc80145e7439c8298b6065f1793d2", digest(decrypted));
    EXPECT_EQ("c9b27bd7d35eba9fa4cf8bc06ab10ffe", digest(written));
}

TEST(ShapeCorpusTest, RecordsAreWrittenAlikeAndComeBack) {
    TestStore store(kPassword);
    Random random(20402);
    std::vector<Contents> all;
    for (int i = 0; i < 500; ++i) {
        Contents contents;
        for (unsigned int count = random.below(6); count != 0; --count) {
            const unsigned int type = 1 + random.below(4);
            std::string data = random.bytes(type == kTypeNumber ? 4 : random.below(100));
            if (type == kTypeString || type == kTypeText) {
                data = hex(data) + (type == kTypeString ? std::string(1, '\0') : "");
            }
            const bool encrypted = type == kTypeBinary && random.once(2);
            contents.attributes.push_back({type, random.below(1u << 31), data, encrypted});
        }
        if (!random.once(3)) {
            contents.body = random.bytes(1 + random.below(3000));
            contents.encrypted = random.once(2);
        }
        ASSERT_EQ(kOk, TestStore::save("record " + std::to_string(i), contents));
        all.push_back(std::move(contents));
    }
    EXPECT_EQ("0f9ba62912b5efb7d0d28e5b5ff6000a", digest(tellFiles()));
    store.restart(kPassword);
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i], TestStore::load("record " + std::to_string(i))) << i;
    }
}

}  // namespace
