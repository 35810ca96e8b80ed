#include "format/layout.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(LayoutTest, AFolderStandsBeforeWhatIsInIt) {
    std::vector<std::string> made{layout::kLive};
    for (const layout::Folder& folder : layout::kFolders) {
        const std::string path = folder.path;
        const std::string parent = path.substr(0, path.rfind('/'));
        EXPECT_NE(made.end(), std::find(made.begin(), made.end(), parent)) << path;
        EXPECT_EQ(path, std::string(layout::kLive) + "/" + std::string(folder.name()));
        made.push_back(path);
    }
    EXPECT_EQ(9u, made.size());
}

TEST(LayoutTest, AFolderHoldsItselfAndWhatIsBelowIt) {
    EXPECT_TRUE(layout::kCertificates.holds("certificates"));
    EXPECT_TRUE(layout::kCertificates.holds("certificates/local"));
    for (const char* other : {"", "certificate", "certificates2", "x/certificates", "keys"}) {
        EXPECT_FALSE(layout::kCertificates.holds(other)) << other;
    }
}

TEST(LayoutTest, TheLiveFolderIsBesideTheOthers) {
    EXPECT_EQ(layout::kLive, std::string("./") + layout::kLiveName);
}

}  // namespace
