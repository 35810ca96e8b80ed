// What the index answers is what a look at all records finds, whatever was done to the folder and
// to the index itself.
#include "lib/index/record_index.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "format/record_name.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/index/index_files.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "lib/records/record_head.h"
#include "tests/support/in_child.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

namespace fs = std::filesystem;
using support::TempWorkingDir;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::UnorderedElementsAre;

constexpr std::int64_t kNow = 1'800'000'000;

// A record as a descriptor says it.
struct Said {
    Kind kind = Kind::kCertificate;
    std::string sha256 = {}, keySha256 = {};  // hexadecimal digits
    std::string subject = {}, label = {}, altName = {};
    std::int64_t ends = 0;  // 0 for none
    std::string body = {};  // the file; empty for one that is made
    bool secret = false;    // the digests are kept encrypted
    bool sealed = false;    // the body is
};

std::string textOf(const Said& said) {
    std::string text = fmt::format("00000001 00000101 {:08x}\n", static_cast<int>(said.kind));
    const char* const binary = said.secret ? "01000002" : "00000002";
    const auto add = [&text](const char* type, unsigned int id, const std::string& data) {
        if (!data.empty()) {
            text += fmt::format("{} {:08x} {}\n", type, id, data);
        }
    };
    add(binary, attr::kSha256, said.sha256);
    add(binary, attr::kKeySha256, said.keySha256);
    add("00000004", attr::kSubject, said.subject);
    add("00000004", attr::kLabel, said.label);
    add("00000004", attr::kAltName, said.altName);
    if (said.ends != 0) {
        add("00000004", attr::kNotAfter, printTime(said.ends));
    }
    add(said.sealed ? "11000003" : "10000003", 0, said.body);
    return text;
}

// Until the clock that files have their times from has gone on: who changes a folder within the
// same step of it and sets its time back is not seen by any time.
void awaitTick() {
    (void)::usleep(12'000);
}

// The ways of the store: written beside, then renamed.
void publish(const Address& address, const std::string& text) {
    const std::string path = descriptorPath(address);
    writeFile(path + ".$n$", text);
    fs::rename(path + ".$n$", path);
}

class RecordIndexTest : public testing::Test {
protected:
    RecordIndexTest() {
        for (const char* const folder :
             {"keys", "certificates", "certificates/local", "certificates-old", "settings"}) {
            fs::create_directories(folderPath(folder));
        }
    }

    IndexSetup setup(bool exclusive = true) const {
        return {[file = folder_ / "db.index"] { return file; }, exclusive, 0};
    }
    std::unique_ptr<RecordIndex> opened(bool exclusive = true) const {
        auto index = std::make_unique<RecordIndex>(setup(exclusive));
        index->offer(1);
        return index;
    }

    void put(const Address& address, Said said) {
        if (said.body.empty()) {
            said.body = uniqueName(++bodies_);
            writeFile(joined(folderPath(address.folder), said.body), "body");
        }
        publish(address, textOf(said));
    }

    // In the index, as another program.
    static void run(const char* statements) {
        sqlite3* file = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open("db.index", &file));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(file, statements, nullptr, nullptr, nullptr));
        sqlite3_close(file);
    }

    IndexDoubt doubt() const {
        support::RecordingObserver observer;
        return RecordIndex(setup(/*exclusive=*/false)).compareAll(observer).value();
    }

    TempWorkingDir folder_;
    unsigned int bodies_ = 0;
};

// What a look at all records finds.

using Addresses = std::vector<Address>;

std::optional<Addresses> listed(const std::optional<AddressList>& list) {
    if (!list) {
        return std::nullopt;
    }
    Addresses found;
    list->visit([&](const Address& address) { found.push_back(address); });
    return found;
}

template <class Wanted>
Addresses scan(Wanted isWanted) {
    Addresses found;
    for (const Address& address : allRecords()) {
        try {
            const RecordHead head = RecordHead::read(address);
            if (isWanted(head, infoOf(head))) {
                found.push_back(address);
            }
        } catch (const Failure&) {
            continue;
        }
    }
    return found;
}

Addresses damaged() {
    Addresses found = allRecords();
    const Addresses whole = scan([](const auto&, const auto&) { return true; });
    std::erase_if(
        found, [&](const Address& each) { return std::ranges::find(whole, each) != whole.end(); });
    return found;
}

// Those of the candidates that the filter takes, and those that are damaged: what findRecords()
// makes of them.
std::pair<Addresses, Addresses> sift(const Addresses& candidates, const Filter& filter) {
    std::pair<Addresses, Addresses> found;
    for (const Address& address : candidates) {
        try {
            const RecordHead head = RecordHead::read(address);
            const RecordInfo info = infoOf(head);
            if (filter.matches(head, info) || filter.mayMatch(head, info)) {
                found.first.push_back(address);
            }
        } catch (const Failure&) {
            found.second.push_back(address);
        }
    }
    return found;
}

