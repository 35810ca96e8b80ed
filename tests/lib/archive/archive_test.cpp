#include "lib/archive/archive.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::span<const unsigned char> bytesOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// An archive in memory.
class Made {
public:
    Made& folder(const std::string& path, unsigned int mode = 0700) {
        writer_.addFolder({true, path, mode, 0});
        return *this;
    }
    Made& file(const std::string& path, const std::string& content, unsigned int mode = 0600) {
        writer_.beginFile({false, path, mode, content.size()});
        for (std::size_t at = 0; at < content.size(); at += 7) {
            writer_.write(
                bytesOf(content).subspan(at, std::min<std::size_t>(7, content.size() - at)));
        }
        writer_.endFile();
        return *this;
    }
    std::string finish() {
        totals = writer_.finish();
        return bytes_;
    }
    ArchiveTotals totals;

private:
    std::string bytes_;
    ArchiveWriter writer_{[this](std::span<const unsigned char> piece) {
        bytes_.append(reinterpret_cast<const char*>(piece.data()), piece.size());
    }};
};

ArchiveReader::Source sourceOf(std::string_view& rest) {
    return [&rest](std::span<unsigned char> piece) {
        const std::size_t size = std::min({piece.size(), rest.size(), std::size_t{1000}});
        std::copy_n(rest.begin(), size, piece.begin());
        rest.remove_prefix(size);
        return size;
    };
}

// "0700 db", "0600 db/key.dsc content"; throws as the reader does.
std::vector<std::string> readAll(std::string_view archive, ArchiveTotals* totals = nullptr) {
    ArchiveReader reader(sourceOf(archive));
    std::vector<std::string> entries;
    while (const auto entry = reader.next()) {
        std::string said = std::to_string(entry->mode >> 6) + std::to_string(entry->mode >> 3 & 7) +
                           std::to_string(entry->mode & 7) + " " + entry->path;
        if (!entry->isFolder) {
            said += " ";
            for (auto piece = reader.read(); !piece.empty(); piece = reader.read()) {
                said.append(reinterpret_cast<const char*>(piece.data()), piece.size());
            }
        }
        entries.push_back(std::move(said));
    }
    if (totals != nullptr) {
        *totals = reader.totals();
    }
    return entries;
}

std::string failureOf(std::string_view archive) {
    try {
        (void)readAll(archive);
        return "none";
    } catch (const Failure& failure) {
        EXPECT_EQ(kMalformed, failure.status());
        return failure.what();
    }
}

std::string small() {
    return Made().folder("db", 0750).file("db/key.dsc", "text").folder("db/keys").finish();
}

const std::string kLong = "db/" + std::string(200, 'n') + ".dsc";

TEST(ArchiveTest, ReadsBackWhatWasWritten) {
    const std::string big(1'000'000, 'b');
    Made made;
    const std::string archive = made.folder("db", 0750)
                                    .file("db/a b", "", 0640)
                                    .folder("db/keys", 0700)
                                    .file("db/keys/0000002a", big)
                                    .file(kLong, "long")
                                    .file("db/z\n\\\xff", "odd")
                                    .finish();
    ArchiveTotals totals;
    EXPECT_THAT(readAll(archive, &totals),
                ElementsAre("750 db", "640 db/a b ", "700 db/keys", "600 db/keys/0000002a " + big,
                            "600 " + kLong + " long", "600 db/z\n\\\xff odd"));
    EXPECT_EQ(2u, totals.folders);
    EXPECT_EQ(4u, totals.files);
    EXPECT_EQ(1'000'007u, totals.bytes);
    EXPECT_EQ(made.totals.manifest, totals.manifest);
}

TEST(ArchiveTest, SameContentsMakeTheSameArchive) {
    EXPECT_EQ(small(), small());
}

