// Wherever a command of the tool dies, loses power or meets a call that fails, what was
// acknowledged is there, and everything else is as before or as afterwards.
#include "tests/crash/tool/tool_crash.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/crash/figures.h"

namespace crash {
namespace {

constexpr Limits kEveryday{16, 4, 1, 1};
constexpr Limits kTorture{256, 16, 3, 2};
constexpr std::ptrdiff_t kEverydayCalls = 500;
constexpr ToolPowerLoss::Effort kEverydayEffort{50, 50, 200};
constexpr ToolPowerLoss::Effort kTortureEffort{4, 1, 8};

class ToolCrashTest : public testing::TestWithParam<ToolWorkload> {
protected:
    ToolCrashTest() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread is there yet
        (void)::setenv("FILESTORE_MODULES", MODULES, 1);
    }

    const bool isFull_ = isFull();
    std::mt19937 random_{seed()};

private:
    Scratch scratch_;
};

// All else compares with this run: that it did what the command is for, it has to show itself.
TEST_P(ToolCrashTest, DoesWhatItIsFor) {
    const ToolRecording recording = record(GetParam());
    ASSERT_EQ(0, recording.ran.code) << recording.ran.said;
    const ToolState& before = recording.promise.before;
    const ToolState& after = recording.promise.after;
    const ToolWorkload::Result& expected = GetParam().result;
    ASSERT_TRUE(after.database);
    EXPECT_EQ(expected.openers, after.database->openers);
    EXPECT_EQ(expected.records, after.database->records.size());
    EXPECT_EQ(expected.kept, after.kept.size());
    EXPECT_EQ(expected.lost, after.lost.size());
    EXPECT_FALSE(after.aside);
    if (expected.keepsRecords) {
        EXPECT_EQ(before.database->records, after.database->records);
    }
}

TEST_P(ToolCrashTest, LosesPower) {
    const ToolRecording recording = record(GetParam());
    ASSERT_EQ(0, recording.ran.code) << recording.ran.said;
    ASSERT_EQ("", judge(recording.promise.after, recording.promise, Acknowledged::kYes));
    ToolPowerLoss loss(recording, isFull_ ? kTorture : kEveryday,
                       isFull_ ? kTortureEffort : kEverydayEffort, random_);
    for (const Model model : {Model::kKill, Model::kReordered, Model::kOrdered}) {
        const std::string violation = loss.findViolation(model);
        EXPECT_TRUE(violation.empty()) << violation;
    }
}

struct Made {
    fault::Event event;
    int nth;  // of its kind
};

std::vector<Made> numbered(const std::vector<fault::Event>& events) {
    std::map<fault::Call, int> made;
    std::vector<Made> all;
    all.reserve(events.size());
    for (const fault::Event& event : events) {
        all.push_back({event, ++made[event.call]});
    }
    return all;
}

// Each call fails, with one errno after the other; in a full run with all of them. Every day, of a
// command that makes the same calls for one record after the other, those that chance picks.
TEST_P(ToolCrashTest, MeetsACallThatFails) {
    const ToolRecording recording = record(GetParam());
    ASSERT_EQ(0, recording.ran.code) << recording.ran.said;
    ToolFaults faults(recording);
    RecordProperty("calls", static_cast<int>(recording.everyCall.size()));
    const std::vector<Made> all = numbered(recording.everyCall);
    std::vector<Made> chosen;
    std::ranges::sample(all, std::back_inserter(chosen), isFull_ ? std::ssize(all) : kEverydayCalls,
                        random_);
    for (const auto& [event, nth] : chosen) {
        const std::vector<int>& errnos = fault::errnosOf(event.call);
        for (std::size_t i = 0; i < (isFull_ ? errnos.size() : 1); ++i) {
            const int error = errnos[(static_cast<std::size_t>(nth) + i) % errnos.size()];
            const std::string violation = faults.findViolation({event.call, nth, error});
            ASSERT_TRUE(violation.empty()) << violation << event.path;
        }
    }
}

// Of all workloads those of this part.
std::vector<ToolWorkload> ofThisPart() {
    std::vector<ToolWorkload> mine;
    for (std::size_t i = part().index; i < toolWorkloads().size(); i += part().count) {
        mine.push_back(toolWorkloads()[i]);
    }
    return mine;
}

INSTANTIATE_TEST_SUITE_P(Each, ToolCrashTest, testing::ValuesIn(ofThisPart()),
                         [](const auto& one) { return one.param.name; });

}  // namespace
}  // namespace crash