BodyNames::Answer namesByReading(const std::string& folder, const std::string& body) {
    BodyNames::Answer names;
    for (const FolderEntry& entry : listFolder(folderPath(folder))) {
        if (entry.type != FolderEntry::Type::kFile ||
            !isOfARecord(stateBeside(entry.name).value_or(entry.name))) {
            continue;
        }
        const auto lines = readDescriptor(joined(folderPath(folder), entry.name));
        if (const auto named = bodyNameOf(lines)) {
            if (*named == body) {
                names.namedBy.push_back(entry.name);
            }
        } else if (lines.empty() || !isSound(lines)) {
            names.unreadable.push_back(entry.name);
        }
    }
    return names;
}

Filters bySubject(const std::string& pattern) {
    Filters filters;
    filters.subject = pattern;
    return filters;
}

std::vector<Filters> allFilters() {
    std::vector<Filters> all(8);
    all[0].subject = "*a*";
    all[1].expired = true;
    all[2].expiresWithin = "30d";
    all[3].sha256 = "a";
    all[4].altName = "*1*";
    all[5].attributes = {"label=one"};
    all[6].sha256 = "0";
    all[6].expired = true;
    return all;
}

// Every question, of an index that was just opened, has the answer of a scan; of one that is not
// to be had, as `mayRefuse` says, none.
void expectScan(RecordIndex& index, bool mayRefuse = false) {
    const auto expectSame = [&](const Addresses& wanted, const std::optional<Addresses>& found) {
        if (found || !mayRefuse) {
            ASSERT_TRUE(found);
            EXPECT_EQ(wanted, *found);
        }
    };
    for (const char* const digits : {"a", "0", "f", "ff", "0a", "a0b", "7"}) {
        SCOPED_TRACE(digits);
        expectSame(scan([&](const auto&, const RecordInfo& info) {
                       return info.sha256.starts_with(digits);
                   }),
                   index.withDigest(digits));
    }
    const std::string one = std::string("a0") + std::string(62, '1');
    expectSame(scan([&](const auto&, const RecordInfo& info) {
                   return info.sha256 == one && info.kind == Kind::kKey;
               }),
               index.withObject(Kind::kKey, one));
    expectSame(scan([&](const auto&, const RecordInfo& info) {
                   return info.keySha256 == one && info.kind == Kind::kKey;
               }),
               index.keysWith(one));
    for (const Filters& filters : allFilters()) {
        for (const char* const folder : {"", "certificates", "keys"}) {
            const Filter filter(filters, kNow);
            Addresses all = allRecords();
            std::erase_if(all, [&](const Address& each) {
                return *folder != '\0' && each.folder != folder &&
                       !each.folder.starts_with(std::string(folder) + "/");
            });
            const auto found = listed(index.matching(filter, folder, /*unlocked=*/false));
            if (found || !mayRefuse) {
                ASSERT_TRUE(found);
                EXPECT_EQ(sift(all, filter), sift(*found, filter));
            }
        }
    }
    expectSame(damaged(), index.unsure(/*unlocked=*/false));
    const auto folders = index.folders();
    if (folders || !mayRefuse) {
        ASSERT_TRUE(folders);
        EXPECT_EQ(allFolders(), *folders);
    }
    for (const std::string& folder : allFolders()) {
        for (const char* const body : {"00000001", "00000002", "0000000a"}) {
            const BodyNames::Answer wanted = namesByReading(folder, body);
            if (const auto names = index.ask(folder, body); names || !mayRefuse) {
                ASSERT_TRUE(names);
                EXPECT_THAT(names->namedBy, testing::UnorderedElementsAreArray(wanted.namedBy));
                EXPECT_THAT(names->unreadable,
                            testing::UnorderedElementsAreArray(wanted.unreadable));
            }
        }
    }
}

TEST_F(RecordIndexTest, IsMadeOnlyForManyRecords) {
    put({"keys", "a"}, {.sha256 = "aa"});
    RecordIndex index({[this] { return folder_ / "db.index"; }, true, 10});
    index.offer(10);
    EXPECT_FALSE(index.withDigest("a"));
    EXPECT_FALSE(fs::exists("db.index"));
    index.offer(11);
    EXPECT_TRUE(index.withDigest("a"));
    struct stat status {};
    ASSERT_EQ(0, ::stat("db.index", &status));
    EXPECT_EQ(0600u, status.st_mode & 07777u);
}

TEST_F(RecordIndexTest, WithoutAFileNameThereIsNone) {
    RecordIndex index({});
    index.offer(1'000'000);
    EXPECT_FALSE(index.withDigest("a"));
    index.willChange({"keys", "a"});
    EXPECT_THAT(support::tree("."), testing::Not(testing::Contains(testing::Key("db.index"))));
}

