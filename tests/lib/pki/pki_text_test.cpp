#include <string>

#include <gtest/gtest.h>

#include "lib/pki/ossl.h"
#include "lib/pki/text.h"

namespace fstore {
namespace {

using namespace std::string_literals;

using Name = ossl::Owner<X509_NAME, X509_NAME_free>;
using Time = ossl::Owner<ASN1_TIME, ASN1_TIME_free>;

Name nameWith(int type, const std::string& bytes) {
    Name name(X509_NAME_new());
    X509_NAME_ENTRY* entry = X509_NAME_ENTRY_create_by_NID(
        nullptr, NID_commonName, V_ASN1_UTF8STRING,
        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    (void)ASN1_STRING_set(X509_NAME_ENTRY_get_data(entry), bytes.data(),
                          static_cast<int>(bytes.size()));
    X509_NAME_ENTRY_get_data(entry)->type = type;
    (void)X509_NAME_add_entry(name.get(), entry, -1, 0);
    X509_NAME_ENTRY_free(entry);
    return name;
}

TEST(AttributeTextTest, EscapesAsTabled) {
    const struct {
        const char* name;
        std::string text;
        const char* kept;
    } rows[] = {{"plain", "abc", "abc"},
                {"letters", "Zürich 東京", "Zürich 東京"},
                {"leading blank", "  a b ", "\\  a b "},
                {"line feed", "a\nb", "a\\0Ab"},
                {"other controls", "\t\r\x7f\x1b[0m"s, "\\09\\0D\\7F\\1B[0m"},
                {"NUL", "a\0b"s, "a\\00b"},
                {"backslash", "a\\b", "a\\\\b"},
                {"no UTF-8", "\xff\xc3", "\\FF\\C3"},
                {"empty", "", ""}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.kept, attributeText(row.text)) << row.name;
    }
}

TEST(NameTextTest, NeverHoldsWhatAnAttributeCannot) {
    EXPECT_EQ("CN=a\\0Ab", nameText(nameWith(V_ASN1_UTF8STRING, "a\nb").get()));
    EXPECT_EQ("CN=\\ a\\ ", nameText(nameWith(V_ASN1_UTF8STRING, " a ").get()));
    EXPECT_EQ("CN=\\#a", nameText(nameWith(V_ASN1_UTF8STRING, "#a").get()));
    EXPECT_EQ("CN=a\\00b", nameText(nameWith(V_ASN1_UTF8STRING, "a\0b"s).get()));
    EXPECT_EQ("CN=Zürich", nameText(nameWith(V_ASN1_T61STRING, "Z\xfcrich").get()));
}

TEST(NameTextTest, ValueThatIsNotItsTypeIsShownAsDigits) {
    EXPECT_EQ("CN=#0C02FF41", nameText(nameWith(V_ASN1_UTF8STRING, "\xff\x41").get()));
}

TEST(TitleOfTest, IsEmptyForWhatIsNoText) {
    EXPECT_EQ("server", titleOf(nameWith(V_ASN1_UTF8STRING, "server").get()));
    EXPECT_EQ("", titleOf(nameWith(V_ASN1_UTF8STRING, "\xff").get()));
}

TEST(TimeTextTest, IsRfc3339InUtc) {
    const struct {
        int type;
        const char* value;
        const char* text;
    } rows[] = {{V_ASN1_UTCTIME, "491231235959Z", "2049-12-31T23:59:59Z"},
                {V_ASN1_UTCTIME, "500101000000Z", "1950-01-01T00:00:00Z"},
                {V_ASN1_GENERALIZEDTIME, "99991231235959Z", "9999-12-31T23:59:59Z"},
                {V_ASN1_GENERALIZEDTIME, "20300131120000+0130", "2030-01-31T10:30:00Z"},
                {V_ASN1_UTCTIME, "300231000000Z", ""},
                {V_ASN1_UTCTIME, "garbage", ""},
                {V_ASN1_UTCTIME, "", ""}};
    for (const auto& row : rows) {
        const Time time(ASN1_STRING_type_new(row.type));
        (void)ASN1_STRING_set(time.get(), row.value, -1);
        EXPECT_EQ(row.text, timeText(time.get())) << row.value;
    }
    EXPECT_EQ("", timeText(nullptr));
}

TEST(AltNameTextsTest, AddressOfAnotherLengthIsShownAsDigits) {
    const ossl::GeneralNames names(sk_GENERAL_NAME_new_null());
    GENERAL_NAME* const name = GENERAL_NAME_new();
    ASN1_OCTET_STRING* const address = ASN1_OCTET_STRING_new();
    (void)ASN1_OCTET_STRING_set(address, reinterpret_cast<const unsigned char*>("\1\2\3"), 3);
    GENERAL_NAME_set0_value(name, GEN_IPADD, address);
    (void)sk_GENERAL_NAME_push(names.get(), name);
    EXPECT_EQ("IP:#010203", altNameTexts(names.get()).at(0));
}

}  // namespace
}  // namespace fstore
