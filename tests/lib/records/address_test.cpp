#include "lib/records/address.h"

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/status_of.h"

namespace fstore {
namespace {

using support::statusOf;

TEST(AddressTest, ReadsPlacesAsTabled) {
    const struct {
        const char* text;
        const char* folder;
        const char* name;
    } rows[] = {
        {"certificates/local/server", "certificates/local", "server"},
        {"db/certificates/local/server", "certificates/local", "server"},
        {"./db/keys/a", "keys", "a"},
        {"keys//a", "keys", "a"},
        {"./key", "", "key"},
        {"db/key", "", "key"},
        {"settings/db", "settings", "db"},
        {"settings/sha256:00", "settings", "sha256:00"},
        {"settings/a.dsc", "settings", "a.dsc"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const AddressText address = parseAddress(row.text);
        EXPECT_EQ(AddressText::Form::kPlace, address.form);
        EXPECT_EQ(row.folder, address.place.folder);
        EXPECT_EQ(row.name, address.place.name);
    }
}

TEST(AddressTest, TellsTheOtherForms) {
    EXPECT_EQ(AddressText::Form::kBare, parseAddress("server").form);
    EXPECT_EQ("server", parseAddress("server").place.name);
    EXPECT_EQ(AddressText::Form::kDigest, parseAddress("sha256:0AB").form);
    EXPECT_EQ("0ab", parseAddress("sha256:0AB").digest);
}

TEST(AddressTest, RefusesWhatLeadsElsewhere) {
    for (const std::string& text :
         {std::string(""), std::string("keys/"), std::string("../a"), std::string("keys/../../a"),
          std::string("keys/.."), std::string("keys/."), std::string("sha256:"),
          std::string("sha256:xy"), "sha256:" + std::string(65, '0'), std::string("a\0b", 3),
          "keys/" + std::string(248, 'n')}) {
        EXPECT_EQ(kInvalid, statusOf([&] { return parseAddress(text); })) << text;
    }
    EXPECT_EQ(kOk, statusOf([] { return parseAddress("keys/" + std::string(247, 'n')); }));
}

TEST(AddressTest, NewRecordsNeedAFolderAndAVisibleName) {
    EXPECT_EQ("keys/ü", parseNewAddress("keys/ü").print());
    for (const char* const text : {"a", "sha256:00", "keys/a\nb", "keys/\xff", "keys/a\u202e"}) {
        EXPECT_EQ(kInvalid, statusOf([&] { return parseNewAddress(text); })) << text;
    }
}

TEST(AddressTest, InternalRecordsAreThoseOfTheRoot) {
    EXPECT_TRUE((Address{"", "key"}.isInternal()));
    EXPECT_TRUE((Address{"", "kdf"}.isInternal()));
    EXPECT_FALSE((Address{"keys", "key"}.isInternal()));
    EXPECT_FALSE((Address{"", "other"}.isInternal()));
    EXPECT_EQ("./key", (Address{"", "key"}.print()));
}

TEST(AddressTest, PathsAreBelowTheDatabase) {
    EXPECT_EQ("./db/keys/a.dsc", descriptorPath({"keys", "a"}));
    EXPECT_EQ("./db/key.dsc", descriptorPath({"", "key"}));
}

}  // namespace
}  // namespace fstore