TEST_F(RecordIndexTest, FindsByDigestKeySubjectAndTime) {
    const std::string digest = "a0" + std::string(62, '1'), other = "0b" + std::string(62, '2');
    put({"keys", "key"}, {.kind = Kind::kKey, .sha256 = digest, .keySha256 = other});
    put({"certificates/local", "leaf"},
        {.sha256 = other, .keySha256 = other, .subject = "CN=alice", .ends = kNow + 1000});
    put({"certificates", "old"}, {.sha256 = digest, .subject = "CN=bob", .ends = kNow - 1000});
    const auto index = opened();
    EXPECT_THAT(*index->withDigest("a0"),
                ElementsAre(Address{"certificates", "old"}, Address{"keys", "key"}));
    EXPECT_THAT(*index->withDigest("0b2"), ElementsAre(Address{"certificates/local", "leaf"}));
    EXPECT_THAT(*index->withObject(Kind::kKey, digest), ElementsAre(Address{"keys", "key"}));
    EXPECT_THAT(*index->keysWith(other), ElementsAre(Address{"keys", "key"}));
    EXPECT_THAT(*index->keys(), ElementsAre(other));
    const auto matching = [&](const Filters& filters) {
        return *listed(index->matching(Filter(filters, kNow), "", false));
    };
    EXPECT_THAT(matching(bySubject("*alice")), ElementsAre(Address{"certificates/local", "leaf"}));
    Filters filters;
    filters.expired = true;
    EXPECT_THAT(matching(filters), ElementsAre(Address{"certificates", "old"}));
    filters.expired = false;
    filters.expiresWithin = "1d";
    EXPECT_THAT(matching(filters),
                ElementsAre(Address{"certificates", "old"}, Address{"certificates/local", "leaf"}));
    expectScan(*index);
}

TEST_F(RecordIndexTest, WhatHasEncryptedPartsIsLookedAtWhenUnlocked) {
    const std::string digest = std::string(64, 'c');
    put({"keys", "hidden"},
        {.kind = Kind::kKey, .sha256 = digest, .keySha256 = digest, .secret = true});
    const auto index = opened();
    EXPECT_THAT(*index->withDigest("c"), IsEmpty());
    EXPECT_THAT(*listed(index->matching(Filter(bySubject("x"), kNow), "", false)), IsEmpty());
    EXPECT_THAT(*listed(index->matching(Filter(bySubject("x"), kNow), "", true)),
                ElementsAre(Address{"keys", "hidden"}));
    EXPECT_THAT(*index->unsure(true), ElementsAre(Address{"keys", "hidden"}));
    EXPECT_THAT(*index->unsure(false), IsEmpty());
}

TEST_F(RecordIndexTest, AnEncryptedBodyDoesNotHideWhatItIs) {
    const std::string digest = std::string(64, 'c');
    put({"keys", "sealed"},
        {.kind = Kind::kKey, .sha256 = digest, .keySha256 = digest, .sealed = true});
    publish({"keys", "kind"}, "01000001 00000101 00000000\n");
    const auto index = opened();
    EXPECT_THAT(*index->unsure(true), ElementsAre(Address{"keys", "kind"}));
    EXPECT_THAT(*index->keysWith(digest), ElementsAre(Address{"keys", "sealed"}));
    EXPECT_THAT(*listed(index->matching(Filter(bySubject("x"), kNow), "", true)),
                ElementsAre(Address{"keys", "kind"}, Address{"keys", "sealed"}));
}

// Neither what is encrypted nor the bytes of a body.
TEST_F(RecordIndexTest, HasNoSecretInIt) {
    const std::string cipher = "5ec2e7" + std::string(58, '9');
    writeFile("db/keys/00000001", "the-body-of-it");
    put({"keys", "hidden"}, {.kind = Kind::kKey,
                             .sha256 = cipher,
                             .keySha256 = cipher,
                             .label = "a label",
                             .body = "00000001",
                             .secret = true});
    { EXPECT_THAT(*opened()->unsure(true), ElementsAre(Address{"keys", "hidden"})); }
    std::string all;
    for (const char* const name : {"db.index", "db.index-wal"}) {
        all += support::readFile(name);
    }
    EXPECT_NE(std::string::npos, all.find("a label"));
    const auto bytes = fromHex(cipher);
    EXPECT_EQ(std::string::npos, all.find(cipher));
    EXPECT_EQ(std::string::npos, all.find(std::string(bytes->begin(), bytes->end())));
    EXPECT_EQ(std::string::npos, all.find("the-body-of-it"));
}

