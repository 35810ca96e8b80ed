#include "tests/support/doubles/toy_cipher.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

std::string hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += kDigits[value >> 4];
        text += kDigits[value & 15];
    }
    return text;
}

toy::Parameters sample() {
    toy::Parameters parameters;
    parameters.password = "secret";
    parameters.iterations = 1000;
    parameters.length = 16;
    parameters.firstAlg = 0x20000;
    parameters.secondAlg = 9;
    return parameters;
}

// Kept values: builds of any shape read each other's records.
TEST(ToyCipherTest, IsTheSameInEveryBuild) {
    const std::string key = toy::derive(sample());
    EXPECT_EQ("7f3bf01228ee1eb7072911f9e758fc03", hex(key));
    EXPECT_EQ(
        "0101000000000000000000000061a288d9f4e58f9362ea01d9b3d32ad04867200ef00133b2d2ca0729d7a7",
        hex(toy::seal(key, 1, "attack at dawn")));
}

TEST(ToyCipherTest, OpensWhatItSealed) {
    for (const std::string& plain : {std::string(), std::string("a"), std::string(1000, '\0')}) {
        const std::string sealed = toy::seal("key", 7, plain);
        EXPECT_EQ(plain.size() + toy::kOverhead, sealed.size());
        EXPECT_EQ(plain, toy::open("key", sealed));
    }
}

TEST(ToyCipherTest, ZerosInPiecesAreSealedAsAWhole) {
    for (const std::size_t size : {0, 1, 8, 65536, 65537, 200000}) {
        SCOPED_TRACE(size);
        std::string sealed;
        toy::sealZeros("key", 7, size, [&](std::string_view piece) { sealed += piece; });
        EXPECT_TRUE(toy::seal("key", 7, std::string(size, '\0')) == sealed);
    }
}

TEST(ToyCipherTest, NoncesGiveDifferentCiphertexts) {
    EXPECT_NE(toy::seal("key", 1, "text").substr(13), toy::seal("key", 2, "text").substr(13));
}

TEST(ToyCipherTest, NoticesAnotherKey) {
    EXPECT_FALSE(toy::open("kez", toy::seal("key", 1, "text")));
}

TEST(ToyCipherTest, NoticesEveryDamagedBit) {
    const std::string sealed = toy::seal("key", 1, "text");
    for (std::size_t bit = 0; bit < sealed.size() * 8; ++bit) {
        std::string damaged = sealed;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        EXPECT_FALSE(toy::open("key", damaged)) << "bit " << bit;
    }
}

TEST(ToyCipherTest, NoticesEveryTruncation) {
    const std::string sealed = toy::seal("key", 1, "text");
    for (std::size_t size = 0; size < sealed.size(); ++size) {
        EXPECT_FALSE(toy::open("key", sealed.substr(0, size))) << size << " bytes";
    }
}

TEST(ToyCipherTest, EveryParameterMattersToTheKey) {
    const struct {
        const char* name;
        std::function<void(toy::Parameters&)> change;
    } rows[] = {
        {"password", [](toy::Parameters& p) { p.password = "Secret"; }},
        {"salt", [](toy::Parameters& p) { p.salt = "s"; }},
        {"border of salt and password",
         [](toy::Parameters& p) { p.salt = "s", p.password = "ecret"; }},
        {"iterations", [](toy::Parameters& p) { p.iterations = 1001; }},
        {"first algorithm", [](toy::Parameters& p) { p.firstAlg = 1; }},
        {"second algorithm", [](toy::Parameters& p) { p.secondAlg = 1; }},
        {"purpose", [](toy::Parameters& p) { p.purpose = 1; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        toy::Parameters parameters = sample();
        row.change(parameters);
        EXPECT_NE(toy::derive(sample()), toy::derive(parameters));
    }
}

}  // namespace
