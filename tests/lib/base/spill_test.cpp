#include "lib/base/spill.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/fs_fault.h"

namespace fstore {
namespace {

using fault::Call;

// Longer than what stays in memory, and not a whole number of pieces.
constexpr std::size_t kLong = Spill::kPiece * (Spill::kPiecesInMemory + 3) + 17;

std::string longText() {
    std::string text;
    for (std::size_t i = 0; text.size() < kLong; ++i) {
        text += std::to_string(i) + " a secret line\n";
    }
    text.resize(kLong);
    return text;
}

void addInParts(Spill& spill, const std::string& text) {
    for (std::size_t from = 0, size = 1; from < text.size();
         from += size, size = size * 3 % 70001) {
        spill.add(std::string_view(text).substr(from, size));
    }
}

std::string readFrom(const Spill& spill, std::uint64_t from) {
    Spill::Reader reader(spill, from);
    std::string text;
    for (std::string_view piece = reader.next(); !piece.empty(); piece = reader.next()) {
        text += piece;
    }
    return text;
}

TEST(SpillTest, GivesBackWhatItGot) {
    const std::string text = longText();
    Spill spill;
    EXPECT_EQ("", readFrom(spill, 0));
    addInParts(spill, text);
    EXPECT_EQ(text.size(), spill.size());
    for (const std::uint64_t from :
         {std::uint64_t{0}, std::uint64_t{5}, std::uint64_t{Spill::kPiece},
          std::uint64_t{kLong - 1}, std::uint64_t{kLong}}) {
        EXPECT_EQ(text.substr(from), readFrom(spill, from)) << from;
    }
    Spill::Reader reader(spill, 3);
    EXPECT_EQ(text.substr(3, 200'000), reader.take(200'000));
    EXPECT_EQ(text.substr(200'003, 5), reader.take(5));
    spill.clear();
    EXPECT_EQ("", readFrom(spill, 0));
}

TEST(SpillTest, ShortTextsTouchNoFile) {
    const fault::Recorder calls;
    Spill spill;
    spill.add(std::string(Spill::kPiece * Spill::kPiecesInMemory, 'x'));
    EXPECT_EQ(spill.size(), readFrom(spill, 0).size());
    EXPECT_TRUE(calls.events().empty());
}

TEST(SpillTest, TheFileHasNoNameAndNothingThatCanBeRead) {
    const fault::Recorder calls({Call::kOpen, Call::kWrite});
    Spill spill;
    addInParts(spill, longText());
    ASSERT_FALSE(calls.events().empty());
    const fault::Event opened = calls.events().front();
    EXPECT_EQ(O_TMPFILE, opened.flags & O_TMPFILE);
    int written = 0;
    for (const fault::Event& event : calls.events()) {
        EXPECT_EQ(std::string::npos, event.data.find("secret"));
        written += event.data.empty() ? 0 : 1;
    }
    EXPECT_EQ(3, written);
}

TEST(SpillTest, WhatTheFileDoesNotTakeStaysInMemory) {
    const std::string text = longText();
    for (const Call call : {Call::kOpen, Call::kWrite}) {
        for (int nth = 1; nth <= 3; ++nth) {
            const fault::FailingCall full(nth, ENOSPC, fault::Mode::kFromThenOn, {call});
            Spill spill;
            addInParts(spill, text);
            EXPECT_EQ(text, readFrom(spill, 0)) << nameOf(call) << nth;
        }
    }
}

TEST(SpillTest, ShortWritesAndReadsGoOn) {
    const std::string text = longText();
    const fault::ShortCall pieces(1, fault::Mode::kFromThenOn, 10'000);
    Spill spill;
    addInParts(spill, text);
    EXPECT_EQ(text, readFrom(spill, 0));
}

TEST(SpillTest, WhatCannotBeReadBackIsNoShorterText) {
    Spill spill;
    addInParts(spill, longText());
    const fault::FailingCall failing(2, EIO, fault::Mode::kOnce, {Call::kRead});
    EXPECT_THROW((void)readFrom(spill, 0), Failure);
    const fault::ShortCall cut(1, fault::Mode::kOnce, 0, {Call::kRead});
    EXPECT_THROW((void)readFrom(spill, 0), Failure);
}

}  // namespace
}  // namespace fstore