// The time of the folder is what holds it together: after its own change a writer leaves it known.
TEST_F(RecordIndexTest, AWriterLeavesTheFolderKnownAndOthersDoNot) {
    put({"keys", "a"}, {.sha256 = "aa"});
    { ASSERT_TRUE(opened()->withDigest("a")); }
    const auto isFresh = [&] { return opened(false)->folders().has_value(); };
    EXPECT_TRUE(isFresh());
    {
        const auto index = opened();
        index->willChange({"keys", "b"});
        put({"keys", "b"}, {.sha256 = "ab"});
        index->changed({"keys", "b"});
        EXPECT_THAT(*index->withDigest("a"),
                    ElementsAre(Address{"keys", "a"}, Address{"keys", "b"}));
        index->willChange({"keys", "a"});
        fs::remove("db/keys/a.dsc");
        index->changed({"keys", "a"});
    }
    EXPECT_TRUE(isFresh());
    EXPECT_THAT(*opened(false)->withDigest("a"), ElementsAre(Address{"keys", "b"}));
    put({"keys", "c"}, {.sha256 = "ac"});
    EXPECT_FALSE(isFresh());
    EXPECT_THAT(*opened(false)->withDigest("a"),
                ElementsAre(Address{"keys", "b"}, Address{"keys", "c"}));
    EXPECT_FALSE(isFresh()) << "what a reader saw within the step of a clock does not count";
    EXPECT_TRUE(opened()->withDigest("a"));
    EXPECT_TRUE(isFresh());
}

// What a crash has left is known as long as nothing has changed since.
TEST_F(RecordIndexTest, WhatStandsAsideIsKnownWhileNothingHasChanged) {
    put({"keys", "a"}, {.sha256 = "aa"});
    put({"certificates/local", "b"}, {.sha256 = "bb"});
    fs::rename("db/certificates/local/b.dsc", "db/certificates/local/b.dsc.$o$");
    fs::copy("db/keys/a.dsc", "db/keys/a.dsc.$o$");
    EXPECT_FALSE(opened()->saved()) << "one that was only begun";
    { ASSERT_TRUE(opened()->keys()); }
    EXPECT_THAT(
        opened(false)->saved(),
        Optional(UnorderedElementsAre("./db/certificates/local/b.dsc.$o$", "./db/keys/a.dsc.$o$")));
    awaitTick();
    fs::rename("db/certificates/local/b.dsc.$o$", "db/certificates/local/b.dsc");
    EXPECT_FALSE(opened()->saved());
    { ASSERT_TRUE(opened()->keys()); }
    EXPECT_THAT(opened(false)->saved(), Optional(ElementsAre("./db/keys/a.dsc.$o$")));
    fs::create_directory("db/settings/new");
    EXPECT_FALSE(opened()->saved());
}

// Whoever takes a folder for known knows those in it: the file has them first.
TEST_F(RecordIndexTest, AFolderIsNotKnownBeforeThoseInIt) {
    { ASSERT_TRUE(opened()->keys()); }
    fs::create_directory("db/settings/new");
    writeFile("db/settings/new/aside.dsc.$o$", textOf({}));
    (void)::usleep(2'100'000);                                   // a reader believes times then
    run("CREATE UNIQUE INDEX stop ON folder(path IS NOT NULL) "  // so the new one is refused
        "WHERE path = CAST('settings' AS BLOB) OR path = CAST('settings/new' AS BLOB)");
    EXPECT_FALSE(opened(false)->keys());
    run("DROP INDEX stop");
    EXPECT_FALSE(opened(false)->saved());
    { ASSERT_TRUE(opened()->keys()); }
    EXPECT_THAT(opened(false)->saved(), Optional(ElementsAre("./db/settings/new/aside.dsc.$o$")));
}

// A writer that dies at any point of its work leaves a folder that is read again.
TEST_F(RecordIndexTest, AWriterThatDiedLeavesNoWrongAnswer) {
    put({"keys", "a"}, {.sha256 = "aa"});
    { ASSERT_TRUE(opened()->withDigest("a")); }
    const std::function<void(RecordIndex&)> deaths[] = {
        [](RecordIndex& index) {
            index.willChange({"keys", "b"});
        },
        [this](RecordIndex& index) {
            index.willChange({"keys", "b"});
            put({"keys", "b"}, {.sha256 = "ab"});
        },
        [](RecordIndex&) { fs::remove("db/keys/b.dsc"); },
        [](RecordIndex& index) {
            index.willChange({"keys", "a"});
            fs::remove("db/keys/a.dsc");
        },
    };
    for (const auto& death : deaths) {
        EXPECT_EQ(0, support::inChild([&] {
                      RecordIndex index(setup());
                      death(index);
                      return 0;  // no destructor runs
                  }));
        expectScan(*opened(false));
        expectScan(*opened());
    }
}

struct Contradiction {
    const char* name;
    const char* statements;
    std::vector<const char*> first;  // one of these
};

class ContradictionTest : public RecordIndexTest,
                          public testing::WithParamInterface<Contradiction> {};