TEST(ArchiveTest, FileThatIsNotReadIsCheckedAllTheSame) {
    std::string archive = small();
    std::string_view rest = archive;
    ArchiveReader reader(sourceOf(rest));
    while (reader.next()) {
    }
    archive[archive.find("text")] = 'T';
    rest = archive;
    ArchiveReader again(sourceOf(rest));
    EXPECT_THROW(
        {
            while (again.next()) {
            }
        },
        Failure);
}

TEST(ArchiveTest, AnyChangedByteIsRefused) {
    const std::string archive = small();
    for (std::size_t i = 0; i < archive.size(); ++i) {
        for (const int bit : {1, 0x20, 0x80}) {
            std::string changed = archive;
            changed[i] = static_cast<char>(changed[i] ^ bit);
            ASSERT_NE("none", failureOf(changed)) << i << " ^ " << bit;
        }
    }
}

TEST(ArchiveTest, CutOffAnywhereIsRefused) {
    const std::string archive = small();
    for (std::size_t size = 0; size < archive.size(); ++size) {
        ASSERT_NE("none", failureOf(std::string_view(archive).substr(0, size))) << size;
    }
}

TEST(ArchiveTest, RefusesWhatFollows) {
    EXPECT_EQ("there is data after the archive", failureOf(small() + '\0'));
    EXPECT_EQ("there is data after the archive", failureOf(small() + small()));
}

// Blocks as a hostile program would write them, with a manifest that fits as well as
// it can.
std::string hostile(const std::vector<tar::Header>& headers) {
    std::string archive;
    for (const tar::Header& header : headers) {
        for (const unsigned char byte : tar::print(header)) {
            archive += static_cast<char>(byte);
        }
        archive.append(header.size, 'x');
        archive.append(tar::paddingOf(header.size), '\0');
    }
    return archive;
}

TEST(ArchiveTest, HostileEntriesAreRefused) {
    using tar::Type;
    const tar::Header root{Type::kFolder, 0700, 0, "db"};
    const auto file = [](const char* path) { return tar::Header{Type::kFile, 0600, 3, path}; };
    const auto link = [](char type) {
        return tar::Header{static_cast<Type>(type), 0777, 0, "db/link"};
    };
    const struct {
        const char* name;
        std::vector<tar::Header> headers;
        const char* message;
    } rows[] = {
        {"parent folder", {root, file("db/../../etc/passwd")}, "does not belong"},
        {"parent folder at the end", {root, file("db/..")}, "does not belong"},
        {"this folder", {root, file("db/./key.dsc")}, "does not belong"},
        {"absolute", {root, file("/etc/passwd")}, "does not belong"},
        {"elsewhere", {root, file("other")}, "does not belong"},
        {"name that begins alike", {root, file("dbx")}, "does not belong"},
        {"empty name", {root, file("db//a")}, "does not belong"},
        {"slash at the end", {root, file("db/a/")}, "does not belong"},
        {"name too long", {root, file(("db/" + std::string(256, 'n')).c_str())}, "does not belong"},
        {"twice", {root, file("db/a"), file("db/a")}, "twice"},
        {"root twice", {root, root}, "twice"},
        {"out of order", {root, file("db/b"), file("db/a")}, "out of order"},
        {"no folder", {root, file("db/keys/a")}, "does not contain"},
        {"file as a folder", {root, file("db/a"), file("db/a/b")}, "does not contain"},
        {"folder that is over",
         {root, {Type::kFolder, 0700, 0, "db/a"}, {Type::kFolder, 0700, 0, "db/b"}, file("db/a/x")},
         "out of order"},
        {"root is a file", {file("db")}, "does not contain"},
        {"nothing before", {file("db/a")}, "does not contain"},
        {"folder with bytes", {root, {Type::kFolder, 0700, 3, "db/a"}}, "size"},
        {"symbolic link", {root, link('2')}, "not a backup"},
        {"hard link", {root, link('1')}, "not a backup"},
        {"device", {root, link('3')}, "not a backup"},
        {"FIFO", {root, link('6')}, "not a backup"},
        {"other program's long name", {root, link('L')}, "not a backup"},
        {"settings of all entries", {root, link('g')}, "not a backup"},
        {"set-user-id", {root, {Type::kFile, 04755, 0, "db/a"}}, "not a backup"},
        {"manifest first", {{Type::kFile, 0600, 3, "MANIFEST.sha256"}}, "it is empty"},
        {"manifest is a folder", {root, {Type::kFolder, 0600, 0, "MANIFEST.sha256"}}, "damaged"},
        {"manifest of another size", {root, {Type::kFile, 0600, 3, "MANIFEST.sha256"}}, "damaged"},
        {"no manifest", {root}, "truncated"},
    };
    for (const auto& row : rows) {
        EXPECT_THAT(failureOf(hostile(row.headers)), HasSubstr(row.message)) << row.name;
    }
    EXPECT_THAT(failureOf(hostile({root}) + std::string(1024, '\0')), HasSubstr("has no manifest"));
    EXPECT_THAT(failureOf("hello"), HasSubstr("truncated"));
    EXPECT_THAT(failureOf(std::string(600, 'x')), HasSubstr("not a backup"));
}

