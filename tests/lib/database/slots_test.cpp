#include "lib/database/slots.h"

#include <string>

#include <gtest/gtest.h>

#include "lib/base/digits.h"

namespace fstore {
namespace {

const std::string kSalt(64, 'a');
const std::string kDigest(32, '5');

std::string scryptSlot(const std::string& cost) {
    return "scrypt " + cost + " salt=" + kSalt + " digest=" + kDigest;
}

TEST(SlotTest, ReadsWhatItPrints) {
    for (const std::string& text :
         {scryptSlot("ln=17 r=8 p=1"), scryptSlot("ln=14 r=8 p=1"), scryptSlot("ln=22 r=32 p=4"),
          "raw digest=" + kDigest, std::string("none")}) {
        const auto slot = parseSlot(text);
        ASSERT_TRUE(slot) << text;
        EXPECT_EQ(text, printSlot(*slot));
    }
}

TEST(SlotTest, RefusesCostsOutOfBounds) {
    for (const char* const cost :
         {"ln=13 r=8 p=1", "ln=23 r=8 p=1", "ln=17 r=7 p=1", "ln=17 r=33 p=1", "ln=17 r=8 p=0",
          "ln=17 r=8 p=5", "ln=017 r=8 p=1", "ln=4294967313 r=8 p=1", "ln=-17 r=8 p=1",
          "ln= r=8 p=1", "r=8 ln=17 p=1", "ln=17 r=8", "ln=17  r=8 p=1"}) {
        EXPECT_FALSE(parseSlot(scryptSlot(cost))) << cost;
    }
}

TEST(SlotTest, RefusesAnythingButItsForms) {
    const std::string whole = scryptSlot("ln=17 r=8 p=1");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(parseSlot(whole.substr(0, length))) << length;
    }
    EXPECT_FALSE(parseSlot(whole + " "));
    EXPECT_FALSE(parseSlot(whole + "0"));
    EXPECT_FALSE(parseSlot(" " + whole));
    EXPECT_FALSE(parseSlot("raw"));
    EXPECT_FALSE(parseSlot("none "));
    EXPECT_FALSE(parseSlot("raw digest=" + kDigest.substr(1) + "g"));
}

Slot slotOf(const std::string& cost) {
    return parseSlot(scryptSlot(cost)).value();
}

TEST(SlotTest, CostsAsMuchMemoryAndWorkAsScryptTakes) {
    EXPECT_EQ(128u << 20, slotOf("ln=17 r=8 p=1").memory());
    EXPECT_EQ(1u << 22, slotOf("ln=17 r=8 p=4").work());
    EXPECT_EQ(Slot::kMostMemory, slotOf("ln=22 r=8 p=1").memory());
    EXPECT_EQ(std::uint64_t{16} << 30, slotOf("ln=22 r=32 p=1").memory());
    EXPECT_EQ(0u, parseSlot("none")->memory() + parseSlot("none")->work());
    EXPECT_EQ(0u, parseSlot("raw digest=" + kDigest)->memory());
}

TEST(SlotTest, NoSlotTakesMoreMemoryThanTheLimit) {
    for (const char* const cost :
         {"ln=17 r=8 p=1", "ln=22 r=8 p=1", "ln=21 r=16 p=1", "ln=20 r=32 p=1", "ln=21 r=15 p=1"}) {
        EXPECT_FALSE(excessOf(slotOf(cost))) << cost;
    }
    for (const char* const cost : {"ln=22 r=9 p=1", "ln=21 r=17 p=1", "ln=22 r=32 p=4"}) {
        const auto excess = excessOf(slotOf(cost));
        ASSERT_TRUE(excess) << cost;
        EXPECT_NE(std::string::npos, excess->find("MiB of memory")) << *excess;
    }
}

TEST(SlotTest, NoSlotTakesMoreWorkThanTheLimit) {
    for (const char* const cost : {"ln=20 r=8 p=4", "ln=21 r=8 p=2", "ln=20 r=10 p=3"}) {
        EXPECT_FALSE(excessOf(slotOf(cost))) << cost;
    }
    for (const char* const cost : {"ln=22 r=8 p=2", "ln=21 r=8 p=3", "ln=20 r=11 p=3"}) {
        const auto excess = excessOf(slotOf(cost));
        ASSERT_TRUE(excess) << cost;
        EXPECT_NE(std::string::npos, excess->find("work")) << *excess;
    }
    EXPECT_FALSE(excessOf(*parseSlot("raw digest=" + kDigest)));
    EXPECT_FALSE(excessOf(*parseSlot("none")));
}

// RFC 7914 has no vector with a salt of 32 bytes; this one is of another implementation
// (Python's hashlib, N=2^14, r=8, p=1).
TEST(DerivationTest, AgreesWithAnotherImplementation) {
    const auto slot = parseSlot(
        "scrypt ln=14 r=8 p=1 salt=000102030405060708090a0b0c0d0e0f"
        "101112131415161718191a1b1c1d1e1f digest=" +
        kDigest);
    ASSERT_TRUE(slot);
    EXPECT_EQ("42fa366219ca6b8997059907a4eb416cf8d911749572dfbcd167084b5807f524",
              deriveP(*slot, SecretText("password")).view());
    EXPECT_EQ("5f4dcc3b5aa765d61d8327deb882cf99", toHex(digestOf(SecretText("password"))));
}

TEST(DerivationTest, OtherFormsTakeThePasswordAsItIsOrNone) {
    const SecretText password("as it is");
    EXPECT_EQ("as it is", deriveP(*parseSlot("raw digest=" + kDigest), password).view());
    EXPECT_TRUE(deriveP(*parseSlot("none"), password).empty());
}

}  // namespace
}  // namespace fstore