TEST_P(ContradictionTest, IsSeen) {
    put({"keys", "a"}, {.sha256 = "aa", .subject = "CN=a", .ends = kNow});
    put({"certificates/local", "b"}, {.sha256 = "bb", .subject = "CN=b"});
    ASSERT_TRUE(opened()->withDigest("a"));
    EXPECT_EQ(0u, doubt().count);
    run(GetParam().statements);
    const IndexDoubt found = doubt();
    EXPECT_EQ(1u, found.count);
    EXPECT_THAT(GetParam().first, testing::Contains(found.first));
    EXPECT_EQ(std::string(folder_ / "db.index"), found.file);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ContradictionTest,
    testing::Values(
        Contradiction{"Digest",
                      "UPDATE file SET sha256 = x'bb' WHERE file = CAST('a.dsc' AS BLOB)",
                      {"./db/keys/a.dsc"}},
        Contradiction{"NoDigest",
                      "UPDATE file SET sha256 = NULL WHERE sha256 = x'bb'",
                      {"./db/certificates/local/b.dsc"}},
        Contradiction{
            "End", "UPDATE file SET ends = ends + 1 WHERE ends IS NOT NULL", {"./db/keys/a.dsc"}},
        Contradiction{"Body",
                      "UPDATE file SET body = x'78' WHERE file = CAST('a.dsc' AS BLOB)",
                      {"./db/keys/a.dsc"}},
        Contradiction{"Look",
                      "UPDATE file SET look = 1 WHERE file = CAST('a.dsc' AS BLOB)",
                      {"./db/keys/a.dsc"}},
        Contradiction{"NoRecord",
                      "UPDATE file SET record = 0 WHERE file = CAST('a.dsc' AS BLOB)",
                      {"./db/keys/a.dsc"}},
        Contradiction{"NoRow",
                      "DELETE FROM file WHERE file = CAST('b.dsc' AS BLOB)",
                      {"./db/certificates/local/b.dsc"}},
        Contradiction{"NoDescriptor",
                      "INSERT INTO file(folder, file, record, look) SELECT id, "
                      "CAST('ghost.dsc' AS BLOB), 1, 0 FROM folder WHERE path = "
                      "CAST('keys' AS BLOB)",
                      {"./db/keys/ghost.dsc"}},
        Contradiction{"NoFolder",
                      "DELETE FROM folder WHERE path = CAST('settings' AS BLOB)",
                      {"./db/settings"}}),
    [](const auto& row) { return row.param.name; });

TEST_F(RecordIndexTest, ADescriptorThatWasOverwrittenInItsPlaceContradictsIt) {
    put({"keys", "a"}, {.sha256 = "aa"});
    put({"keys", "b"}, {.sha256 = "bb"});
    ASSERT_TRUE(opened()->withDigest("a"));
    writeFile("db/keys/a.dsc", textOf({.sha256 = "cc"}));
    const IndexDoubt found = doubt();
    EXPECT_EQ(1u, found.count);
    EXPECT_EQ("./db/keys/a.dsc", found.first);
}

TEST_F(RecordIndexTest, WhatItWouldFindOutItselfDoesNotContradictIt) {
    put({"keys", "a"}, {.sha256 = "aa"});
    put({"keys", "b"}, {.sha256 = "bb"});
    ASSERT_TRUE(opened()->withDigest("a"));
    put({"keys", "a"}, {.sha256 = "cc"});
    fs::rename("db/keys/b.dsc", "db/settings/b.dsc");
    fs::create_directory("db/keys/new");
    EXPECT_EQ(0u, doubt().count);
}

TEST_F(RecordIndexTest, AComparisonCanBeCancelled) {
    put({"keys", "a"}, {.sha256 = "aa"});
    ASSERT_TRUE(opened()->withDigest("a"));
    support::RecordingObserver observer;
    observer.cancelAfter = 0;
    EXPECT_THROW((void)RecordIndex(setup()).compareAll(observer), Failure);
    fs::remove("db.index");
    EXPECT_FALSE(RecordIndex(setup()).compareAll(observer));
}

TEST_F(RecordIndexTest, AFolderThatWasRestoredWithItsTimesIsReadAgain) {
    put({"keys", "a"}, {.sha256 = "aa"});
    { ASSERT_TRUE(opened()->withDigest("a")); }
    struct stat before {};
    ASSERT_EQ(0, ::stat("db/keys", &before));
    awaitTick();
    fs::remove("db/keys/a.dsc");
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, "db/keys", times, 0));
    EXPECT_THAT(*opened(false)->withDigest("a"), IsEmpty());
}

TEST_F(RecordIndexTest, ABodyThatVanishesOrComesBackIsNoticed) {
    put({"keys", "a"}, {.sha256 = "aa"});
    { EXPECT_THAT(*opened()->unsure(false), IsEmpty()); }
    fs::rename("db/keys/00000001", "db/keys/kept");
    { EXPECT_THAT(*opened()->unsure(false), ElementsAre(Address{"keys", "a"})); }
    fs::rename("db/keys/kept", "db/keys/00000001");
    { EXPECT_THAT(*opened()->unsure(false), IsEmpty()); }
}

// A thousand changes, by those who tell the index and those who do not.
class RandomChanges {
public:
    RandomChanges(unsigned int seed, const std::function<void(const Address&, Said)>& put)
        : random_(seed), put_(put) {}

