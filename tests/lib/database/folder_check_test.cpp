#include "lib/database/folder_check.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

constexpr const char* kReference = "10000003 00000000 0000ab10\n";

// A folder with one body, and files of the test's own.
class FolderCheckTest : public testing::Test {
protected:
    FolderCheckTest() {
        std::filesystem::create_directories("db/keys");
        support::writeFile("db/keys/0000ab10", "the body");
    }

    static std::vector<Finding> check() {
        std::vector<Finding> findings;
        checkFolder("keys", findings);
        return findings;
    }

    const support::TempWorkingDir folder_;
};

TEST_F(FolderCheckTest, ASoundRecordIsNoFinding) {
    support::writeFile("db/keys/a.dsc", kReference);
    EXPECT_THAT(check(), IsEmpty());
}

// What cannot be read may name any body: a repair that then moved the body of the descriptor that
// it put back would leave a record without one.
TEST_F(FolderCheckTest, TheBodyOfASavedDescriptorStaysWhicheverCallFails) {
    support::writeFile("db/keys/a.dsc.$o$", kReference);
    EXPECT_THAT(check(), ElementsAre(Field(&Finding::repair, Finding::Repair::kPutBack)));
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
        fault::FailingCall failing(nth, EIO);
        std::vector<Finding> findings;
        try {
            findings = check();
        } catch (const Failure&) {
            findings.clear();  // nothing is repaired then
        }
        hit = failing.lift();
        for (const Finding& finding : findings) {
            SCOPED_TRACE("failing call " + std::to_string(nth));
            EXPECT_TRUE(finding.path.ends_with(".$o$") || !finding.isRepairable())
                << finding.path << ' ' << finding.message;
        }
    }
}

// A number of a record, such as its schema, may look like the name of a body.
TEST_F(FolderCheckTest, ANumberIsNoNameOfABody) {
    support::writeFile("db/keys/a.dsc", std::string(kReference) + "00000001 00000100 00000001\n");
    support::writeFile("db/keys/00000001", "a leftover");
    const std::vector<Finding> findings = check();
    ASSERT_EQ(1u, findings.size());
    EXPECT_EQ(Finding::Kind::kUnnamedBody, findings[0].kind);
    EXPECT_EQ(Finding::Repair::kMoveAway, findings[0].repair);
    EXPECT_FALSE(findings[0].isDamage());
}

// Where the reference itself is damaged, the same word may be all that is left of it.
TEST_F(FolderCheckTest, AWordOfADamagedDescriptorMayBeTheNameOfItsBody) {
    support::writeFile("db/keys/a.dsc", "00000003 00000000 0000ab10\n");
    const std::vector<Finding> findings = check();
    const auto body = std::find_if(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.path.ends_with("/0000ab10");
    });
    ASSERT_NE(findings.end(), body);
    EXPECT_TRUE(body->isDoubtful);
    EXPECT_FALSE(body->isRepairable());
}

}  // namespace
}  // namespace fstore
