// What unlocks a database: each kind of key, from each place, and structures of other versions.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capi/border.h"
#include "lib/database/scrypt.h"
#include "tests/capi/support.h"
#include "tests/lib/database/unlock_example.h"
#include "tests/support/temp_dir.h"

namespace {

// One that has grown twice, as any structure of the header may.
struct Grown {
    std::size_t size;
    std::uint64_t first, second, third;  // no padding
};

}  // namespace

template <>
inline constexpr std::size_t capi::kFirstSize<Grown> = offsetof(Grown, second);

namespace capi_test {
namespace {

using capi::accepted;
using capi::fill;
using capi::kMostSize;
using testing::HasSubstr;

const std::string kRecovery = fstore::example::valueOf("recovery");
const std::string kFileText = fstore::example::valueOf("file") + "\n";

// The database of the example, written by hand: slots 1, 2 and 3 are a password, a recovery key and
// a key file.
class UnlockTest : public testing::Test {
protected:
    UnlockTest() {
        using fstore::example::kLines;
        EXPECT_EQ(0, ::mkdir((folder_ / "db").c_str(), 0700));
        const std::string& slot = kLines.at(1);
        const std::string digest = slot.substr(slot.find(" key=") + 5, 32);
        support::writeFile(folder_ / "db/key.dsc", "00000002 00000001 " + digest + "\n");
        std::string text;
        for (const std::string& line : kLines) {
            text += "00000004 00004b01 " + line + "\n";
        }
        support::writeFile(folder_ / "db/kdf.dsc", text);
        support::writeFile(folder_ / "db/kdf-copy.dsc", text);
        support::writeFile(folder_ / "host.key", kFileText);
        support::writeFile(folder_ / "recovery", kRecovery);
        support::writeFile(folder_ / "password", fstore::example::kPassword);
    }

    struct Answer {
        filestore_status status = FILESTORE_OK;
        std::uint32_t opened = 0;
        std::string message;
    };

    Answer unlocked(filestore_key key) {
        const Db db = open(folder_.path());
        filestore_error error = FILESTORE_ERROR_INIT;
        Answer answer;
        answer.opened = 99;
        key.opened = &answer.opened;
        answer.status = filestore_unlock(db.get(), &key, nullptr, &error);
        answer.message = error.message;
        EXPECT_EQ(answer.status == FILESTORE_OK ? 1 : 0, filestore_is_unlocked(db.get()));
        return answer;
    }

    Answer unlocked(std::uint32_t kind, const std::string& bytes, std::uint32_t slot = 0) {
        filestore_key key = passwordOf(bytes);
        key.kind = kind;
        key.slot = slot;
        return unlocked(key);
    }

    const support::TempDir folder_;
};

struct Way {
    std::uint32_t kind;
    std::string text;
    const char* file;
    std::uint32_t slot;
};

const std::vector<Way> kWays = {
    {FILESTORE_PASSWORD, fstore::example::kPassword, "password", 1},
    {FILESTORE_RECOVERY_KEY, kRecovery, "recovery", 2},
    {FILESTORE_KEY_FILE, kFileText, "host.key", 3},
};

TEST_F(UnlockTest, ARecoveryKeyIsTakenWhereAPasswordIs) {
    EXPECT_EQ(2U, unlocked(FILESTORE_PASSWORD, kRecovery).opened);
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, unlocked(FILESTORE_PASSWORD, kRecovery, 1).status);
    std::string mistyped = kRecovery;
    mistyped[6] = mistyped[6] == '0' ? '1' : '0';
    const Answer answer = unlocked(FILESTORE_PASSWORD, mistyped);
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, answer.status);
    EXPECT_THAT(answer.message, HasSubstr("group 2 is mistyped"));
}

TEST_F(UnlockTest, EachKindComesFromEachPlaceAndTellsItsSlot) {
    for (const Way& way : kWays) {
        SCOPED_TRACE(way.file);
        EXPECT_EQ(way.slot, unlocked(way.kind, way.text).opened);

        filestore_key key = FILESTORE_KEY_INIT;
        key.kind = way.kind;
        const std::string path = folder_ / way.file;
        key.path = path.c_str();
        EXPECT_EQ(way.slot, unlocked(key).opened);

        key.path = nullptr;
        std::string text = way.text;
        key.user = &text;
        key.fill = [](void* user, char* buffer, std::size_t capacity, std::size_t* length) {
            auto* const once = static_cast<std::string*>(user);
            *length = once->copy(buffer, capacity);
            once->clear();  // a second call would have nothing
            return 0;
        };
        EXPECT_EQ(way.slot, unlocked(key).opened);
    }
}

