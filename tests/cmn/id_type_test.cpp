#include "cmn/id_type.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(Tuint32IDTest, ComparesOtherAgainstItselfUnsigned) {
    const struct {
        const char* name;
        unsigned int self;
        unsigned int other;
        int result;
    } rows[] = {
        {"equal", 1, 1, 0},
        {"other is less", 7, 3, -1},
        {"other is greater", 3, 7, 1},
        {"greatest against least: unsigned", 0xFFFFFFFF, 1, -1},
        {"least against greatest: unsigned", 0, 0x80000000, 1},
        {"both have the sign bit", 0x80000001, 0x80000000, -1},
        {"greatest against itself", 0xFFFFFFFF, 0xFFFFFFFF, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.result, Tuint32ID(row.self).val_comp(Tuint32ID(row.other)));
        EXPECT_EQ(row.result == 0, Tuint32ID(row.self) == Tuint32ID(row.other));
    }
}

TEST(Tuint32IDTest, CopyHasKindAndValue) {
    const Tuint32ID original(0x3f0008);
    const Tuint32ID copy(original);
    EXPECT_TRUE(copy == original);
    EXPECT_EQ(0x3f0008u, copy.value());
}

TEST(TstringIDTest, ComparesOtherAgainstItselfByBytes) {
    const struct {
        const char* name;
        const char* self;
        const char* other;
        int sign;
    } rows[] = {
        {"equal", "abc", "abc", 0},
        {"other is less", "b", "a", -1},
        {"other is greater", "a", "b", 1},
        {"other is a prefix", "ab", "a", -1},
        {"bytes are unsigned", "a", "\xff", 1},
        {"null is the empty text", nullptr, "", 0},
        {"null against a text", nullptr, "a", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TstringID self(row.self);
        const TstringID other(row.other);
        const int result = self.val_comp(other);
        EXPECT_EQ(row.sign, (result > 0) - (result < 0));
        EXPECT_EQ(row.sign == 0, self == other);
    }
}

TEST(TstringIDTest, OwnsItsText) {
    char text[] = "module";
    const TstringID id(text);
    text[0] = 'x';
    EXPECT_TRUE(id == TstringID("module"));
}

TEST(TstringIDTest, CopyOutlivesItsSource) {
    auto source = std::make_unique<TstringID>("module");
    const TstringID copy(*source);
    source.reset();
    EXPECT_TRUE(copy == TstringID("module"));
}

TEST(TstringIDTest, InitReplacesTheText) {
    TstringID id("before");
    id.init("a text that is longer than the one before");
    EXPECT_TRUE(id == TstringID("a text that is longer than the one before"));
    id.init(nullptr);
    EXPECT_TRUE(id == TstringID(""));
}

// An identifier whose values are all equal, and that tells when it was asked.
class AskedID : public TypifiedID {
public:
    explicit AskedID(IDType_t kind) : TypifiedID(kind) {}
    int val_comp(const TypifiedID& /*other*/) const override {
        ++asked;
        return 0;
    }
    void dump() const override {}

    mutable int asked = 0;
};

TEST(TypifiedIDTest, KindsThatDifferAreUnequalWithoutComparingValues) {
    EXPECT_FALSE(Tuint32ID(5) == TstringID("5"));
    EXPECT_FALSE(TstringID("5") == Tuint32ID(5));

    const AskedID number(TypifiedID::kNumber);
    const AskedID text(TypifiedID::kString);
    EXPECT_FALSE(number == text);
    EXPECT_FALSE(text == number);
    EXPECT_EQ(0, number.asked + text.asked);
}

TEST(TypifiedIDTest, ValuesOfOneKindAreComparedByTheLeftSide) {
    const AskedID left(TypifiedID::kString);
    const AskedID right(TypifiedID::kString);
    EXPECT_TRUE(left == right);
    EXPECT_EQ(1, left.asked);
    EXPECT_EQ(0, right.asked);
}

TEST(TypifiedIDTest, DumpPrintsNothing) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Tuint32ID(107).dump();
    TstringID("module").dump();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(ModuleIDTest, PointerNamesTheModulesOwnIdentifier) {
    EXPECT_EQ(static_cast<const TypifiedID*>(&ModuleID), pModuleID);
    EXPECT_TRUE(*pModuleID == Tuint32ID(107));
}

}  // namespace
