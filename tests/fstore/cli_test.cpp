#include "fstore/commands/cli.h"

#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

struct Ending {
    int code;
    std::string out;
    std::string err;
};

// How the program ends when its command does what `body` does.
template <class Body>
Ending endOf(Body body, const char* option) {
    Cli cli;
    cli.add("probe", "", [body](Context&) { return body(); });
    const char* const argv[] = {"fstore", "probe", option};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int code = cli.main(3, argv);
    return {code, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

// Statuses that no database makes the tool see from outside are among these.
TEST(CliTest, EndsWithTheStatusOfTheStore) {
    const struct {
        Status status;
        int code;
        const char* name;
    } rows[] = {
        {kNoMemory, 1, "no-memory"},
        {kInvalid, 4, "invalid"},
        {kWrongPassword, 6, "wrong-password"},
        {kIo, 9, "io"},
        {kNotOpen, 14, "not-open"},
        {kAlreadyOpen, 33, "busy"},
        {kClosed, 35, "closed"},
        {kEnd, 36, "not-found"},
        {kNoObject, 40, "no-service"},
        {kMissing, 50, "missing"},
        {kMalformed, 59, "malformed"},
        {kNoDigest, 74, "no-digest"},
        {7, 125, "foreign"},
        {kUsage, 125, "foreign"},
        {777, 125, "foreign"},
        {0x80000001, 125, "foreign"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        const auto body = [&row] {
            check(row.status, "cannot do it", "keys/a");
            return kOk;
        };
        const Ending human = endOf(body, "-q");
        EXPECT_EQ(row.code, human.code);
        EXPECT_EQ(0u, human.err.find("fstore: error: cannot do it: "));
        const Ending json = endOf(body, "--json");
        EXPECT_EQ(row.code, json.code);
        EXPECT_EQ("", json.out);
        EXPECT_NE(std::string::npos, json.err.find("\"" + std::string(row.name) + "\""));
        EXPECT_NE(std::string::npos, json.err.find("\"keys/a\""));
    }
}

TEST(CliTest, ExceptionsEndIt) {
    const auto noMemory = []() -> Status { throw std::bad_alloc(); };
    EXPECT_EQ(1, endOf(noMemory, "-q").code);
    const auto strange = []() -> Status { throw std::logic_error("out of range"); };
    const Ending ending = endOf(strange, "-q");
    EXPECT_EQ(125, ending.code);
    EXPECT_EQ("fstore: error: unexpected: out of range\n", ending.err);
}

TEST(CliTest, CodesOfTheToolAreGivenAsTheyAre) {
    for (const Status code : {kOk, kFound, kPartial}) {
        EXPECT_EQ(static_cast<int>(code), endOf([code] { return code; }, "-q").code);
    }
}

}  // namespace
}  // namespace fstore