TEST_F(UnlockTest, OnlyTheSlotThatIsNamedIsTried) {
    for (const Way& way : kWays) {
        for (std::uint32_t slot = 1; slot <= 4; ++slot) {
            const Answer answer = unlocked(way.kind, way.text, slot);
            EXPECT_EQ(slot == way.slot ? FILESTORE_OK : FILESTORE_WRONG_PASSWORD, answer.status);
            EXPECT_EQ(slot == way.slot ? slot : 99, answer.opened);
        }
    }
}

TEST_F(UnlockTest, WhatIsEncryptedCanBeReadWithEach) {
    const Db first = open(folder_.path());
    unlock(first, fstore::example::kPassword);
    put(first, "keys/a", "body");
    for (const Way& way : kWays) {
        const Db db = open(folder_.path());
        filestore_error error = FILESTORE_ERROR_INIT;
        filestore_key key = passwordOf(way.text);
        key.kind = way.kind;
        must(filestore_unlock(db.get(), &key, nullptr, &error), error);
        EXPECT_EQ("body", bodyOf(get(db, "keys/a")));
    }
}

TEST_F(UnlockTest, ARecoveryKeyIsReadAsPeopleTypeIt) {
    std::string typed = kRecovery;
    for (char& c : typed) {
        c = c == '-' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    EXPECT_EQ(2u, unlocked(FILESTORE_RECOVERY_KEY, typed + "\n").opened);
    std::string wrong = kRecovery;
    wrong[12] = wrong[12] == '0' ? '1' : '0';
    const Answer answer = unlocked(FILESTORE_RECOVERY_KEY, wrong);
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, answer.status);
    EXPECT_THAT(answer.message, HasSubstr("group 3 is mistyped"));
    // It is tried as nothing else.
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, unlocked(FILESTORE_RECOVERY_KEY, "correct horse").status);
}

TEST_F(UnlockTest, WhatIsNoKeyFileIsNeverTried) {
    std::string edited = kFileText;
    edited[20] = edited[20] == '0' ? '1' : '0';
    for (const std::string& text :
         {edited, kFileText.substr(0, 60), kFileText + "x", fstore::example::kPassword}) {
        EXPECT_EQ(FILESTORE_MALFORMED, unlocked(FILESTORE_KEY_FILE, text).status);
        support::writeFile(folder_ / "host.key", text);
        filestore_key key = FILESTORE_KEY_INIT;
        key.kind = FILESTORE_KEY_FILE;
        const std::string path = folder_ / "host.key";
        key.path = path.c_str();
        const Answer answer = unlocked(key);
        EXPECT_EQ(FILESTORE_MALFORMED, answer.status);
        EXPECT_THAT(answer.message, HasSubstr("host.key"));
    }
}

// What a service pays with each start: the lock, the records and the box, and no derivation.
TEST_F(UnlockTest, AKeyFileUnlocksInMilliseconds) {
    using Clock = std::chrono::steady_clock;
    const Db db = open(folder_.path());
    filestore_key key = passwordOf(kFileText);
    key.kind = FILESTORE_KEY_FILE;
    const std::uint64_t before = fstore::scryptRuns();
    Clock::duration best = Clock::duration::max();
    for (int i = 0; i < 100; ++i) {
        const auto start = Clock::now();
        ASSERT_EQ(FILESTORE_OK, filestore_unlock(db.get(), &key, nullptr, nullptr));
        best = std::min(best, Clock::now() - start);
    }
    EXPECT_EQ(before, fstore::scryptRuns());
    // Below one in an optimised build on an idle machine; a sanitizer makes it many.
#ifdef __SANITIZE_ADDRESS__
    constexpr std::chrono::milliseconds kMost(100);
#else
    constexpr std::chrono::milliseconds kMost(10);
#endif
    EXPECT_LT(best, kMost);
    RecordProperty("microseconds", static_cast<int>(best / std::chrono::microseconds(1)));
}

TEST_F(UnlockTest, TheKeyItselfIsOfNoSlot) {
    EXPECT_EQ(0u, unlocked(FILESTORE_RAW_KEY, fstore::example::kP).opened);
}