    void change(RecordIndex& index) {
        index_ = number(2) == 0 ? &index : nullptr;
        switch (number(12)) {
            case 0:
            case 1:
            case 2:
            case 3:
                return write(anyAddress());
            case 4:
            case 5:
                return remove(anyAddress());
            case 6:
                return move();
            case 7:
                return withTimesSetBack();
            case 8:
                return restoreFolder();
            case 9:
                return folders();
            case 10:
                return damage();
            default:
                return future();
        }
    }

private:
    unsigned int number(unsigned int below) {
        return std::uniform_int_distribution<unsigned int>(0, below - 1)(random_);
    }
    std::string anyFolder() {
        const std::vector<std::string> all = allFolders();
        return all[number(static_cast<unsigned int>(all.size()))];
    }
    Address anyAddress() { return {anyFolder(), fmt::format("r{}", number(6))}; }

    // Around a change: where nobody calls done(), it failed.
    void tell(const Address& address) {
        if (index_ != nullptr) {
            index_->willChange(address);
        }
    }
    void done(const Address& address) {
        if (index_ != nullptr && number(8) != 0) {
            index_->changed(address);
        }
    }
    void write(const Address& address) {
        static constexpr const char* kDigests[] = {"a0", "0a", "ff", "7b", "a0b"};
        Said said;
        said.kind = static_cast<Kind>(number(6));
        said.sha256 = std::string(kDigests[number(5)]).substr(0, 2) +
                      std::string(62, number(2) == 0 ? '1' : 'f');
        said.keySha256 = number(2) == 0 ? said.sha256 : "";
        said.subject = fmt::format("CN={}", number(2) == 0 ? "alice" : "bob");
        said.label = number(2) == 0 ? "one" : "";
        said.altName = number(3) == 0 ? "DNS:h1" : "";
        said.ends = number(2) == 0 ? 0 : kNow + std::int64_t{number(5'000'000)} - 2'500'000;
        said.secret = number(5) == 0;
        tell(address);
        put_(address, said);
        done(address);
    }
    void remove(const Address& address) {
        tell(address);
        fs::remove(descriptorPath(address));
        done(address);
    }
    void move() {
        const Address from = anyAddress(), to = anyAddress();
        if (fs::exists(descriptorPath(from))) {
            tell(from);
            tell(to);
            fs::rename(descriptorPath(from), descriptorPath(to));
            done(from);
            done(to);
        }
    }
    void withTimesSetBack() {
        const Address address = anyAddress();
        const std::string folder = folderPath(address.folder);
        index_ = nullptr;
        awaitTick();
        struct stat before {};
        ASSERT_EQ(0, ::stat(folder.c_str(), &before));
        number(2) == 0 ? remove(address) : write(address);
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, folder.c_str(), times, 0));
    }
    // As `cp -a`, changes in between, and back.
    void restoreFolder() {
        const std::string folder = folderPath("certificates");
        if (!fs::exists("kept")) {
            fs::copy(folder, "kept", fs::copy_options::recursive);
            return;
        }
        fs::remove_all(folder);
        fs::rename("kept", folder);
    }
    void folders() {
        const std::string path = folderPath(anyFolder()) + fmt::format("/f{}", number(3));
        if (fs::exists(path)) {
            fs::remove_all(path + "x");
            number(2) == 0 ? (void)fs::remove_all(path) : fs::rename(path, path + "x");
        } else if (path.size() < 60) {
            fs::create_directory(path);
        }
    }
    void damage() {
        const Address address = anyAddress();
        publish(address, number(2) == 0 ? "" : "not a line\n");
        if (number(2) == 0) {
            fs::rename(descriptorPath(address), descriptorPath(address) + ".$o$");
        }
    }
    // As by a clock that went wrong.
    void future() {
        const Address address = anyAddress();
        write(address);
        const timespec times[2] = {{0, UTIME_OMIT}, {kNow * 2, 0}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, folderPath(address.folder).c_str(), times, 0));
    }

    std::mt19937 random_;
    const std::function<void(const Address&, Said)> put_;
    RecordIndex* index_ = nullptr;
};

class RandomIndexTest : public RecordIndexTest, public testing::WithParamInterface<unsigned int> {};

TEST_P(RandomIndexTest, EveryAnswerIsThatOfAScan) {
    RandomChanges changes(
        GetParam(), [this](const Address& address, Said said) { put(address, std::move(said)); });
    for (int i = 0; i < 130 && !HasFatalFailure() && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        {
            const auto index = opened();
            for (int each = 0; each <= i % 3; ++each) {
                changes.change(*index);
            }
            if (i % 5 == 0) {
                expectScan(*index);
            }
        }
        EXPECT_EQ("", doubt().first);
        expectScan(*opened(i % 2 == 0));
        EXPECT_EQ("", doubt().first);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomIndexTest, testing::Values(1, 2, 3, 4));

// An index that is no good is as none: nothing fails, and nothing is wrong.
class BadIndexTest : public RecordIndexTest {
protected:
    BadIndexTest() {
        for (int i = 0; i < 400; ++i) {
            put({"keys", fmt::format("r{}", i)},
                {.sha256 = fmt::format("{:02x}{}", i % 256, std::string(62, '1')),
                 .subject = std::string(100, 'x')});
        }
        { EXPECT_TRUE(opened()->withDigest("a")); }
        sqlite3* file = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_open("db.index", &file));
        EXPECT_EQ(SQLITE_OK,
                  sqlite3_exec(file, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr));
        sqlite3_close(file);
    }

    // A reader and a writer meet it; then it is there again, and good.
    void expectRecovery() {
        expectScan(*opened(false), /*mayRefuse=*/true);
        expectScan(*opened(), /*mayRefuse=*/true);
        expectScan(*opened());
    }
};

