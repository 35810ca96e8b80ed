#include "lib/work/uri.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"

namespace fstore {
namespace {

using testing::HasSubstr;
using Type = Selector::Type;

std::string refusalOf(const std::string& text) {
    try {
        (void)parseUri(text);
    } catch (const Failure& failure) {
        EXPECT_EQ(kInvalid, failure.status()) << text;
        return failure.what();
    }
    return "accepted";
}

TEST(UriTest, PathIsAnAddress) {
    EXPECT_EQ("certificates/local/server", parseUri("fstore:///certificates/local/server").path);
    EXPECT_EQ("sha256:1a2b", parseUri("fstore:///sha256:1a2b").path);
    EXPECT_EQ("a b/\xC3\xA9%", parseUri("fstore:///a%20b/%c3%A9%25").path);
    EXPECT_FALSE(parseUri("fstore:///certificates/local").isFolderOnly());
    EXPECT_TRUE(parseUri("fstore:///certificates/").isFolderOnly());
    EXPECT_TRUE(parseUri("fstore:///").isFolderOnly());
}

TEST(UriTest, SelectorHasItsParametersInAnyOrder) {
    const RecordUri uri = parseUri("fstore:///?type=chain&for=WWW.Example.com&alg=EC*");
    ASSERT_TRUE(uri.selector);
    EXPECT_EQ("www.example.com", uri.selector->name);
    EXPECT_EQ(Type::kChain, uri.selector->type);
    EXPECT_EQ("EC*", uri.selector->algorithm);
    EXPECT_EQ(Type::kPair, parseUri("fstore:///?for=a").selector->type);
}

TEST(UriTest, NamesAreInTheirUsualForm) {
    EXPECT_EQ("2001:db8::1", hostNameOf("2001:0DB8:0::1"));
    EXPECT_EQ("192.0.2.1", hostNameOf("192.0.2.1"));
    EXPECT_EQ("*.example.com", hostNameOf("*.Example.com"));
    EXPECT_EQ("a_b.xn--bcher-kva.example", hostNameOf("a_b.xn--bcher-kva.example"));
}

TEST(UriTest, FinalDotIsLeftOut) {
    EXPECT_EQ("www.example.com", hostNameOf("www.example.com."));
    EXPECT_EQ("192.0.2.1", hostNameOf("192.0.2.1."));
    EXPECT_EQ("www.example.com", parseUri("fstore:///?for=www.example.com.").selector->name);
    EXPECT_THROW((void)hostNameOf("."), Failure);
}

TEST(UriTest, SchemeMayHaveCapitals) {
    EXPECT_EQ("keys/A", parseUri("FStore:///keys/A").path);
    EXPECT_TRUE(isUri("FSTORE:///?for=a"));
    EXPECT_FALSE(isUri("fstore"));
    EXPECT_FALSE(isUri("other:///a"));
}

TEST(UriTest, WhatIsPrintedIsReadAgain) {
    for (const char* const text :
         {"fstore:///", "fstore:///keys/a%20%25b", "fstore:///certificates/",
          "fstore:///?for=www.example.com", "fstore:///?for=2001:db8::1&type=key",
          "fstore:///?for=*.example.com&type=cert&alg=RSA", "fstore:///?for=a&type=chain"}) {
        EXPECT_EQ(text, printUri(parseUri(text)));
    }
}

struct Refused {
    const char* text;
    const char* why;
};

void PrintTo(const Refused& refused, std::ostream* out) {
    *out << refused.text;
}

class RefusedUriTest : public testing::TestWithParam<Refused> {};

INSTANTIATE_TEST_SUITE_P(
    Texts, RefusedUriTest,
    testing::Values(Refused{"", "looks like"}, Refused{"file:///a", "looks like"},
                    Refused{"fstore:a/b", "looks like"}, Refused{"fstore://host/a", "looks like"},
                    Refused{"FSTORE:/a", "looks like"}, Refused{"fstore:///a b", "%20"},
                    Refused{"fstore:///a#b", "%20"}, Refused{"fstore:///a?for=b", "%20"},
                    Refused{"fstore:///a\nb", "%20"}, Refused{"fstore:///\xC3\xA9", "%20"},
                    Refused{"fstore:///a%2Fb", "%2F"}, Refused{"fstore:///a%00", "%00"},
                    Refused{"fstore:///a%2", "two hexadecimal"},
                    Refused{"fstore:///a%zz", "two hexadecimal"}, Refused{"fstore:///?", "no for="},
                    Refused{"fstore:///?type=key", "no for="},
                    Refused{"fstore:///?for=a&for=b", "twice"},
                    Refused{"fstore:///?for=a&type=pair", "key, cert or chain"},
                    Refused{"fstore:///?for=a&x=b", "for, type and alg"},
                    Refused{"fstore:///?for=", "not the name of a host"},
                    Refused{"fstore:///?for=a..b", "not the name of a host"},
                    Refused{"fstore:///?for=-a", "not the name of a host"},
                    Refused{"fstore:///?for=a..", "\"a..\" is not the name of a host"},
                    Refused{"fstore:///?for=*", "not the name of a host"},
                    Refused{"fstore:///?for=a.*.b", "not the name of a host"},
                    Refused{"fstore:///?for=b%C3%BCcher.example", "xn--"}));

TEST_P(RefusedUriTest, SaysWhy) {
    EXPECT_THAT(refusalOf(GetParam().text), HasSubstr(GetParam().why));
}

TEST(UriTest, LengthsAreBounded) {
    const std::string head = "fstore:///";
    EXPECT_EQ("accepted", refusalOf(head + std::string(kMostUri - head.size(), 'a')));
    EXPECT_THAT(refusalOf(head + std::string(kMostUri, 'a')), HasSubstr("4096"));
    const std::string label(63, 'a');
    const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'a');
    EXPECT_EQ("accepted", refusalOf(head + "?for=" + longest));
    EXPECT_THAT(refusalOf(head + "?for=" + longest + "a"), HasSubstr("not the name"));
    EXPECT_THAT(refusalOf(head + "?for=" + label + "a"), HasSubstr("not the name"));
}

}  // namespace
}  // namespace fstore