// ---- Structures of other versions ----

// The caller's bytes of a structure: as many as `size` says, and not one more, so that a sanitizer
// sees what reads beyond.
template <class T>
class Sized {
public:
    Sized(const T& values, std::size_t size) : bytes_(size) {
        std::memcpy(bytes_.data(), &values, std::min(size, sizeof(T)));
        std::memcpy(bytes_.data(), &size, std::min(size, sizeof size));
    }
    T* get() { return reinterpret_cast<T*>(bytes_.data()); }
    unsigned char& at(std::size_t i) { return bytes_.at(i); }

private:
    std::vector<unsigned char> bytes_;
};

TEST_F(UnlockTest, AKeyOfAnOlderVersionOpens) {
    const Db db = open(folder_.path());
    const std::size_t yesterdays = offsetof(filestore_key, opened);
    Sized<filestore_key> key(passwordOf(fstore::example::kPassword), yesterdays);
    EXPECT_EQ(FILESTORE_OK, filestore_unlock(db.get(), key.get(), nullptr, nullptr));
    EXPECT_EQ(1, filestore_is_unlocked(db.get()));
}

TEST_F(UnlockTest, AKeyOfASizeThatCannotBeIsRefused) {
    const Db db = open(folder_.path());
    const filestore_key password = passwordOf(fstore::example::kPassword);
    const std::size_t yesterdays = offsetof(filestore_key, opened);
    for (const std::size_t size : {yesterdays - 1, sizeof(std::size_t), kMostSize + 1}) {
        Sized<filestore_key> key(password, size);
        EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db.get(), key.get(), nullptr, nullptr))
            << size;
    }
    filestore_key unset = password;
    unset.size = SIZE_MAX;
    EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db.get(), &unset, nullptr, nullptr));
    EXPECT_EQ(0, filestore_is_unlocked(db.get()));
}

TEST_F(UnlockTest, AKeyOfALaterVersionOpensUnlessItAsksForMore) {
    const Db db = open(folder_.path());
    for (const std::size_t size : {sizeof(filestore_key) + 1, kMostSize}) {
        Sized<filestore_key> key(passwordOf(fstore::example::kPassword), size);
        EXPECT_EQ(FILESTORE_OK, filestore_unlock(db.get(), key.get(), nullptr, nullptr));
        key.at(size - 1) = 1;
        EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db.get(), key.get(), nullptr, nullptr));
    }
}

TEST(BorderTest, WhatAnOlderStructureLacksIsZero) {
    const Grown usual{sizeof(Grown), 7, 8, 9};
    for (const auto& [size, second, third] :
         {std::tuple(offsetof(Grown, second), 0u, 0u), std::tuple(offsetof(Grown, third), 2u, 0u),
          std::tuple(sizeof(Grown), 2u, 3u)}) {
        Sized<Grown> given({0, 1, 2, 3}, size);
        const Grown own = accepted(given.get(), usual);
        EXPECT_EQ(sizeof(Grown), own.size);
        EXPECT_EQ(std::tuple(1u, second, third), std::tuple(own.first, own.second, own.third));
    }
    EXPECT_EQ(9u, accepted<Grown>(nullptr, usual).third);
    Sized<Grown> small({}, offsetof(Grown, second) - 1);
    EXPECT_THROW((void)accepted(small.get(), usual), fstore::Failure);
}

TEST(BorderTest, AnOlderStructureIsFilledAsFarAsItGoes) {
    for (const std::size_t size :
         {offsetof(Grown, second), offsetof(Grown, third), sizeof(Grown), sizeof(Grown) + 8}) {
        Sized<Grown> given({}, size);
        ASSERT_EQ(FILESTORE_OK, fill(given.get(), Grown{0, 1, 2, 3}));
        Sized<Grown> expected({0, 1, 2, 3}, size);
        EXPECT_EQ(0, std::memcmp(expected.get(), given.get(), size));
    }
    Sized<Grown> small({}, offsetof(Grown, second) - 1);
    EXPECT_EQ(FILESTORE_INVALID, fill(small.get(), Grown{}));
    Sized<Grown> large({}, kMostSize + 1);
    EXPECT_EQ(FILESTORE_INVALID, fill(large.get(), Grown{}));
}

}  // namespace
}  // namespace capi_test