TEST_F(BadIndexTest, Truncated) {
    for (const std::uintmax_t size : {100u, 4096u, 20'000u}) {
        SCOPED_TRACE(size);
        fs::resize_file("db.index", size);
        expectRecovery();
        run("PRAGMA wal_checkpoint(TRUNCATE)");
    }
}

TEST_F(BadIndexTest, Empty) {
    fs::resize_file("db.index", 0);
    expectRecovery();
}

// What a death leaves between the first page and the log.
TEST_F(BadIndexTest, Begun) {
    fs::remove("db.index");
    fs::remove("db.index-wal");
    fs::remove("db.index-shm");
    writeFile("db.index", "");
    ::chmod("db.index", 0600);
    run("PRAGMA application_id = 0x46534958");
    EXPECT_EQ(IndexOwner::kOurs, ownerOfIndex("db.index"));
    expectRecovery();
}

// The file itself says whose it is as soon as it has a page, whatever is still in the log.
TEST_F(BadIndexTest, IsKnownWithoutItsLog) {
    removeIndexAt("db.index");
    {
        const auto index = opened();
        ASSERT_TRUE(index->withDigest("a"));
        fs::copy_file("db.index", "copy");
        ::chmod("copy", 0600);
        EXPECT_EQ(IndexOwner::kOurs, ownerOfIndex("copy"));
    }
}

TEST_F(BadIndexTest, GarbagePages) {
    std::string bytes = support::readFile("db.index");
    std::fill(bytes.begin() + 4096, bytes.end(), 'g');
    writeFile("db.index", bytes);
    ::chmod("db.index", 0600);
    expectRecovery();
}

TEST_F(BadIndexTest, OfANewerVersion) {
    run("PRAGMA user_version = 2");
    expectRecovery();
}

TEST_F(BadIndexTest, WithoutItsTables) {
    run("DROP TABLE file");
    expectRecovery();
}

TEST_F(BadIndexTest, OfAnotherDatabase) {
    fs::create_directory("other");
    {
        const support::WorkingDir other("other");
        fs::create_directories("db/keys");
        fs::copy_file("../db.index", "db.index");
        RecordIndex index({[this] { return folder_ / "other/db.index"; }, true, 0});
        index.offer(1);
        expectScan(index, true);
        RecordIndex again({[this] { return folder_ / "other/db.index"; }, true, 0});
        again.offer(1);
        EXPECT_THAT(*again.withDigest("a"), IsEmpty());
    }
}

TEST_F(BadIndexTest, ThatOthersMayWrite) {
    const auto mode = [] {
        struct stat status {};
        return ::stat("db.index", &status) == 0 ? status.st_mode & 0777 : 0;
    };
    ASSERT_EQ(0, ::chmod("db.index", 0666));
    EXPECT_FALSE(opened(false)->withDigest("a"));
    EXPECT_EQ(0666U, mode());
    expectRecovery();
    EXPECT_EQ(0600U, mode());
}

// What is somebody's has this name or one beside it.
class SomebodysTest : public BadIndexTest {
protected:
    // Asks and removes as everybody does. All is as it was, and who looks at many records is told.
    void expectLeft(const std::string& path) {
        const auto before = support::tree(".");
        for (const bool exclusive : {false, true}) {
            std::vector<std::string> told;
            IndexSetup asked = setup(exclusive);
            asked.inTheWay = [&](const std::string& file) { told.push_back(file); };
            RecordIndex index(std::move(asked));
            EXPECT_FALSE(index.withDigest("a"));
            EXPECT_FALSE(index.offer(1));
            EXPECT_FALSE(index.withDigest("a"));
            EXPECT_THAT(told, ElementsAre(std::string(folder_ / path)));
        }
        EXPECT_THAT(othersInPlaceOfIndex(""), testing::Contains("./" + path));
        EXPECT_EQ(before, support::tree("."));
    }

    void expectNeverRemoved(const std::string& path) {
        expectLeft(path);
        removeIndex("");
        EXPECT_NE(fs::file_type::not_found, fs::symlink_status(path).type());
    }

    void noIndex() { ASSERT_TRUE(removeIndexAt(folder_ / "db.index")); }
};

TEST_F(SomebodysTest, ADatabaseOfAnotherProgram) {
    run("PRAGMA application_id = 7; PRAGMA wal_checkpoint(TRUNCATE)");
    expectNeverRemoved("db.index");
    removeIndex("");
    EXPECT_FALSE(othersAt("db.index").empty());
}

TEST_F(SomebodysTest, Text) {
    for (const std::string& text :
         {std::string("g"), std::string(100'000, 'g'), std::string(100'000, '\0')}) {
        SCOPED_TRACE(text.size());
        writeFile("db.index", text);
        expectNeverRemoved("db.index");
        EXPECT_EQ(text, support::readFile("db.index"));
    }
}

TEST_F(SomebodysTest, AnEmptyFileThatOthersMayRead) {
    fs::resize_file("db.index", 0);
    ASSERT_EQ(0, ::chmod("db.index", 0644));
    expectNeverRemoved("db.index");
}

TEST_F(SomebodysTest, AFolder) {
    noIndex();
    fs::create_directory("db.index");
    expectNeverRemoved("db.index");
}

TEST_F(SomebodysTest, AFifo) {
    noIndex();
    ASSERT_EQ(0, ::mkfifo("db.index", 0600));
    expectNeverRemoved("db.index");
}

TEST_F(SomebodysTest, ALink) {
    fs::rename("db.index", "elsewhere");
    fs::create_symlink("elsewhere", "db.index");
    expectNeverRemoved("db.index");
    fs::remove("elsewhere");
    expectNeverRemoved("db.index");
}

TEST_F(SomebodysTest, WhatIsBesideAFileOfTheirs) {
    writeFile("db.index", "text");
    writeFile("db.index-wal", "\x37\x7F\x06\x82");
    expectNeverRemoved("db.index");
    removeIndex("");
    EXPECT_TRUE(fs::exists("db.index-wal"));
    EXPECT_THAT(othersAt("db.index"), testing::Contains("db.index-wal"));
}

TEST_F(SomebodysTest, WhatIsBesideAnIndex) {
    for (const std::string path :
         {"db.index-wal", "db.index-shm", "db.index-journal", "db.index-new"}) {
        for (const bool isThere : {true, false}) {
            SCOPED_TRACE(path + (isThere ? "" : " alone"));
            noIndex();
            if (isThere) {
                EXPECT_TRUE(opened()->withDigest("a"));
            }
            fs::remove(path);
            writeFile(path, "somebody's text");
            expectNeverRemoved(path);
            EXPECT_EQ("somebody's text", support::readFile(path));
            fs::remove(path);
            ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
            expectNeverRemoved(path);
            fs::remove(path);
        }
    }
}

TEST_F(BadIndexTest, DeletedWhileOpen) {
    const auto index = opened();
    ASSERT_TRUE(index->withDigest("a"));
    ASSERT_TRUE(removeIndexAt(folder_ / "db.index"));
    index->willChange({"keys", "new"});
    put({"keys", "new"}, {.sha256 = "aa"});
    expectScan(*index, true);
    expectScan(*opened());
}

TEST_F(BadIndexTest, Locked) {
    sqlite3* file = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open("db.index", &file));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(file, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
    put({"keys", "new"}, {.sha256 = "aa"});
    EXPECT_FALSE(opened(false)->withDigest("a"));
    EXPECT_FALSE(opened()->withDigest("a"));
    sqlite3_close(file);
    expectScan(*opened());
}

TEST_F(BadIndexTest, ReadOnly) {
    if (::geteuid() == 0) {
        // For root, rights are none: the files are good, and that is seen below.
        ASSERT_EQ(0, ::chmod("db.index", 0400));
        expectScan(*opened(), true);
        return;
    }
    ASSERT_EQ(0, ::chmod("db.index", 0400));
    put({"keys", "new"}, {.sha256 = "aa"});
    expectScan(*opened(), true);
    ASSERT_EQ(0, ::chmod(".", 0500));
    expectScan(*opened(), true);
    ASSERT_EQ(0, ::chmod(".", 0700));
}

// The limit is as a disk that is full; and no signal ends the program.
TEST_F(BadIndexTest, FullDisk) {
    for (const rlim_t size : {0u, 512u, 5000u, 40'000u, 100'000u}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(0, support::inChild([&] {
                      const rlimit limit{size, size};
                      ::setrlimit(RLIMIT_FSIZE, &limit);
                      removeIndexAt(folder_ / "db.index");
                      expectScan(*opened(), true);
                      return testing::Test::HasFailure() ? 1 : 0;
                  }));
        expectScan(*opened());
        removeIndexAt(folder_ / "db.index");
    }
}

// What a fork finds open belongs to its parent.
TEST_F(BadIndexTest, AChildOpensItsOwn) {
    { ASSERT_TRUE(opened()->withDigest("a")); }
    EXPECT_EQ(0, support::inChild([&] {
                  expectScan(*opened(false));
                  return testing::Test::HasFailure() ? 1 : 0;
              }));
    expectScan(*opened(false));
}

}  // namespace
}  // namespace fstore
