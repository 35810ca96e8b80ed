// Every file of a database, with any bit of it flipped and cut anywhere: what can be told is found,
// no repair takes the only copy of anything, and what a repair moved comes back byte by byte.
//
// A share of the damage every day; all of it with FSTORE_LONG.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "format/body_reference.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/database/check.h"
#include "lib/database/database.h"
#include "lib/records/descriptor.h"
#include "lib/records/record.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::RecordingObserver;

std::span<const unsigned char> bytesOf(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// A record as the tool writes one.
void put(const Address& address, const std::string& body, bool encrypted) {
    Record record(address);
    record.setNumber(attr::kSchema, 1);
    record.setText(attr::kLabel, "label of " + address.name);
    record.addText(0x8000, "of the user's own");
    record.setBinary(0x8001, bytesOf("secret attribute"), /*encrypted=*/true);
    if (!body.empty()) {
        record.setBinary(attr::kSha256, sha256(bytesOf(body)), encrypted);
        record.setBody(bytesOf(body), encrypted);
    }
    record.write();
}

void makeDatabase(Database& database) {
    const Hold hold = database.enter(Access::kChange, Need::kDatabase);
    database.changePassword(makeKey(SecretText("one"), UnlockSlot::kLeastLn, database.idForSlots()),
                            /*keepOld=*/false);
    put({"keys", "first"}, "the first key", /*encrypted=*/true);
    put({"keys", "second"}, "the second key", /*encrypted=*/true);
    put({"keys", "plain"}, "what everybody may know", /*encrypted=*/false);
    put({"keys", "no body"}, "", /*encrypted=*/false);
    put({"settings", "alone"}, "alone in its folder", /*encrypted=*/true);
}

struct Damage {
    std::string what;
    std::string bytes;
};

std::vector<Damage> damagesOf(const std::string& bytes) {
    std::vector<Damage> all;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        all.push_back({"cut to " + std::to_string(size) + " bytes", bytes.substr(0, size)});
    }
    for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
        std::string flipped = bytes;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
        all.push_back({"bit " + std::to_string(bit) + " flipped", flipped});
    }
    all.push_back({"zeros", std::string(bytes.size(), '\0')});
    return all;
}

// Which lines of a descriptor mean what the store's readers go by: the reference to the body.
std::string referenceOf(const std::string& text) {
    for (const DescriptorLine& line : parseDescriptor(text)) {
        if (isBodyReference(line.type, line.id)) {
            return line.text;
        }
    }
    return {};
}

class DamageTest : public testing::Test {
protected:
    DamageTest() { makeDatabase(database_); }

    static std::size_t stride() {
        const char* const isLong = std::getenv("FSTORE_LONG");
        return isLong != nullptr && std::string(isLong) != "0" ? 1 : 29;
    }

    // The contents of all files but plans, wherever they are.
    static std::multiset<std::string> contents() {
        std::multiset<std::string> found;
        for (const auto& [path, content] : support::tree(".")) {
            if (content != "<folder>" && !path.ends_with("/plan")) {
                found.insert(content);
            }
        }
        return found;
    }

    CheckReport check(bool repair) {
        return checkDatabase(database_, {.deep = false, .repair = repair});
    }

    // What must be found by looking at the files, and without the key.
    static bool canBeTold(const std::string& path, const std::string& before,
                          const std::string& after) {
        if (hasMarker(path, kDscSuffix)) {
            return after.empty() || after.back() != '\n' ||
                   referenceOf(before) != referenceOf(after);
        }
        return before == "what everybody may know";
    }

    // One of the two copies of the slots, which is written anew from the other, or the record
    // "key", which the records prove. What was wrong with it may be kept in ./db.lost.
    void tryDamagedCopy(const std::string& path, const std::string& bytes, const Damage& damage) {
        SCOPED_TRACE(path + ": " + damage.what);
        const auto sound = support::tree("db");
        support::writeFile(path, damage.bytes);
        const auto damaged = support::tree(".");
        const CheckReport found = check(/*repair=*/false);
        EXPECT_EQ(damaged, support::tree(".")) << "looking changes nothing";
        const auto before = support::tree("db");
        check(/*repair=*/true);
        // A blank for a zero, or a digit in the other case, says the same.
        const bool counts = std::ranges::none_of(found.findings, [](const Finding& finding) {
            return finding.kind == Finding::Kind::kUnlockCopy ||
                   finding.kind == Finding::Kind::kKeyRecord;
        });
        EXPECT_EQ(counts ? before : sound, support::tree("db"));
        copiesWrittenAnew_ += !counts;
        std::filesystem::remove_all("db.lost");
        support::writeFile(path, bytes);
    }

    void tryDamage(const std::string& path, const std::string& bytes, const Damage& damage) {
        SCOPED_TRACE(path + ": " + damage.what);
        support::writeFile(path, damage.bytes);
        const auto damaged = support::tree(".");
        const auto all = contents();
        const CheckReport found = check(/*repair=*/false);
        EXPECT_EQ(damaged, support::tree(".")) << "looking changes nothing";
        if (canBeTold(path, bytes, damage.bytes)) {
            EXPECT_FALSE(found.isSound());
        }
        const CheckReport repaired = check(/*repair=*/true);
        EXPECT_EQ(all, contents()) << "nothing is gone";
        for (const LostFolder& lost : repaired.lost) {
            EXPECT_TRUE(undoRepair(database_, lost.name).taken.empty());
        }
        EXPECT_EQ(damaged, support::tree("."));
        support::writeFile(path, bytes);
    }

    const support::TempWorkingDir folder_;
    RecordingObserver observer_{"one"};
    Database database_{{}, observer_};
    int copiesWrittenAnew_ = 0;
};

TEST_F(DamageTest, TakesNothingAwayForGood) {
    const auto sound = support::tree(".");
    EXPECT_TRUE(check(/*repair=*/false).isSound());
    EXPECT_TRUE(check(/*repair=*/false).findings.empty());
    std::size_t tried = 0;
    std::size_t next = 0;
    for (const auto& [path, bytes] : sound) {
        if (bytes == "<folder>") {
            continue;
        }
        const std::vector<Damage> damages = damagesOf(bytes);
        for (; next < damages.size(); next += stride(), ++tried) {
            if (path == "db/kdf.dsc" || path == "db/kdf-copy.dsc" || path == "db/key.dsc") {
                tryDamagedCopy("./" + path, bytes, damages[next]);
            } else {
                tryDamage("./" + path, bytes, damages[next]);
            }
            if (HasFailure()) {
                return;
            }
        }
        next -= damages.size();
    }
    EXPECT_EQ(sound, support::tree("."));
    EXPECT_LT(100, copiesWrittenAnew_);
    std::printf("damaged files checked, repaired and put back: %zu\n", tried);
}

// With the key, what is encrypted shows its damage as well.
TEST_F(DamageTest, DeepFindsEachByteOfASecret) {
    for (const auto& [path, bytes] : support::tree("db/keys")) {
        if (!isUniqueName(path)) {
            continue;
        }
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            SCOPED_TRACE(path + ": byte " + std::to_string(at));
            std::string damaged = bytes;
            damaged[at] = static_cast<char>(damaged[at] ^ 0x40);
            support::writeFile("db/keys/" + path, damaged);
            EXPECT_FALSE(checkDatabase(database_, {.deep = true}).isSound());
        }
        support::writeFile("db/keys/" + path, bytes);
    }
    EXPECT_TRUE(checkDatabase(database_, {.deep = true}).isSound());
}

}  // namespace
}  // namespace fstore