TEST(ArchiveTest, SizeThatLiesIsRefused) {
    std::string archive = small();
    const std::string honest = archive.substr(512, 512);
    for (const std::uint64_t size : {0UL, 3UL, 5UL, 1000UL, 077777777777UL}) {
        std::string lying = archive;
        std::size_t at = 512;
        for (const unsigned char byte : tar::print({tar::Type::kFile, 0600, size, "db/key.dsc"})) {
            lying[at++] = static_cast<char>(byte);
        }
        ASSERT_NE(honest, lying.substr(512, 512));
        EXPECT_NE("none", failureOf(lying)) << size;
    }
}

TEST(ArchiveTest, WriterRefusesWhatTheReaderWould) {
    EXPECT_THROW(Made().folder("elsewhere"), Failure);
    EXPECT_THROW(Made().folder("db").file("db/b", "").file("db/a", ""), Failure);
    EXPECT_THROW(Made().finish(), Failure);
    ArchiveWriter writer([](std::span<const unsigned char>) {});
    writer.addFolder({true, "db", 0700, 0});
    writer.beginFile({false, "db/a", 0600, 3});
    EXPECT_THROW(writer.write(bytesOf("four")), Failure);
    EXPECT_THROW(writer.endFile(), Failure);
}

TEST(ArchiveTest, OtherProgramsReadIt) {
    const support::TempDir folder;
    Made made;
    made.folder("db", 0750)
        .file("db/back\\slash", "1")
        .file("db/key.dsc", "text\n")
        .folder("db/keys")
        .file("db/keys/0000002a", std::string(5000, 'x'), 0640)
        .file("db/line\nfeed", "2")
        .file(kLong, "3");
    support::writeFile(folder / "backup.tar", made.finish());
    const std::string command = "cd '" + folder.path() +
                                "' && tar xpf backup.tar && sha256sum --strict --quiet "
                                "-c MANIFEST.sha256 && stat -c '%a %n' db/keys/0000002a db >out";
    ASSERT_EQ(0, std::system(command.c_str()));  // NOLINT(concurrency-mt-unsafe): one thread
    const auto tree = support::tree(folder / "db");
    EXPECT_EQ(tree.size(), 6u);
    EXPECT_EQ("text\n", tree.at("key.dsc"));
    EXPECT_EQ("2", tree.at("line\nfeed"));
    EXPECT_EQ("3", tree.at(kLong.substr(3)));
    EXPECT_EQ("640 db/keys/0000002a\n750 db\n", support::readFile(folder / "out"));
    EXPECT_THAT(support::readFile(folder / "MANIFEST.sha256"),
                testing::AllOf(testing::StartsWith("# filestore backup 1\n# folder 0750 db\n"),
                               testing::EndsWith("# end: 2 folders, 5 files\n")));
}

}  // namespace
}  // namespace fstore
