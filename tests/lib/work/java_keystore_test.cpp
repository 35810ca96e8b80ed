#include "lib/work/java_keystore.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

using fstore::Failure;

TEST(JavaKeystoreTest, KeytoolHasItsTimeAndNoMore) {
    const support::TempWorkingDir folder;
    support::writeFile("keytool", "#!/bin/sh\nexec /bin/sleep 60\n");
    std::filesystem::permissions("keytool", std::filesystem::perms::owner_all);
    const std::string before = std::getenv("PATH");
    ASSERT_EQ(0, ::setenv("PATH", std::filesystem::current_path().c_str(), 1));
    const std::vector<unsigned char> keystore{0xFE, 0xED, 0xFE, 0xED, 0, 0, 0, 2};
    const fstore::SecretText password("secret");
    constexpr double kSeconds = 0.25;
    const auto parts = fstore::decodeWithKeytool(
        keystore, [&]() -> const fstore::SecretText& { return password; }, kSeconds);
    ASSERT_EQ(0, ::setenv("PATH", before.c_str(), 1));
    ASSERT_EQ(1U, parts.size());
    ASSERT_TRUE(std::holds_alternative<Failure>(parts[0].content));
    EXPECT_STREQ("keytool did not convert this Java keystore within 0.25 seconds, and was ended",
                 std::get<Failure>(parts[0].content).what());
}

}  // namespace
